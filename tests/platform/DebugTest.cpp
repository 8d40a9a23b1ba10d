#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "protocol/Text.h"
#include "platform/posix/Internal.h"

namespace tamrik::platform {
namespace {

struct Collected {
  std::vector<std::string> calls;
};

void Collect(void* context, const char* text) {
  static_cast<Collected*>(context)->calls.emplace_back(text);
}

// Runs body with stderr sent to a file and returns what was written.
template <typename Body>
std::string CaptureStderr(Body body) {
  char path[] = "/tmp/tamrik-stderr-XXXXXX";
  int file = ::mkstemp(path);
  EXPECT_GE(file, 0);
  int saved = ::dup(STDERR_FILENO);
  ::dup2(file, STDERR_FILENO);
  body();
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  std::string out;
  char chunk[512];
  ::lseek(file, 0, SEEK_SET);
  for (ssize_t n; (n = ::read(file, chunk, sizeof chunk)) > 0;) out.append(chunk, static_cast<size_t>(n));
  ::close(file);
  ::unlink(path);
  return out;
}

// Decodes one UTF-8 sequence starting at s[i]; returns the code point or -1 if malformed.
int32_t DecodeOne(const std::string& s, size_t& i) {
  auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  if (i >= s.size()) return -1;
  unsigned char c = b(i);
  int len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : 0;
  if (len == 0 || i + len > s.size()) return -1;
  int32_t cp = len == 1 ? c : len == 2 ? (c & 0x1F) : (c & 0x0F);
  for (int k = 1; k < len; ++k) {
    if ((b(i + k) & 0xC0) != 0x80) return -1;
    cp = (cp << 6) | (b(i + k) & 0x3F);
  }
  if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800)) return -1;  // overlong
  i += static_cast<size_t>(len);
  return cp;
}

TEST(DebugOutput, SinkReceivesEveryCallUnchanged) {
  Collected got;
  SetDebugSink(&Collect, &got);
  OutputDebugText("ComServer:Thread IN");
  OutputDebugText("M\xE4rz \x80 tab\there\r\nno end added");
  OutputDebugText("");
  ShowMessageBox("PopDownloadImageBlock", "Error(1) pfLoadStream==NULL");
  SetDebugSink(nullptr, nullptr);

  ASSERT_EQ(got.calls.size(), 4u);
  EXPECT_EQ(got.calls[0], "ComServer:Thread IN");
  EXPECT_EQ(got.calls[1], "M\xE4rz \x80 tab\there\r\nno end added");
  EXPECT_EQ(got.calls[2], "");
  EXPECT_EQ(got.calls[3], "PopDownloadImageBlock: Error(1) pfLoadStream==NULL");

  // Once removed, the sink hears nothing more and stderr gets the text again.
  std::string err = CaptureStderr([] { OutputDebugText("after"); });
  EXPECT_EQ(got.calls.size(), 4u);
  EXPECT_EQ(err, "after\n");
}

TEST(DebugOutput, CallsFromManyThreadsAllArriveWhole) {
  Collected got;  // deliberately unguarded: the layer must serialise the calls
  SetDebugSink(&Collect, &got);
  constexpr int kThreads = 4, kCalls = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      std::string text = "thread " + std::to_string(t) + " line";
      for (int i = 0; i < kCalls; ++i) OutputDebugText(text.c_str());
    });
  }
  for (auto& th : threads) th.join();
  SetDebugSink(nullptr, nullptr);

  ASSERT_EQ(got.calls.size(), static_cast<size_t>(kThreads * kCalls));
  std::vector<int> perThread(kThreads, 0);
  for (const auto& call : got.calls) {
    ASSERT_EQ(call.size(), 13u) << call;
    ++perThread[call[7] - '0'];
  }
  for (int count : perThread) EXPECT_EQ(count, kCalls);
}

TEST(DebugOutput, StderrGetsOneUtf8LinePerCall) {
  std::string err = CaptureStderr([] {
    OutputDebugText("Gr\xFC\xDF" "e");
    OutputDebugText("\x80 5");
    ShowMessageBox("Caption", "Text \xE4");
  });
  EXPECT_EQ(err,
            "Gr\xC3\xBC\xC3\x9F" "e\n"
            "\xE2\x82\xAC 5\n"
            "Caption: Text \xC3\xA4\n");
}

TEST(DebugOutput, Cp1252ConversionCoversAll256Values) {
  std::vector<int32_t> decoded(256);
  for (int byte = 0; byte < 256; ++byte) {
    std::string in(1, static_cast<char>(byte));
    std::string out = protocol::Cp1252ToUtf8(in);
    size_t pos = 0;
    decoded[byte] = DecodeOne(out, pos);
    ASSERT_NE(decoded[byte], -1) << "malformed UTF-8 for byte " << byte;
    EXPECT_EQ(pos, out.size()) << "more than one character for byte " << byte;
  }
  for (int byte = 0; byte < 0x80; ++byte) EXPECT_EQ(decoded[byte], byte);
  for (int byte = 0xA0; byte < 0x100; ++byte) EXPECT_EQ(decoded[byte], byte);

  // The 0x80..0x9F block holds the typographic characters; each is a character of its
  // own beyond Latin-1, except the five undefined positions.
  const int undefined[] = {0x81, 0x8D, 0x8F, 0x90, 0x9D};
  for (int byte : undefined) EXPECT_EQ(decoded[byte], 0xFFFD) << byte;
  std::vector<int32_t> seen;
  for (int byte = 0x80; byte < 0xA0; ++byte) {
    if (decoded[byte] == 0xFFFD) continue;
    EXPECT_GE(decoded[byte], 0x100) << byte;
    for (int32_t other : seen) EXPECT_NE(decoded[byte], other) << byte;
    seen.push_back(decoded[byte]);
  }
  EXPECT_EQ(seen.size(), 27u);
  EXPECT_EQ(decoded[0x80], 0x20AC);  // euro sign
  EXPECT_EQ(decoded[0x84], 0x201E);  // low double quote
  EXPECT_EQ(decoded[0x8A], 0x0160);  // S caron
  EXPECT_EQ(decoded[0x96], 0x2013);  // en dash
  EXPECT_EQ(decoded[0x99], 0x2122);  // trade mark
  EXPECT_EQ(decoded[0x9F], 0x0178);  // Y diaeresis

  EXPECT_EQ(protocol::Cp1252ToUtf8("\xE4\xF6\xFC"), "\xC3\xA4\xC3\xB6\xC3\xBC");
  EXPECT_EQ(protocol::Cp1252ToUtf8(std::string("a\0b", 3)), std::string("a\0b", 3));
}

}  // namespace
}  // namespace tamrik::platform

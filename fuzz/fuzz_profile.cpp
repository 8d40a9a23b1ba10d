// The profile file layer: any file content, any names and values. A value that was written
// must read back as written, and reading never writes beyond the caller's buffer.
//
// Input: file content, then after a zero byte the section, key and value, separated by
// zero bytes; the first byte after the file chooses the size of the read buffer.
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace {

std::string Next(const uint8_t*& p, const uint8_t* end) {
  const uint8_t* start = p;
  while (p < end && *p != 0) ++p;
  std::string text(start, p);
  if (p < end) ++p;
  return text;
}

bool Blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

// Names and values that a write stores and a read gives back unchanged.
bool RoundTrips(const std::string& section, const std::string& key, const std::string& value) {
  auto plainName = [](const std::string& s, bool isKey) {
    if (s.empty() || Blank(s.front()) || Blank(s.back())) return false;
    if (s.find_first_of("\r\n") != std::string::npos) return false;
    if (isKey) return s.find('=') == std::string::npos && s.front() != ';' && s.front() != '[';
    return s.find(']') == std::string::npos;
  };
  if (!plainName(section, false) || !plainName(key, true)) return false;
  if (value.find_first_of("\r\n") != std::string::npos) return false;
  if (!value.empty() && (Blank(value.front()) || Blank(value.back()))) return false;
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tamrik::platform;
  const uint8_t* p = data;
  const uint8_t* end = data + size;
  const std::string content = Next(p, end);
  const uint32_t bufferSize = p < end ? uint32_t(*p++) : 16;
  const std::string section = Next(p, end);
  const std::string key = Next(p, end);
  const std::string value = Next(p, end);
  const std::string file = tamrik::fuzz::WriteWorkFile("kaVcnf.ini", reinterpret_cast<const uint8_t*>(content.data()),
                                                       content.size());

  std::vector<char> buffer(size_t(bufferSize) + 1, '\x7F');
  ProfileGetString(section.c_str(), key.c_str(), "default", buffer.data(), bufferSize, file);
  ProfileGetString(section.c_str(), nullptr, "", buffer.data(), bufferSize, file);
  ProfileGetString(nullptr, nullptr, "", buffer.data(), bufferSize, file);
  if (buffer.back() != '\x7F') __builtin_trap();
  ProfileGetInt(section.c_str(), key.c_str(), 255, file);
  ProfileGetInt("Init", "Version", 255, file);

  if (ProfileWriteString(section.c_str(), key.c_str(), value.c_str(), file) && RoundTrips(section, key, value)) {
    std::vector<char> back(value.size() + 2);
    const uint32_t n = ProfileGetString(section.c_str(), key.c_str(), "", back.data(), uint32_t(back.size()), file);
    if (n != value.size() || memcmp(back.data(), value.data(), value.size()) != 0) __builtin_trap();
  }
  ProfileWriteString(section.c_str(), key.c_str(), nullptr, file);
  ProfileWriteString(section.c_str(), nullptr, nullptr, file);
  return 0;
}

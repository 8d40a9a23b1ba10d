#include "FileChecks.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Tool.h"

namespace tamrik::cli {
namespace {

// The loader's buffers: one record holds ':' and at most 199 bytes; the stage files are
// sent whole from buffers of these sizes.
constexpr size_t kMaxRecordBytes = 199;
constexpr size_t kBslBytes = 200;
constexpr size_t kSetCtxBytes = 1000;
constexpr size_t kBootBytes = 5000;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }

[[noreturn]] void Malformed(const std::string& path, size_t line, const std::string& reason) {
  throw UsageError(path + ":" + std::to_string(line) + ": " + reason);
}

std::string Hex2(unsigned value) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", value & 0xFF);
  return text;
}

// The bytes of one record's digits (after ':'), or a reason why the loader would get
// something else than they say.
std::vector<uint8_t> RecordBytes(const std::string& path, size_t line, const std::string& digits) {
  for (size_t i = 0; i < digits.size(); ++i) {
    const char c = digits[i];
    if (c >= 'a' && c <= 'f') {
      Malformed(path, line, std::string("lower-case digit '") + c + "' at column " + std::to_string(i + 2) +
                                ": the loader's reader ends the record there; write the digits in upper case");
    }
    if (HexValue(c) < 0) {
      Malformed(path, line, std::string("'") + c + "' at column " + std::to_string(i + 2) + " is not a hexadecimal digit");
    }
  }
  if (digits.size() % 2 != 0) Malformed(path, line, "odd number of hexadecimal digits");
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < digits.size(); i += 2) bytes.push_back(uint8_t(HexValue(digits[i]) * 16 + HexValue(digits[i + 1])));
  return bytes;
}

void CheckRecord(const std::string& path, size_t line, const std::vector<uint8_t>& bytes) {
  if (bytes.size() > kMaxRecordBytes) {
    Malformed(path, line, "record of " + std::to_string(bytes.size()) + " bytes; the loader takes at most " +
                              std::to_string(kMaxRecordBytes));
  }
  if (bytes.size() < 5) Malformed(path, line, "record too short for count, address, type and check byte");
  if (bytes[0] != bytes.size() - 5) {
    Malformed(path, line, "the count byte says " + std::to_string(bytes[0]) + " data bytes, the record holds " +
                              std::to_string(bytes.size() - 5));
  }
  unsigned sum = 0;
  for (size_t i = 0; i + 1 < bytes.size(); ++i) sum += bytes[i];
  const unsigned expected = (0x100 - (sum & 0xFF)) & 0xFF;
  if (bytes.back() != expected) {
    Malformed(path, line, "check byte " + Hex2(bytes.back()) + ", the record's bytes need " + Hex2(expected));
  }
}

std::string TrimRight(std::string text) {
  while (!text.empty() && IsBlank(text.back())) text.pop_back();
  return text;
}

}  // namespace

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw UsageError("cannot read " + path);
  std::stringstream text;
  text << in.rdbuf();
  if (in.bad()) throw UsageError("cannot read " + path);
  return text.str();
}

std::vector<size_t> CheckLineFile(const std::string& path) {
  std::istringstream in(ReadWholeFile(path));
  std::vector<size_t> sizes;
  size_t number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    line = TrimRight(line);
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    for (size_t i = 0; i < colon; ++i) {
      if (!IsBlank(line[i])) Malformed(path, number, "text before the record's ':'");
    }
    const std::vector<uint8_t> bytes = RecordBytes(path, number, line.substr(colon + 1));
    CheckRecord(path, number, bytes);
    sizes.push_back(1 + bytes.size());
  }
  if (sizes.empty()) throw UsageError(path + ": no records (lines starting with ':')");
  return sizes;
}

void CheckStageFile(const std::string& path, const std::string& stage, size_t capacity) {
  const std::string text = ReadWholeFile(path);
  size_t line = 1, digits = 0;
  bool ended = false;
  for (char c : text) {
    if (IsBlank(c)) {
      ended = true;
      if (c == '\n') ++line;
      continue;
    }
    if (HexValue(c) < 0) Malformed(path, line, stage + " file: '" + std::string(1, c) + "' is not a hexadecimal digit");
    if (ended) Malformed(path, line, stage + " file: digits after the white space that ends the file");
    if (++digits > 2 * capacity) {
      Malformed(path, line, stage + " file holds more than " + std::to_string(capacity) +
                                " bytes, the loader's buffer for this stage");
    }
  }
  if (digits == 0) throw UsageError(path + ": the " + stage + " file holds no bytes");
}

void CheckBootFiles(const std::string& bsl, const std::string& setCtx, const std::string& boot,
                    const std::string& firmware) {
  CheckStageFile(bsl, "BSL", kBslBytes);
  if (!setCtx.empty() && setCtx != "-") CheckStageFile(setCtx, "SetCtx", kSetCtxBytes);
  CheckStageFile(boot, "Boot", kBootBytes);
  CheckLineFile(firmware);
}

std::vector<std::string> ReadBootList(const std::string& path) {
  static const char* const kKeys[] = {"BSL_File", "SetCtx_File", "Boot_File", "Boot_Firmware"};
  std::vector<std::string> names(4);
  std::istringstream in(ReadWholeFile(path));
  bool inSection = false;
  for (std::string line; std::getline(in, line);) {
    line = TrimRight(line);
    if (!line.empty() && line.front() == '[') {
      inSection = line == "[BSL-Files]";
      continue;
    }
    const size_t equals = line.find('=');
    if (!inSection || equals == std::string::npos) continue;
    for (size_t k = 0; k < 4; ++k) {
      if (line.compare(0, equals, kKeys[k]) == 0 && equals == std::string(kKeys[k]).size())
        names[k] = line.substr(equals + 1);
    }
  }
  return names;
}

}  // namespace tamrik::cli

#include "protocol/Text.h"

#include <cstdint>

namespace tamrik::protocol {

namespace {

// Code points of 0x80..0x9F; 0 marks the positions the code page leaves undefined.
constexpr char16_t kHighControls[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
    0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::string Cp1252ToUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size() * 2);
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    char32_t cp = byte;
    if (byte >= 0x80 && byte <= 0x9F) {
      cp = kHighControls[byte - 0x80];
      if (cp == 0) cp = 0xFFFD;
    }
    AppendUtf8(out, cp);
  }
  return out;
}


}  // namespace tamrik::protocol

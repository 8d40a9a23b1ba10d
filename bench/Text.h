// printf-style formatting for the benchmark's table.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

namespace tamrik::bench {

inline std::string Format(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

}  // namespace tamrik::bench

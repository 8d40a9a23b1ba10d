// What the download readers share: handing back the one download file a port may hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "ComPort2.h"

namespace tamrik::download {

// Result codes of the readers that the common table has no name for.
inline constexpr uint32_t kNoFile = 1;       // no download file open, or it cannot be opened
inline constexpr uint32_t kFileRefused = 2;  // a file the loader must not get, or one read error

// Buffer sizes: they are limits of the file formats, not of this implementation.
inline constexpr size_t kRecordBuffer = 200;  // ':' and at most 199 record bytes
inline constexpr size_t kBslBuffer = 200;
inline constexpr size_t kSetCtxBuffer = 1000;
inline constexpr size_t kBootBuffer = 5000;

// Value of a hexadecimal digit of either case, or -1.
inline int HexValue(int c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace tamrik::download

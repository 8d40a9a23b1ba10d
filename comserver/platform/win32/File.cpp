// File lengths beyond 2 GiB on the Windows side, whose plain file positions are 32-bit.
#include <cstdio>

#include "platform/Platform.h"

namespace tamrik::platform {

int64_t FileLength(FILE* file) {
  if (_fseeki64(file, 0, SEEK_END) != 0) return -1;
  return _ftelli64(file);
}

}  // namespace tamrik::platform

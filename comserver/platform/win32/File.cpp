// Files larger than a long can count, on the Windows side (long is 32-bit there).
#include <cstdio>

#include "platform/Platform.h"

namespace tamrik::platform {

int64_t FileLength(FILE* file) {
  if (_fseeki64(file, 0, SEEK_END) != 0) return -1;
  return _ftelli64(file);
}

}  // namespace tamrik::platform

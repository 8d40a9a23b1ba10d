// File lengths beyond 2 GiB on the POSIX side.
#include <sys/types.h>

#include <cstdio>

#include "platform/Platform.h"

namespace tamrik::platform {

int64_t FileLength(FILE* file) {
  if (fseeko(file, 0, SEEK_END) != 0) return -1;
  return int64_t(ftello(file));
}

}  // namespace tamrik::platform

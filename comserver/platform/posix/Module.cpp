// Where the driver module lives, so that files shipped beside it can be found.
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "platform/Platform.h"

namespace tamrik::platform {

namespace {

std::string ExecutablePath() {
  std::string path(256, '\0');
  for (int attempt = 0; attempt < 8; ++attempt) {
    ssize_t n = ::readlink("/proc/self/exe", path.data(), path.size());
    if (n < 0) return {};
    if (static_cast<size_t>(n) < path.size()) {
      path.resize(static_cast<size_t>(n));
      return path;
    }
    path.resize(path.size() * 2);
  }
  return {};
}

std::string Absolute(const char* path) {
  char* resolved = ::realpath(path, nullptr);
  if (resolved == nullptr) return {};
  std::string result = resolved;
  std::free(resolved);
  return result;
}

}  // namespace

std::string ModuleDirectory() {
  Dl_info info{};
  link_map* map = nullptr;
  if (::dladdr1(reinterpret_cast<void*>(&ModuleDirectory), &info, reinterpret_cast<void**>(&map),
                RTLD_DL_LINKMAP) == 0) {
    return {};
  }
  // The main program's map has an empty name, and dladdr then reports argv[0], which may
  // be relative to a directory long left or found through PATH.
  std::string path;
  if (map != nullptr && map->l_name != nullptr && map->l_name[0] != '\0') {
    path = Absolute(map->l_name);
  } else {
    path = ExecutablePath();
  }
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  return path.substr(0, slash + 1);
}

}  // namespace tamrik::platform

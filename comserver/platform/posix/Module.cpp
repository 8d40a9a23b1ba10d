// Where the driver module lives, so that files shipped beside it can be found.
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
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

bool DirectoryExists(const std::string& path) {
  struct stat info{};
  return !path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool DirectoryWritable(const std::string& path) {
  return DirectoryExists(path) && ::access(path.c_str(), W_OK | X_OK) == 0;
}

namespace {

// Makes path and its missing parents, private to the user as configuration should be.
bool MakeDirectories(const std::string& path) {
  if (path.empty()) return false;
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (!part.empty() && ::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) break;
  }
  return DirectoryExists(path);
}

std::string Variable(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read, never set, by the driver
  return value != nullptr ? value : "";
}

}  // namespace

std::string UserConfigDirectory() {
  std::string dir = Variable("TAMRIK_CONFIG_DIR");
  if (dir.empty()) {
    const std::string xdg = Variable("XDG_CONFIG_HOME");
    const std::string home = Variable("HOME");
    // A relative XDG_CONFIG_HOME is to be ignored, as the base directory rules say.
    if (!xdg.empty() && xdg[0] == '/') dir = xdg + "/tamrik";
    else if (!home.empty()) dir = home + "/.config/tamrik";
  }
  if (dir.empty() || !MakeDirectories(dir)) return {};
  if (dir.back() != '/') dir += '/';
  return dir;
}

}  // namespace tamrik::platform

// Where the driver module lives, so that files shipped beside it can be found. The module
// is found by an address inside it rather than by its file name, so that a copy loaded
// under another name still finds its own files and not those beside the host program.
#include <windows.h>

#include <string>

#include "platform/Platform.h"

namespace tamrik::platform {

std::string ModuleDirectory() {
  HMODULE module = nullptr;
  if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCSTR>(&ModuleDirectory), &module)) {
    return {};
  }
  std::string path(MAX_PATH, '\0');
  for (int attempt = 0; attempt < 6; ++attempt) {
    const DWORD n = GetModuleFileNameA(module, path.data(), DWORD(path.size()));
    if (n == 0) return {};
    // A full buffer may mean the path was cut: try again with more room.
    if (n < path.size()) {
      path.resize(n);
      const size_t slash = path.find_last_of("\\/");
      if (slash == std::string::npos) return {};
      return path.substr(0, slash + 1);
    }
    path.resize(path.size() * 2);
  }
  return {};
}

bool DirectoryExists(const std::string& path) {
  const DWORD attributes = GetFileAttributesA(path.c_str());
  return !path.empty() && attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool DirectoryWritable(const std::string& path) {
  if (!DirectoryExists(path)) return false;
  // The only sure test is to make a file there.
  char name[MAX_PATH];
  if (GetTempFileNameA(path.c_str(), "tmk", 0, name) == 0) return false;
  DeleteFileA(name);
  return true;
}

std::string UserConfigDirectory() {
  char buffer[MAX_PATH];
  DWORD n = GetEnvironmentVariableA("TAMRIK_CONFIG_DIR", buffer, sizeof buffer);
  std::string dir;
  if (n > 0 && n < sizeof buffer) {
    dir.assign(buffer, n);
  } else {
    n = GetEnvironmentVariableA("APPDATA", buffer, sizeof buffer);
    if (n == 0 || n >= sizeof buffer) return {};
    dir.assign(buffer, n);
    dir += "\\tamrik";
  }
  // Parents first: each step may exist already.
  for (size_t sep = dir.find_first_of("\\/", 3);; sep = dir.find_first_of("\\/", sep + 1)) {
    CreateDirectoryA(dir.substr(0, sep).c_str(), nullptr);
    if (sep == std::string::npos) break;
  }
  if (!DirectoryExists(dir)) return {};
  return dir + "\\";
}

}  // namespace tamrik::platform

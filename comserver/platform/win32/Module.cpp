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

}  // namespace tamrik::platform

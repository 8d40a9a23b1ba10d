// Profile files through the system's own private profile functions, which define the rules
// the Linux side imitates.
#include <windows.h>

#include <string>

#include "platform/Platform.h"

namespace tamrik::platform {

uint32_t ProfileGetInt(const char* section, const char* key, int32_t def, const std::string& file) {
  return GetPrivateProfileIntA(section, key, def, file.c_str());
}

uint32_t ProfileGetString(const char* section, const char* key, const char* def, char* buffer,
                          uint32_t size, const std::string& file) {
  return GetPrivateProfileStringA(section, key, def, buffer, size, file.c_str());
}

bool ProfileWriteString(const char* section, const char* key, const char* value,
                        const std::string& file) {
  return WritePrivateProfileStringA(section, key, value, file.c_str()) != FALSE;
}

}  // namespace tamrik::platform

// What the POSIX files of the platform layer share among themselves, and what the platform
// tests reach directly. Not part of the driver's interface.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tamrik::platform::posix {

// Code page 1252 text as UTF-8. The five positions that code page leaves undefined (0x81,
// 0x8D, 0x8F, 0x90, 0x9D) become U+FFFD rather than C1 controls, which some terminals
// would act on.
std::string Cp1252ToUtf8(std::string_view text);

// The value of key in section as the profile functions read it (blanks trimmed, one pair
// of surrounding quotes removed); nothing when the file, the section or the key is missing.
std::optional<std::string> ProfileValue(std::string_view section, std::string_view key,
                                        const std::string& file);

}  // namespace tamrik::platform::posix

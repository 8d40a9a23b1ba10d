// What the POSIX files of the platform layer share among themselves, and what the platform
// tests reach directly. Not part of the driver's interface.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tamrik::platform::posix {

// The value of key in section as the profile functions read it (blanks trimmed, one pair
// of surrounding quotes removed); nothing when the file, the section or the key is missing.
std::optional<std::string> ProfileValue(std::string_view section, std::string_view key,
                                        const std::string& file);

}  // namespace tamrik::platform::posix

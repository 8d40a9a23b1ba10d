// Text of the driver for people: its trace texts are 8-bit in code page 1252, terminals and
// logs want UTF-8. Shared by the default trace output, the tool and the simulator.
#pragma once

#include <string>
#include <string_view>

namespace tamrik::protocol {

// Every byte as its code page 1252 character in UTF-8. The five positions the code page leaves
// undefined (0x81, 0x8D, 0x8F, 0x90, 0x9D) become U+FFFD rather than C1 controls, which some
// terminals would act on.
std::string Cp1252ToUtf8(std::string_view text);

}  // namespace tamrik::protocol

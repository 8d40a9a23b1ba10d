// How the data of an answer is shown beyond its decoding rule: the rule says which bytes make
// which values, not whether the values are characters or the module list's packed entries.
// The tool's decode command and the generated Wireshark dissector both read this.
#pragma once

#include <cstdint>

#include "protocol/ServiceTable.h"

namespace tamrik::cli {

enum class Shown : uint8_t {
  ByRule,   // the values as the answer rule makes them
  Text,     // one character per value (code page 1252)
  Modules,  // per module four bytes: status, then the 24-bit identifier
};

constexpr Shown ShownAs(uint32_t service) {
  switch (service) {
    case kServiceGatewayIdString:
    case kServiceBootFunctionIdString:
    case kServiceVersionString:
    case kServicePrivilegedName:
    case kServiceDNetToolIdent:
      return Shown::Text;
    case kServiceModuleList:
      return Shown::Modules;
    default:
      return Shown::ByRule;
  }
}

constexpr const char* ShownName(Shown shown) {
  switch (shown) {
    case Shown::Text: return "text";
    case Shown::Modules: return "modules";
    default: return "rule";
  }
}

}  // namespace tamrik::cli

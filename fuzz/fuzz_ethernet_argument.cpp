// The argument string and the address text of the Ethernet open, parsed without opening
// anything (a fuzzed address must never be connected to).
#include <string>

#include "protocol/Codec.h"
#include "protocol/LinkArgument.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const tamrik::protocol::EthernetArgument parsed = tamrik::protocol::ParseEthernetArgument(text.c_str());
  // Without a comma after the first character there is no keyword to find.
  const size_t comma = text.c_str()[0] == '\0' ? std::string::npos : std::string(text.c_str()).find(',');
  if ((comma == std::string::npos || comma == 0) && parsed.transport != tamrik::protocol::EthernetTransport::Tcp) {
    __builtin_trap();
  }
  uint32_t address = 0;
  tamrik::protocol::ParseIpv4(text.c_str(), &address);
  return 0;
}

// The argument string of the Ethernet open: a port number, optionally followed by ",UDP" or
// ",TCP", read without any I/O so that it can be tested and fuzzed on its own.
#pragma once

#include <cstdint>

namespace tamrik::protocol {

enum class EthernetTransport : uint8_t {
  Tcp,
  Udp,
  None,  // a comma after the first character but no keyword: no socket is made
};

struct EthernetArgument {
  EthernetTransport transport = EthernetTransport::Tcp;
  uint16_t port = 0;
};

// Text without a comma, or with a comma first, is a TCP port. Otherwise the keywords count
// only after the first character, and each takes the four characters of the keyword and the
// one after it out of the text; with both, TCP wins. The port is the low 16 bits of the
// decimal number at the start of what is left, as atoi and htons would have made it.
// A null text reads as empty.
EthernetArgument ParseEthernetArgument(const char* text);

}  // namespace tamrik::protocol

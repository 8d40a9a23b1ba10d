#include "protocol/LinkArgument.h"

#include <string>

namespace tamrik::protocol {

namespace {

// atoi without its undefined behaviour on overflow.
uint16_t PortFromText(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  uint32_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) value = value * 10 + uint32_t(text[i] - '0');
  return uint16_t(negative ? 0u - value : value);
}

}  // namespace

EthernetArgument ParseEthernetArgument(const char* text) {
  std::string arg = text != nullptr ? text : "";
  EthernetArgument result;
  const size_t comma = arg.find(',');
  if (comma != std::string::npos && comma != 0) {
    result.transport = EthernetTransport::None;
    const size_t udp = arg.find(",UDP", 1);
    if (udp != std::string::npos) {
      arg.erase(udp, 5);
      result.transport = EthernetTransport::Udp;
    }
    const size_t tcp = arg.find(",TCP", 1);
    if (tcp != std::string::npos) {
      arg.erase(tcp, 5);
      result.transport = EthernetTransport::Tcp;
    }
  }
  result.port = PortFromText(arg);
  return result;
}

}  // namespace tamrik::protocol

#include "Address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <charconv>

namespace tamrik::serve {

std::optional<std::pair<std::string, uint16_t>> SplitHostPort(const std::string& text, uint16_t min) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return std::nullopt;
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  if (host.find_first_of(" /") != std::string::npos) return std::nullopt;
  uint32_t port = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
  if (error != std::errc() || stop != end || port < min || port > 65535) return std::nullopt;
  return std::make_pair(host, uint16_t(port));
}

bool IsLoopback(const std::string& address) {
  if (address == "localhost" || address == "::1") return true;
  in_addr parsed{};
  return inet_pton(AF_INET, address.c_str(), &parsed) == 1 && (ntohl(parsed.s_addr) >> 24) == 127;
}

std::optional<std::string> Ipv4Of(const std::string& host) {
  in_addr parsed{};
  if (inet_pton(AF_INET, host.c_str(), &parsed) == 1) return host;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return std::nullopt;
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr, text, sizeof text);
  freeaddrinfo(found);
  return std::string(text);
}

}  // namespace tamrik::serve

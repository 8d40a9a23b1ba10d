// Network addresses as the tool and the service take them from people: "host:port", and the
// dotted IPv4 text the driver needs in place of a name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace tamrik::serve {

// "host:port" (also "[::1]:port") with a port from min to 65535; nullopt when malformed.
std::optional<std::pair<std::string, uint16_t>> SplitHostPort(const std::string& text, uint16_t min = 1);
// 127.0.0.0/8, ::1 and localhost.
bool IsLoopback(const std::string& address);
// The driver opens dotted IPv4 addresses only: host as it is when it is one, else the first
// IPv4 address of the name (looked up now, so a name that moves is followed on the next
// reconnection); nullopt when it has none.
std::optional<std::string> Ipv4Of(const std::string& host);

}  // namespace tamrik::serve

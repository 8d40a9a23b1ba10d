// Loopback helpers of the tests that need a port with nothing behind it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace tamrik::test {

// A loopback TCP port that nobody listens on: the system just handed it out and took it back.
inline uint16_t ClosedLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (fd >= 0) close(fd);
    return 0;
  }
  close(fd);
  return ntohs(address.sin_port);
}

}  // namespace tamrik::test

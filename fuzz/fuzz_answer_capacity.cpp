// The C interface's receiving functions fed by a gateway that sends whatever the fuzzer
// chose, with capacities the fuzzer chose: nothing may be written past the caller's array,
// whatever arrives and whatever the count on entry says.
//
// Input: a method byte, two capacity bytes (little-endian), then the bytes the gateway sends.
// The gateway is the far end of a loopback TCP connection that sends those bytes and closes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "FuzzSupport.h"
#include "tamrik.h"

namespace {

using Receive = uint32_t (*)(tamrik_com*, int32_t*, int32_t*, int32_t*);

uint32_t IdString(tamrik_com* com, int32_t* values, int32_t* count, int32_t* error) {
  return tamrik_kaVGetGatewayIdSring(com, reinterpret_cast<char*>(values), count, error);
}
uint32_t PrivilegedName(tamrik_com* com, int32_t* values, int32_t* count, int32_t* error) {
  return tamrik_kavGetPrivilegedName(com, reinterpret_cast<char*>(values), count, error);
}
uint32_t ErrorList(tamrik_com* com, int32_t* values, int32_t* count, int32_t* error) {
  int32_t entries = 0;
  return tamrik_kaVGetGatewayErrorList(com, &entries, values, count, error);
}
uint32_t AnyService(tamrik_com* com, int32_t* values, int32_t* count, int32_t* error) {
  int32_t service = 0x0003, sent = 0;
  return tamrik_kaVDoService(com, &service, reinterpret_cast<uint8_t*>(values), &sent, count, error);
}

// Every shape of answer handling: bytes, packed values, words, texts, records, raw bytes.
constexpr Receive kMethods[] = {
    tamrik_kaVGetProcessInData, tamrik_kaVSetProcessOutData, tamrik_kaVGetModuleList,
    tamrik_kaVGetModulIdStatusList, tamrik_kavGetBootFctsHwInfo, tamrik_kaVGetTRBuffer,
    tamrik_kaVSrvDNetGetClassInstAttr, IdString, PrivilegedName, ErrorList, AnyService,
};

// One listening socket for the whole run; each input gets a connection of its own.
int Listener(uint16_t* port) {
  static int fd = -1;
  static uint16_t bound = 0;
  if (fd < 0) {
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      abort();
    }
    bound = ntohs(address.sin_port);
  }
  *port = bound;
  return fd;
}

void Send(int fd, const uint8_t* bytes, size_t size) {
  const int big = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
  size_t sent = 0;
  while (sent < size) {
    const ssize_t n = send(fd, bytes + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n <= 0) break;  // what does not fit is simply not part of this input
    sent += size_t(n);
  }
  shutdown(fd, SHUT_WR);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  tamrik_set_trace(&tamrik::fuzz::DiscardTrace, nullptr);
  const Receive method = kMethods[data[0] % std::size(kMethods)];
  const size_t capacity = size_t(data[1] | (data[2] << 8));

  uint16_t port = 0;
  const int listener = Listener(&port);
  tamrik_config config;
  tamrik_config_defaults(&config);
  config.socket_answer_ms = 5;
  tamrik_com* com = tamrik_create_with(&config);
  int32_t error = -1;
  tamrik_kaVOpenEthernet(com, std::to_string(port).c_str(), "127.0.0.1", &error);
  const int peer = accept(listener, nullptr, nullptr);
  if (error != 0 || peer < 0) abort();
  Send(peer, data + 3, size - 3);

  // Guard values after the caller's array show any write beyond its capacity.
  constexpr int32_t kGuard = 0x6D6D6D6D;
  constexpr size_t kGuards = 8;
  std::vector<int32_t> values(capacity + kGuards, kGuard);
  for (int round = 0; round < 3; ++round) {
    int32_t count = int32_t(capacity);
    method(com, values.data(), &count, &error);
    for (size_t i = capacity; i < values.size(); ++i) {
      if (values[i] != kGuard) __builtin_trap();
    }
  }
  tamrik_release(com);
  close(peer);
  return 0;
}

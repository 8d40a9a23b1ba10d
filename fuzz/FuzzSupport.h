// What the fuzz targets share: a port object whose socket is one end of a local socket pair,
// so that the driver's own reception code reads bytes the fuzzer chose, and a private
// directory for the files the readers open.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "ComPort2.h"
#include "common/TestPeers.h"
#include "platform/Platform.h"

namespace tamrik::fuzz {

// The trace is built as usual but goes nowhere.
inline void DiscardTrace(void*, const char*) {}

// A port object linked to a peer that has sent `bytes` and then closed its sending side: the
// reads get those bytes and then find the stream ended, at once and without waiting. What
// the port writes goes into the peer's queue and is never read.
class StreamPort {
 public:
  StreamPort(const uint8_t* bytes, size_t size, bool trace) {
    platform::SetDebugSink(&DiscardTrace, nullptr);
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) abort();
    const int big = 1 << 20;
    setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    setsockopt(fds[0], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    size_t sent = 0;
    while (sent < size) {
      const ssize_t n = send(fds[1], bytes + sent, size - sent, MSG_NOSIGNAL);
      if (n <= 0) break;  // what does not fit is simply not part of this input
      sent += size_t(n);
    }
    shutdown(fds[1], SHUT_WR);
    peer_ = fds[1];
    port_ = std::make_unique<CComPort>();
    port_->SetTracing(trace);
    CComPortTestPeer::AdoptStreamSocket(*port_, fds[0]);
  }
  ~StreamPort() {
    port_.reset();  // closes its socket
    close(peer_);
  }
  CComPort& port() { return *port_; }

 private:
  std::unique_ptr<CComPort> port_;
  int peer_ = -1;
};

// A directory of this process's own, removed at exit.
inline const std::string& WorkDirectory() {
  static const std::string dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "tamrik-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) abort();
    static struct Remover {
      std::string path;
      ~Remover() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
      }
    } remover{pattern};
    return pattern;
  }();
  return dir;
}

inline std::string WriteWorkFile(const std::string& name, const uint8_t* data, size_t size) {
  std::string path = WorkDirectory() + "/" + name;
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data), std::streamsize(size));
  return path;
}

}  // namespace tamrik::fuzz

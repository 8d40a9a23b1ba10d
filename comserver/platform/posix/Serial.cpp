// Serial line on a tty device, with the locking and read time-outs that the driver's
// logic expects of a Windows COM port.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "platform/Platform.h"
#include "platform/posix/Internal.h"

namespace tamrik::platform {

struct SerialDevice {
  int fd = -1;
  // A second descriptor of the same terminal, without O_NONBLOCK, for the one wait an
  // exchange makes: a read that blocks until the answer begins, bounded by VTIME. A poll
  // followed by a read costs the exchange a few microseconds more where the reader wakes
  // on another CPU. -1 where the device is no terminal, or the terminal refused.
  int waitFd = -1;
  uint8_t vtime = 0;  // VTIME as last set: the waiting read's bound in tenths of a second
  SerialTimeouts timeouts;
  // Bytes taken from the device beyond what a read asked for; the next read serves them
  // first. The driver reads an answer in three pieces (start byte, header, rest); taking
  // whatever has arrived in one system call instead of one per piece halves the calls of an
  // exchange, and what waits here is exactly what would have waited in the input queue.
  uint8_t staged[256];
  uint32_t stagedBegin = 0;
  uint32_t stagedEnd = 0;
  // A write went out since the last read: its answer cannot be there before the request has
  // crossed the line, so the read that follows waits before it looks.
  bool wrote = false;
};

namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNoDeadline = INT64_MAX;
// A write that makes no progress for this long (receiver stopped reading, handshake line
// held low) gives up with what it has written, where Windows would wait for ever.
constexpr int64_t kWriteStallNs = 5000 * kNsPerMs;
// The kernel's ENOIOCTLCMD, which some drivers let through to user space.
constexpr int kNoIoctlCommand = 515;

int64_t NowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// 1 ready (revents filled), 0 deadline passed, -1 error.
int WaitUntil(int fd, short events, int64_t deadline, short* revents) {
  for (;;) {
    pollfd p{fd, events, 0};
    timespec wait{};
    timespec* waitPtr = nullptr;
    if (deadline != kNoDeadline) {
      int64_t left = deadline - NowNs();
      if (left <= 0) return 0;
      wait.tv_sec = static_cast<time_t>(left / 1000000000);
      wait.tv_nsec = static_cast<long>(left % 1000000000);
      waitPtr = &wait;
    }
    int r = ::ppoll(&p, 1, waitPtr, nullptr);
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (r == 0) continue;  // the deadline check above ends the wait
    *revents = p.revents;
    return 1;
  }
}

int64_t MsToNs(uint64_t ms) {
  // Beyond about 290 years a limit is no limit.
  return ms > static_cast<uint64_t>(INT64_MAX / kNsPerMs / 2) ? kNoDeadline / 2
                                                                : static_cast<int64_t>(ms) * kNsPerMs;
}

int64_t Earlier(int64_t a, int64_t b) { return a < b ? a : b; }

speed_t SpeedOf(uint32_t baudrate) {
  switch (baudrate) {
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    default: return B0;
  }
}

// Modem-line requests are refused by pseudo-terminals and some USB adapters, which have no
// such lines; that is no reason to refuse the line.
bool ModemLines(int fd, unsigned long request, int bits) {
  if (::ioctl(fd, request, &bits) == 0) return true;
  return errno == ENOTTY || errno == EINVAL || errno == EOPNOTSUPP || errno == ENOSYS ||
         errno == kNoIoctlCommand;
}

// Serves up to length bytes from the staging area; the number served.
uint32_t TakeStaged(SerialDevice* device, uint8_t* buffer, uint32_t length) {
  const uint32_t n = std::min(length, device->stagedEnd - device->stagedBegin);
  std::memcpy(buffer, device->staged + device->stagedBegin, n);
  device->stagedBegin += n;
  return n;
}

// One read of the device for at most length bytes, with the staging area empty: a short
// request takes whatever has arrived into the staging area and serves from there, a long
// one goes straight into the buffer. The result is that of read(2), counted in bytes served.
// fd is the device's own descriptor or its waiting one.
ssize_t ReadDevice(SerialDevice* device, uint8_t* buffer, uint32_t length, int fd) {
  if (length >= sizeof device->staged) return ::read(fd, buffer, length);
  const ssize_t n = ::read(fd, device->staged, sizeof device->staged);
  if (n <= 0) return n;
  device->stagedBegin = 0;
  device->stagedEnd = static_cast<uint32_t>(n);
  return static_cast<ssize_t>(TakeStaged(device, buffer, length));
}

// The waiting descriptor of a terminal: a second open of the same device, so that its
// blocking mode is its own (a dup would share O_NONBLOCK). Opened without waiting, as the
// first one was, then made blocking; VMIN 0 keeps every read bounded by VTIME.
int OpenWaitingDescriptor(int fd) {
  if (::isatty(fd) != 1) return -1;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const int waitFd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (waitFd < 0) return -1;
  const int flags = ::fcntl(waitFd, F_GETFL);
  if (flags < 0 || ::fcntl(waitFd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
    ::close(waitFd);
    return -1;
  }
  return waitFd;
}

// VTIME for a wait that must end by deadline: whole tenths of a second that fit, at most
// 25.5 s; 0 when not even one fits.
uint8_t TenthsBefore(int64_t deadline) {
  if (deadline == kNoDeadline) return 255;
  const int64_t left = deadline - NowNs();
  return static_cast<uint8_t>(std::clamp<int64_t>((left - 1) / (100 * kNsPerMs), 0, 255));
}

bool SetWaitTenths(SerialDevice* device, uint8_t tenths) {
  if (device->vtime == tenths) return true;
  termios tio{};
  if (::tcgetattr(device->fd, &tio) != 0) return false;
  tio.c_cc[VTIME] = tenths;
  if (::tcsetattr(device->fd, TCSANOW, &tio) != 0) return false;
  device->vtime = tenths;
  return true;
}

// The wait for an answer after a request went out; the bytes it served. On a terminal one
// blocking read takes whatever arrives first, bounded by the whole tenths of a second that
// fit before the deadline; elsewhere, or for a shorter bound, a poll waits. Whatever the
// wait reports, the read loop that follows judges it.
uint32_t WaitForAnswer(SerialDevice* device, uint8_t* buffer, uint32_t length, int64_t deadline) {
  const uint8_t tenths = device->waitFd >= 0 ? TenthsBefore(deadline) : 0;
  if (tenths > 0 && SetWaitTenths(device, tenths)) {
    const ssize_t n = ReadDevice(device, buffer, length, device->waitFd);
    return n > 0 ? static_cast<uint32_t>(n) : 0;
  }
  short revents = 0;
  WaitUntil(device->fd, POLLIN, deadline, &revents);
  return 0;
}

}  // namespace

SerialDevice* SerialOpen(int32_t port, const std::string& configFile, SerialOpenError* error,
                         const std::string& device) {
  SerialOpenError ignored;
  if (error == nullptr) error = &ignored;
  *error = SerialOpenError::None;

  std::optional<std::string> configured =
      !device.empty() ? std::optional<std::string>(device)
                      : posix::ProfileValue("Ports", "Com" + std::to_string(port), configFile);
  std::string path = (configured && !configured->empty())
                         ? *configured
                         : "/dev/ttyS" + std::to_string(static_cast<int64_t>(port) - 1);

  int fd;
  do {
    fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    switch (errno) {
      // ENXIO and ENODEV: the node exists but no device stands behind it.
      case ENOENT: case ENOTDIR: case ENXIO: case ENODEV:
        *error = SerialOpenError::NotFound;
        break;
      case EACCES: case EPERM: case EBUSY:
        *error = SerialOpenError::AccessDenied;
        break;
      default:
        *error = SerialOpenError::Other;
        break;
    }
    return nullptr;
  }

  // The lock comes first: exclusive tty mode is a flag of the device, and setting it on a
  // device that another program holds would outlive our failed open.
  int r;
  do {
    r = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (r != 0 && errno == EINTR);
  if (r != 0 && errno == EWOULDBLOCK) {
    ::close(fd);
    *error = SerialOpenError::AccessDenied;
    return nullptr;
  }
  // Any other flock failure means a file system without locks; the device is then used
  // unlocked rather than refused.

  auto* opened = new SerialDevice;
  opened->fd = fd;
  opened->waitFd = OpenWaitingDescriptor(fd);
  // Keeps out programs that open the device without taking the lock (after our own second
  // open). Root passes it anyway, and files or sockets named in the configuration do not
  // support it.
  (void)::ioctl(fd, TIOCEXCL);
  return opened;
}

bool SerialConfigure(SerialDevice* device, uint32_t baudrate, uint8_t rtsControl) {
  if (device == nullptr) return false;
  speed_t speed = SpeedOf(baudrate);
  if (speed == B0) return false;

  termios tio{};
  if (::tcgetattr(device->fd, &tio) != 0) return false;
  tio.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | IGNPAR | PARMRK | INPCK | ISTRIP |
                                        INLCR | IGNCR | ICRNL | IUCLC | IXON | IXANY | IXOFF |
                                        IMAXBEL);
  tio.c_oflag &= ~static_cast<tcflag_t>(OPOST | OLCUC | ONLCR | OCRNL | ONOCR | ONLRET);
  tio.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | ECHOCTL |
                                        ECHOPRT | ECHOKE | IEXTEN | NOFLSH | TOSTOP);
  tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS);
  tio.c_cflag |= CS8 | CLOCAL | CREAD;
  const int rts = rtsControl & 3;
  if (rts == 2) tio.c_cflag |= CRTSCTS;
  tio.c_cc[VMIN] = 0;
  tio.c_cc[VTIME] = device->vtime;  // only the waiting descriptor blocks, and only that long
  if (::cfsetispeed(&tio, speed) != 0 || ::cfsetospeed(&tio, speed) != 0) return false;
  if (::tcsetattr(device->fd, TCSANOW, &tio) != 0) return false;

  // tcsetattr succeeds when any part of the request was taken; what counts must have been.
  termios now{};
  if (::tcgetattr(device->fd, &now) != 0) return false;
  if (::cfgetospeed(&now) != speed || (now.c_cflag & (CSIZE | PARENB | CSTOPB)) != CS8 ||
      (now.c_lflag & ICANON) != 0) {
    return false;
  }

  if (!ModemLines(device->fd, TIOCMBIS, TIOCM_DTR)) return false;
  switch (rts) {
    case 0:
      return ModemLines(device->fd, TIOCMBIC, TIOCM_RTS);
    case 2:
      return true;  // the driver moves RTS itself under CRTSCTS
    default:
      // 1, and 3 (toggle: RTS up only while sending) which no tty driver offers as such;
      // raising RTS for good serves the half-duplex converters that toggle is meant for as
      // long as they listen to the direction of the data rather than to RTS.
      return ModemLines(device->fd, TIOCMBIS, TIOCM_RTS);
  }
}

void SerialSetTimeouts(SerialDevice* device, const SerialTimeouts& timeouts) {
  if (device != nullptr) device->timeouts = timeouts;
}

namespace {

// What the Windows read time-outs ask of one read of length bytes that starts at start.
struct ReadPlan {
  bool returnAtOnce = false;   // interval MAXDWORD, no total: what is there, at once
  bool returnOnFirst = false;  // interval and multiplier MAXDWORD, a constant: the first bytes
  bool intervalLimit = false;  // a gap between two bytes ends the read
  int64_t totalDeadline = kNoDeadline;
};

ReadPlan PlanRead(const SerialTimeouts& t, uint32_t length, int64_t start) {
  constexpr uint32_t kMax = UINT32_MAX;
  ReadPlan plan;
  // The two combinations with a meaning of their own on Windows: interval MAXDWORD with
  // no total returns at once with what is there; interval and multiplier MAXDWORD with a
  // constant returns as soon as anything is there, waiting at most the constant.
  plan.returnAtOnce = t.readInterval == kMax && t.readTotalMultiplier == 0 && t.readTotalConstant == 0;
  plan.returnOnFirst = t.readInterval == kMax && t.readTotalMultiplier == kMax && t.readTotalConstant > 0 &&
                       t.readTotalConstant < kMax;
  if (plan.returnOnFirst) {
    plan.totalDeadline = start + MsToNs(t.readTotalConstant);
  } else if (t.readTotalMultiplier != 0 || t.readTotalConstant != 0) {
    uint64_t ms = static_cast<uint64_t>(t.readTotalMultiplier) * length + t.readTotalConstant;
    plan.totalDeadline = start + MsToNs(ms);
  }
  plan.intervalLimit = t.readInterval != 0 && !plan.returnOnFirst;
  return plan;
}

// How far a read has come: bytes served, and when the last of them arrived.
struct ReadProgress {
  uint32_t got = 0;
  int64_t lastByte = 0;
};

// Reads until length bytes are there or the plan says the read is over; false when the line
// failed (progress->got then says how much came before).
bool ReadUntilDone(SerialDevice* device, uint8_t* buffer, uint32_t length, const ReadPlan& plan,
                   ReadProgress* progress) {
  uint32_t& got = progress->got;
  bool hungUp = false;
  while (got < length) {
    ssize_t n = ReadDevice(device, buffer + got, length - got, device->fd);
    if (n > 0) {
      got += static_cast<uint32_t>(n);
      progress->lastByte = NowNs();
      continue;  // take whatever else is queued before looking at the clock
    }
    if (n < 0 && errno == EINTR) continue;
    // In raw mode with VMIN = VTIME = 0 an empty queue reads as 0, before that as EAGAIN.
    if (n < 0 && errno != EAGAIN) return false;  // EIO: the device is gone or the master of a pty was closed
    // A hang-up with nothing left to read: no more bytes can come, and waiting out the
    // time-out would only hide that the line is gone.
    if (hungUp) return false;
    if (plan.returnAtOnce || (plan.returnOnFirst && got > 0)) break;

    int64_t deadline = plan.totalDeadline;
    if (plan.intervalLimit && got > 0) {
      deadline = Earlier(deadline, progress->lastByte + MsToNs(device->timeouts.readInterval));
    }
    short revents = 0;
    const int w = WaitUntil(device->fd, POLLIN, deadline, &revents);
    if (w == 0) {
      // One last look: bytes that came with the deadline still count.
      n = ReadDevice(device, buffer + got, length - got, device->fd);
      if (n > 0) got += static_cast<uint32_t>(n);
      break;
    }
    if (w < 0 || (revents & POLLNVAL) != 0) return false;
    if ((revents & (POLLHUP | POLLERR)) != 0) hungUp = true;
  }
  return true;
}

}  // namespace

bool SerialRead(SerialDevice* device, uint8_t* buffer, uint32_t length, uint32_t* done) {
  uint32_t ignored;
  if (done == nullptr) done = &ignored;
  *done = 0;
  if (device == nullptr || (buffer == nullptr && length > 0)) return false;
  if (length == 0) return true;

  const int64_t start = NowNs();
  const ReadPlan plan = PlanRead(device->timeouts, length, start);
  ReadProgress progress{TakeStaged(device, buffer, length), start};
  if (progress.got < length && device->wrote && !plan.returnAtOnce) {
    // The interval between bytes counts from the first that the wait brought.
    const uint32_t waited =
        WaitForAnswer(device, buffer + progress.got, length - progress.got, plan.totalDeadline);
    if (waited > 0) {
      progress.got += waited;
      progress.lastByte = NowNs();
    }
  }
  device->wrote = false;
  const bool ok = ReadUntilDone(device, buffer, length, plan, &progress);
  *done = progress.got;
  return ok;
}

bool SerialWrite(SerialDevice* device, const uint8_t* buffer, uint32_t length, uint32_t* done) {
  uint32_t ignored;
  if (done == nullptr) done = &ignored;
  *done = 0;
  if (device == nullptr || (buffer == nullptr && length > 0)) return false;

  device->wrote = true;
  uint32_t sent = 0;
  int64_t lastProgress = NowNs();
  bool hungUp = false;
  while (sent < length) {
    ssize_t n = ::write(device->fd, buffer + sent, length - sent);
    if (n > 0) {
      sent += static_cast<uint32_t>(n);
      lastProgress = NowNs();
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if ((n < 0 && errno != EAGAIN) || hungUp) {
      *done = sent;
      return false;
    }
    short revents = 0;
    int w = WaitUntil(device->fd, POLLOUT, lastProgress + kWriteStallNs, &revents);
    if (w == 0) break;
    if (w < 0 || (revents & POLLNVAL) != 0) {
      *done = sent;
      return false;
    }
    if ((revents & (POLLHUP | POLLERR)) != 0) hungUp = true;
  }
  *done = sent;
  return true;
}

void SerialClose(SerialDevice* device) {
  if (device == nullptr) return;
  (void)::ioctl(device->fd, TIOCNXCL);
  (void)::flock(device->fd, LOCK_UN);
  if (device->waitFd >= 0) ::close(device->waitFd);
  ::close(device->fd);
  delete device;
}

}  // namespace tamrik::platform

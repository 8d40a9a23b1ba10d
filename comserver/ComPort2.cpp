// The port object: link state, serial line, sockets, stream layer and trace.
#include "ComPort2.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <string>

#include "ResultCodes.h"
#include "protocol/LinkArgument.h"

namespace tamrik {

using platform::kInvalidSocket;

namespace {

// One reception may take as long as its three reads (start byte, header, rest) may wait, and
// drops at most this many frames that answer other requests.
constexpr uint32_t kReceptionReads = 3;
constexpr uint32_t kMaxDroppedFrames = 16;

// The UDP link by port number uses these two fixed addresses.
constexpr const char* kUdpLocalAddress = "192.168.0.1";
constexpr const char* kUdpRemoteAddress = "192.168.0.99";

bool IsAllowedBaudrate(int32_t baud) {
  switch (baud) {
    case 9600:
    case 19200:
    case 38400:
    case 57600:
    case 115200:
      return true;
    default:
      return false;
  }
}

}  // namespace

CComPort::CComPort() = default;

CComPort::~CComPort() {
  // The driver object closes the link before it deletes the port; whatever is still held
  // here (a download file, a link opened without the driver object) is released all the same.
  if (pfLoadStream != nullptr) fclose(pfLoadStream);
  if (hCom != nullptr) platform::SerialClose(hCom);
  if (hSocket != kInvalidSocket) {
    platform::SocketClose(hSocket);
    platform::NetCleanup();
  }
}

// --- link ----------------------------------------------------------------------------------

uint32_t CComPort::Open(int32_t nPort, int32_t nBaud, uint8_t nRtsControl) {
  if (nPort > 255) return OpenUdpByPort(nPort);
  return OpenSerial(nPort, nBaud, nRtsControl);
}

uint32_t CComPort::OpenSerial(int32_t nPort, int32_t nBaud, uint8_t nRtsControl) {
  bSerialMode = 1;
  bSocketMode = 0;
  if (!IsAllowedBaudrate(nBaud)) return rc::kComBadBaudrate;
  if (bComOpen) return rc::kComAlreadyOpen;

  platform::SerialOpenError error = platform::SerialOpenError::None;
  const auto mapped = serialDevices_.find(nPort);
  platform::SerialDevice* device = platform::SerialOpen(
      nPort, configFile_, &error, mapped != serialDevices_.end() ? mapped->second : std::string());
  if (device == nullptr) {
    switch (error) {
      case platform::SerialOpenError::NotFound:
        return rc::kComNoDevice;
      case platform::SerialOpenError::AccessDenied:
        return rc::kComAlreadyOpen;
      default:
        return rc::kComOpenFailed;
    }
  }
  if (!platform::SerialConfigure(device, uint32_t(nBaud), uint8_t(nRtsControl & 3))) {
    // A device whose settings cannot be written is of no use; keeping it open would only
    // make every later open of the same port fail as "in use".
    platform::SerialClose(device);
    return rc::kComSettingsFailed;
  }
  hCom = device;
  nActiveReadTotalConstant = nReadTotalConstant;
  bComOpen = 1;
  WriteSerialTimeouts(nReadTotalConstant);
  return rc::kOk;
}

void CComPort::WriteSerialTimeouts(uint32_t totalConstant) {
  platform::SerialTimeouts timeouts;
  timeouts.readInterval = nReadInterval;
  timeouts.readTotalMultiplier = nReadTotalMultiplier;
  timeouts.readTotalConstant = totalConstant;
  platform::SerialSetTimeouts(hCom, timeouts);
}

void CComPort::ChangeTimings(bool bFirmware) {
  if (!bComOpen) return;
  const uint32_t target = bFirmware ? nReadTotalConstantFW : nReadTotalConstant;
  if (nActiveReadTotalConstant == target) {
    Trace("ComPort Timings OK");
    return;
  }
  nActiveReadTotalConstant = target;
  WriteSerialTimeouts(target);
  if (Tracing()) {
    char text[64];
    snprintf(text, sizeof text, "ComPort ChangeTimings: %d", int32_t(target));
    Trace(text);
  }
}

void CComPort::ResetReceive() {
  bRecvArmed = 1;
  nRecvOffset = 0;
  nRecvFill = 0;
}

uint32_t CComPort::OpenUdpByPort(int32_t nPort) {
  bSerialMode = 0;
  bSocketMode = 1;
  ResetReceive();
  const int32_t startup = platform::NetStartup(2, 0);
  if (startup != 0) return uint32_t(startup);
  hSocket = platform::SocketCreate(true);
  if (hSocket == kInvalidSocket) return rc::kNoSocket;
  socketDatagram_ = true;
  socketBounded_ = true;

  const uint16_t port = uint16_t(uint32_t(nPort) & 0xFFFF);
  addrLocal.port = port;
  protocol::ParseIpv4(kUdpLocalAddress, &addrLocal.address);
  const int32_t bindError = platform::SocketBind(hSocket, addrLocal.address, port);
  if (bindError != 0) return uint32_t(bindError);

  addrRemote.port = port;
  protocol::ParseIpv4(kUdpRemoteAddress, &addrRemote.address);
  if (platform::SocketConnect(hSocket, addrRemote.address, port) != 0) return 1;
  // The reads wait with a bound of their own; the socket itself never blocks the caller.
  platform::SocketSetNonBlocking(hSocket);
  return rc::kOk;
}

uint32_t CComPort::OpenEthernet(const char* psAdditionalArg, const char* psRemoteIPAddress) {
  bSerialMode = 0;
  bSocketMode = 1;
  ResetReceive();
  if (platform::NetStartup(2, 2) != 0) return 1;

  const protocol::EthernetArgument parsed = protocol::ParseEthernetArgument(psAdditionalArg);
  if (parsed.transport != protocol::EthernetTransport::None) {
    socketDatagram_ = parsed.transport == protocol::EthernetTransport::Udp;
    hSocket = platform::SocketCreate(socketDatagram_);
  }
  if (hSocket == kInvalidSocket) return 2;
  platform::SocketSetNonBlocking(hSocket);
  socketBounded_ = false;

  addrRemote.port = parsed.port;
  // Windows Sockets refuses 0.0.0.0 and an unconvertible address at once, where Linux would
  // quietly connect to the local host; report both the same way everywhere.
  if (psRemoteIPAddress == nullptr || !protocol::ParseIpv4(psRemoteIPAddress, &addrRemote.address) ||
      addrRemote.address == 0) {
    return rc::kConnectErrorBase + uint32_t(wsa::kAddrNotAvail);
  }
  const int32_t error = platform::SocketConnect(hSocket, addrRemote.address, addrRemote.port);
  if (error != 0 && error != wsa::kWouldBlock) return rc::kConnectErrorBase + uint32_t(error);
  // Give a TCP connection the tenth of a second it was always given, but no longer than it
  // needs: the wait ends as soon as the connection is made. A connection refused (or found
  // unreachable) within it is reported as the failed connect it is, not left for the first
  // request to meet as a write failure.
  const int32_t outcome = platform::SocketWaitConnected(hSocket, 100);
  if (outcome != 0) return rc::kConnectErrorBase + uint32_t(outcome);
  return rc::kOk;
}

uint32_t CComPort::Close() {
  if (bSocketMode) {
    if (hSocket != kInvalidSocket) platform::SocketClose(hSocket);
    if (Tracing()) {
      char text[64];
      snprintf(text, sizeof text, "Socket WSAGetLastError: %x", uint32_t(platform::SocketLastError()));
      Trace(text);
    }
    platform::NetCleanup();
    bSocketMode = 0;
    hSocket = kInvalidSocket;
    ResetReceive();
    return rc::kOk;
  }
  if (bSerialMode && bComOpen) {
    platform::SerialClose(hCom);
    hCom = nullptr;
    bComOpen = 0;
    bSerialMode = 0;
    return rc::kOk;
  }
  return rc::kNothingOpen;
}

// --- serial transfers ------------------------------------------------------------------------

uint32_t CComPort::ReadCom(uint8_t* buffer, int32_t length) {
  if (!bComOpen || hCom == nullptr || length < 0) return rc::kReadFailed;
  uint32_t done = 0;
  if (!platform::SerialRead(hCom, buffer, uint32_t(length), &done)) return rc::kReadFailed;
  return done < uint32_t(length) ? rc::kReadShort : rc::kOk;
}

uint32_t CComPort::WriteCom(const uint8_t* buffer, int32_t length) {
  if (!bComOpen || hCom == nullptr || length < 0) return rc::kWriteFailed;
  uint32_t done = 0;
  if (!platform::SerialWrite(hCom, buffer, uint32_t(length), &done)) return rc::kWriteFailed;
  return done < uint32_t(length) ? rc::kWriteShort : rc::kOk;
}

// --- stream layer ----------------------------------------------------------------------------

uint32_t CComPort::ReadStream(uint8_t* buffer, int32_t length) {
  uint32_t result;
  if (bSerialMode) {
    result = ReadCom(buffer, length);
  } else if (bSocketMode) {
    result = bPolling ? ReadSocketNoWait(buffer, length) : ReadSocket(buffer, length);
  } else {
    result = rc::kReadFailed;  // no transport open
  }
  if (result == 0 && length > 0) stats_.bytesIn += uint64_t(length);
  if (!(length <= 0 && result != 0)) DumpTransfer("ComServer:Read Stream (len:%04X): ", buffer, length);
  return result;
}

uint32_t CComPort::WriteStream(const uint8_t* buffer, int32_t length) {
  bWriteActive = 1;
  uint32_t result;
  if (bSerialMode) {
    result = WriteCom(buffer, length);
  } else if (bSocketMode) {
    result = WriteSocket(buffer, length);
  } else {
    result = rc::kWriteFailed;  // no transport open
  }
  if (result == 0 && length > 0) stats_.bytesOut += uint64_t(length);
  if (!(length <= 0 && result != 0)) DumpTransfer("ComServer:Write Stream (len:%04X): ", buffer, length);
  return result;
}

void CComPort::DumpTransfer(const char* header, const uint8_t* buffer, int32_t length) {
  // The dump costs two characters per byte; with tracing off it is not built at all.
  if (!Tracing()) return;
  static constexpr char kHex[] = "0123456789ABCDEF";
  char head[64];
  const int headLength = snprintf(head, sizeof head, header, uint32_t(std::max(length, 0)));
  std::string text;
  const size_t count = length > 0 ? size_t(length) : 0;
  text.reserve(size_t(headLength) + 2 * count);
  text.append(head, size_t(headLength));
  for (size_t i = 0; i < count; ++i) {
    text.push_back(kHex[buffer[i] >> 4]);
    text.push_back(kHex[buffer[i] & 15]);
  }
  platform::OutputDebugText(text.c_str());
}

uint32_t CComPort::ReadSocket(uint8_t* buffer, int32_t length) { return ReadSocketUntil(buffer, length, false); }

uint32_t CComPort::ReadSocketNoWait(uint8_t* buffer, int32_t length) {
  // Only the search for the start of an answer returns at once; once an answer has begun,
  // its remaining bytes are waited for like any other read.
  return ReadSocketUntil(buffer, length, bWriteActive != 0);
}

// Serves exactly `length` bytes from the staging area, receiving into it as needed. Bytes
// received beyond what this read needs stay there for the next read, as they would stay in
// a serial line's input queue: nothing is dropped and nothing is served twice.
uint32_t CComPort::ReadSocketUntil(uint8_t* buffer, int32_t length, bool returnWhenEmpty) {
  if (length < 0) return rc::kReadFailed;
  if (hSocket == kInvalidSocket) return uint32_t(wsa::kNotSocket);
  Trace("Read In");
  const uint32_t wanted = uint32_t(length);
  const uint32_t bound =
      socketBounded_ ? nReadTotalMultiplier * wanted + nActiveReadTotalConstant : nSocketAnswerMs;
  uint64_t deadline = 0;
  bool started = false;
  uint32_t copied = 0;
  while (true) {
    const uint32_t take = std::min(wanted - copied, nRecvFill - nRecvOffset);
    if (take > 0) {
      memcpy(buffer + copied, abyRecvBuffer + nRecvOffset, take);
      nRecvOffset += take;
      copied += take;
    }
    if (copied == wanted) break;
    nRecvOffset = 0;
    nRecvFill = 0;
    int32_t received;
    if (returnWhenEmpty && copied == 0) {
      received = platform::SocketRecv(hSocket, abyRecvBuffer, kRecvBufferSize);
      if (received == -wsa::kWouldBlock) return rc::kNoDataYet;
    } else {
      // One waiting receive, not a look followed by a wait: an answer that is not there
      // yet costs the same single system call as in a blocking client.
      const uint64_t now = platform::MonotonicMs();
      if (!started) {
        started = true;
        deadline = now + bound;
      } else if (now >= deadline) {
        if (Tracing()) {
          char text[48];
          snprintf(text, sizeof text, "WSAGetLastError: %X", uint32_t(wsa::kWouldBlock));
          Trace(text);
        }
        return rc::kReadShort;
      }
      received = platform::SocketRecvWait(hSocket, abyRecvBuffer, kRecvBufferSize, uint32_t(deadline - now));
    }
    if (received > 0) {
      nRecvFill = uint32_t(received);
      continue;
    }
    if (received == 0) {
      if (socketDatagram_) continue;  // an empty datagram carries nothing
      return uint32_t(wsa::kConnReset);  // the peer closed the stream
    }
    if (received != -wsa::kWouldBlock) return uint32_t(-received);
  }
  Trace("Read OUT");
  return rc::kOk;
}

uint32_t CComPort::WriteSocket(const uint8_t* buffer, int32_t length) {
  if (length < 0) return 1;
  const int32_t sent = platform::SocketSend(hSocket, buffer, uint32_t(length));
  // A frame that leaves only in part is as lost as one that does not leave at all.
  return sent == length ? rc::kOk : 1;
}

// --- service protocol ------------------------------------------------------------------------

uint32_t CComPort::GenerateService(uint32_t serviceCode, const void* data, const int32_t* count) {
  if (bPolling && bWriteActive) {
    Trace("bWriteActive");
    return rc::kOk;
  }
  const size_t length = protocol::BuildRequest(serviceCode, data, count, txFrame_, sizeof txFrame_);
  if (length == 0) return rc::kBadArgument;
  ++stats_.exchanges;
  if (WriteStream(txFrame_, int32_t(length)) != 0) {
    stats_.CountFailure(rc::kWriteFailed);
    return rc::kWriteFailed;
  }
  return rc::kOk;
}

uint32_t CComPort::ReceiveFrame(uint32_t serviceCode, size_t* frameLength, bool trace) {
  bRecvArmed = 1;
  // A late answer to a request whose reception already failed must never pass for the
  // answer to this one: a frame of any other code is read whole, checked, traced and
  // dropped, and the search begins again. The search for a further frame starts only while
  // the time a reception may take is not used up, and only a bounded number of times.
  const uint8_t outstanding = bWriteActive;
  const uint32_t readBound = bSerialMode || socketBounded_ ? nActiveReadTotalConstant : nSocketAnswerMs;
  const uint64_t budgetEnd = platform::MonotonicMs() + uint64_t(kReceptionReads) * readBound;
  for (uint32_t dropped = 0;; ++dropped) {
    uint8_t startByte = 0;
    uint32_t result = 0;
    for (int attempt = 0; attempt < 10; ++attempt) {
      result = ReadStream(&startByte, 1);
      if (result != 0 || startByte == protocol::kStartByte) break;
    }
    // In polling mode the request stays outstanding, so the next call looks for this answer
    // again instead of sending a new request.
    if (result == rc::kNoDataYet) return rc::kNoDataYet;
    bWriteActive = 0;

    uint8_t* frame = rxFrame_;
    frame[0] = startByte;
    if (ReadStream(frame + 1, 4) != 0) return rc::kReadFailed;
    if (startByte != protocol::kStartByte) return rc::kNoStartByte;
    const protocol::AnswerHeader header = protocol::ParseHeader(frame + 1);
    const size_t length = header.FrameLength();
    if (trace && Tracing()) {
      char text[48];
      snprintf(text, sizeof text, "L\xE4nge: %X", uint32_t(length));
      Trace(text);
      snprintf(text, sizeof text, "Service: %X", uint32_t(header.code));
      Trace(text);
    }
    if (ReadStream(frame + protocol::kHeaderSize, int32_t(length - protocol::kHeaderSize)) != 0) return rc::kReadFailed;
    if (protocol::AnswerMatchesRequest(serviceCode, header.code)) {
      *frameLength = length;
      return rc::kOk;
    }
    if (Tracing()) {
      char text[64];
      snprintf(text, sizeof text, "Dropped answer %X (%s)", uint32_t(header.code),
               protocol::VerifyCheckValue(frame, length) ? "intact" : "check value wrong");
      Trace(text);
    }
    ++stats_.droppedFrames;
    if (dropped + 1 >= kMaxDroppedFrames || platform::MonotonicMs() >= budgetEnd) return rc::kReadFailed;
    bWriteActive = outstanding;
  }
}

uint32_t CComPort::AnswerReception(uint32_t serviceCode, int32_t* values, int32_t* count, size_t capacity,
                                   AnswerOverflow overflow) {
  size_t length = 0;
  const uint32_t result = ReceiveFrame(serviceCode, &length, true);
  if (result != 0) return CountReception(result, false);
  *count = int32_t(length - protocol::kFrameOverhead);
  if (!protocol::VerifyCheckValue(rxFrame_, length)) return CountReception(rc::kBadCheckValue, false);
  const uint32_t decoded = protocol::DecodeAnswer(serviceCode, rxFrame_, length, values, capacity, count);
  if (overflow == AnswerOverflow::Fail && (decoded == rc::kOk || protocol::IsRawRequest(serviceCode))) {
    const size_t needed = protocol::AnswerValuesNeeded(serviceCode, rxFrame_, length);
    if (needed > capacity) {
      *count = int32_t(needed);
      return CountReception(rc::kAnswerTooLong, true);
    }
  }
  return CountReception(decoded, true);
}

uint32_t CComPort::ReceiveClock(uint32_t serviceCode, int32_t* values, int32_t* count, size_t capacity) {
  size_t length = 0;
  const uint32_t result = ReceiveFrame(serviceCode, &length, false);
  if (result != 0) return CountReception(result, false);
  *count = int32_t(length - protocol::kFrameOverhead);
  if (!protocol::VerifyCheckValue(rxFrame_, length)) return CountReception(rc::kBadCheckValue, false);
  return CountReception(protocol::DecodeClockRaw(rxFrame_, length, values, capacity, count), true);
}

uint32_t CComPort::CountReception(uint32_t result, bool answered) {
  if (answered) {
    ++stats_.answers;
    stats_.lastAnswerUnixMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::system_clock::now().time_since_epoch())
                                  .count();
  }
  // Polling's "not yet" is no failure, and a raw request's answer code is its success.
  const bool rawAnswer = (result & 0xFFFF0000u) == rc::kRawAnswerBase;
  if (result != rc::kOk && result != rc::kNoDataYet && !rawAnswer) stats_.CountFailure(result);
  return result;
}

void LinkStats::CountFailure(uint32_t code) {
  ++failures;
  for (uint32_t i = 0; i < failureCodeCount; ++i) {
    if (failureCodes[i] == code) {
      ++failureCounts[i];
      return;
    }
  }
  if (failureCodeCount < kCodes) {
    failureCodes[failureCodeCount] = code;
    failureCounts[failureCodeCount++] = 1;
    return;
  }
  ++otherFailures;
}

// --- trace -----------------------------------------------------------------------------------

void CComPort::Trace(const char* text) {
  if (nLogfile != 1) return;
  std::string line = "ComServer:";
  line += text != nullptr ? text : "";
  platform::OutputDebugText(line.c_str());
}

void CComPort::TraceFormat(const char* format, ...) {
  if (nLogfile != 1) return;
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int size = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (size >= 0) {
    std::string text(size_t(size) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, args);
    platform::OutputDebugText(text.c_str());
  }
  va_end(args);
}

}  // namespace tamrik

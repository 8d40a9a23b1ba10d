// The port object: link choice, stream layer, service protocol and trace.
#include "ComPort2.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <string>

#include "ResultCodes.h"
#include "link/SerialLink.h"
#include "link/SocketLink.h"
#include "platform/Platform.h"
#include "protocol/ServiceTable.h"

namespace tamrik {

namespace {

// One reception may take as long as its three reads (start byte, header, rest) may wait, and
// drops at most this many frames that answer other requests.
constexpr uint32_t kReceptionReads = 3;
constexpr uint32_t kMaxDroppedFrames = 16;

}  // namespace

CComPort::CComPort() = default;

// The driver object closes the link before it deletes the port; whatever is still held here
// (a download file, a link opened without the driver object) goes with the members.
CComPort::~CComPort() = default;

// --- link ----------------------------------------------------------------------------------

void CComPort::TraceFromLink(void* port, const char* text) { static_cast<CComPort*>(port)->Trace(text); }

uint32_t CComPort::Open(int32_t nPort, int32_t nBaud, uint8_t nRtsControl) {
  if (nPort > 255) {
    return NewSocketLink(2, 0).OpenByPort(nPort);
  }
  if (!SerialLink::IsAllowedBaudrate(nBaud)) return rc::kComBadBaudrate;
  // A link that is open stays as it is: the connection methods close before they open.
  if (link_ != nullptr) return rc::kComAlreadyOpen;
  // A line starts with the ordinary timing; a failed open leaves the timing as it was.
  const uint32_t previous = timings_.activeTotalConstant;
  timings_.activeTotalConstant = timings_.readTotalConstant;
  const uint32_t result =
      SerialLink::Open(nPort, nBaud, nRtsControl, SerialNaming{configFile_, serialDevices_}, timings_, &link_);
  if (result != rc::kOk) timings_.activeTotalConstant = previous;
  return result;
}

uint32_t CComPort::OpenEthernet(const char* psAdditionalArg, const char* psRemoteIPAddress) {
  return NewSocketLink(2, 2).OpenByAddress(psAdditionalArg, psRemoteIPAddress);
}

// The socket link exists from the start of its open, so that a failed open still leaves
// something for the close to end.
SocketLink& CComPort::NewSocketLink(uint8_t major, uint8_t minor) {
  link_.reset();
  auto socket = std::make_unique<SocketLink>(timings_, major, minor);
  // With tracing off a socket read writes no trace call at all.
  if (tracing_) socket->SetTrace(&CComPort::TraceFromLink, this);
  SocketLink& opening = *socket;
  link_ = std::move(socket);
  return opening;
}

void CComPort::ChangeTimings(bool bFirmware) {
  if (link_ == nullptr || !link_->HasDeviceTimeouts()) return;
  const uint32_t target = bFirmware ? timings_.readTotalConstantFW : timings_.readTotalConstant;
  if (timings_.activeTotalConstant == target) {
    Trace("ComPort Timings OK");
    return;
  }
  timings_.activeTotalConstant = target;
  link_->ApplyDeviceTimeouts();
  TraceFormat("ComServer:ComPort ChangeTimings: %d", int32_t(target));
}

uint32_t CComPort::Close() {
  if (link_ == nullptr) return rc::kNothingOpen;
  const uint32_t result = link_->Close();
  link_.reset();
  return result;
}

// --- stream layer ----------------------------------------------------------------------------

uint32_t CComPort::ReadStream(uint8_t* buffer, int32_t length) {
  // Only the search for the start of an answer may come back at once on a polling link; once
  // an answer has begun, its remaining bytes are waited for like any other read.
  const ReadWait wait = exchange_.HoldsRequestBack() ? ReadWait::ReturnWhenEmpty : ReadWait::Bounded;
  const uint32_t result = link_ != nullptr ? link_->Read(buffer, length, wait) : rc::kReadFailed;
  if (result == 0 && length > 0) stats_.bytesIn += uint64_t(length);
  if (!(length <= 0 && result != 0)) DumpTransfer("ComServer:Read Stream (len:%04X): ", buffer, length);
  return result;
}

uint32_t CComPort::WriteStream(const uint8_t* buffer, int32_t length) {
  exchange_.Written();
  const uint32_t result = link_ != nullptr ? link_->Write(buffer, length) : rc::kWriteFailed;
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

// --- service protocol ------------------------------------------------------------------------

uint32_t CComPort::GenerateService(uint32_t serviceCode, const void* data, const int32_t* count) {
  if (exchange_.HoldsRequestBack()) {
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
  // A late answer to a request whose reception already failed must never pass for the
  // answer to this one: a frame of any other code is read whole, checked, traced and
  // dropped, and the search begins again. The search for a further frame starts only while
  // the time a reception may take is not used up, and only a bounded number of times.
  const ExchangeState::Phase before = exchange_.phase();
  const uint32_t readBound = link_ != nullptr ? link_->ReadBoundMs() : timings_.socketAnswerMs;
  receptionStartMs_ = platform::MonotonicMs();
  const uint64_t budgetEnd = receptionStartMs_ + uint64_t(kReceptionReads) * readBound;
  for (uint32_t dropped = 0;; ++dropped) {
    uint8_t startByte = 0;
    uint32_t result = 0;
    for (int attempt = 0; attempt < 10; ++attempt) {
      result = ReadStream(&startByte, 1);
      if (result != 0 || startByte == protocol::kStartByte) break;
    }
    // In polling mode the request stays outstanding, so the next call looks for this answer
    // again instead of sending a new request.
    if (result == rc::kNoDataYet) {
      exchange_.NothingYet();
      return rc::kNoDataYet;
    }
    exchange_.SearchEnded();

    uint8_t* frame = rxFrame_;
    frame[0] = startByte;
    if (ReadStream(frame + 1, 4) != 0) return rc::kReadFailed;
    if (startByte != protocol::kStartByte) return rc::kNoStartByte;
    const protocol::AnswerHeader header = protocol::ParseHeader(frame + 1);
    const size_t length = header.FrameLength();
    if (trace && Tracing()) {
      // The length's name in the trace is the German one, as the trace has always shown it.
      TraceFormat("ComServer:L\xE4nge: %X", uint32_t(length));
      TraceFormat("ComServer:Service: %X", uint32_t(header.code));
    }
    if (ReadStream(frame + protocol::kHeaderSize, int32_t(length - protocol::kHeaderSize)) != 0) return rc::kReadFailed;
    if (protocol::AnswerMatchesRequest(serviceCode, header.code)) {
      *frameLength = length;
      return rc::kOk;
    }
    if (Tracing()) {
      const char* service = protocol::ServiceName(header.code);
      TraceFormat("ComServer:Dropped answer %X %s(%s)", uint32_t(header.code),
                  service != nullptr ? (std::string(service) + " ").c_str() : "",
                  protocol::VerifyCheckValue(frame, length) ? "intact" : "check value wrong");
    }
    ++stats_.droppedFrames;
    if (dropped + 1 >= kMaxDroppedFrames || platform::MonotonicMs() >= budgetEnd) return rc::kReadFailed;
    exchange_.StaleFrameDropped(before);
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
    // A clock that starts at 0 would make the first answer look like none.
    stats_.lastAnswerMonotonicMs = std::max<uint64_t>(receptionStartMs_, 1);
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
  if (!tracing_) return;
  std::string line = "ComServer:";
  line += text != nullptr ? text : "";
  platform::OutputDebugText(line.c_str());
}

void CComPort::TraceFormat(const char* format, ...) {
  if (!tracing_) return;
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

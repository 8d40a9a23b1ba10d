// CComPort: the one transport endpoint of a driver object. It holds one link (serial line,
// stream socket or datagram socket) chosen at open, moves bytes through the stream layer,
// speaks the service protocol on top of it, reads the download files and writes the trace.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "link/Link.h"
#include "protocol/Codec.h"

namespace tamrik {

// What an answer that needs more values than the caller's array holds does: it is cut to the
// array, or it fails with 0x10053 (in both cases nothing is written past the array).
enum class AnswerOverflow { Truncate, Fail };

// Counters of one port object since its creation.
struct LinkStats {
  static constexpr size_t kCodes = 16;
  uint64_t exchanges = 0;       // requests written
  uint64_t answers = 0;         // answer frames received whole with a correct check value
  uint64_t failures = 0;        // exchanges that ended with a failing code
  uint64_t droppedFrames = 0;   // frames of other requests read and dropped
  uint64_t bytesOut = 0;
  uint64_t bytesIn = 0;
  // The monotonic clock (platform::MonotonicMs) at the start of the reception of the last good
  // answer, 0 for none: the reception reads that clock anyway, so counting costs no clock call.
  uint64_t lastAnswerMonotonicMs = 0;
  uint32_t failureCodeCount = 0;
  uint32_t failureCodes[kCodes] = {};
  uint64_t failureCounts[kCodes] = {};
  uint64_t otherFailures = 0;

  void CountFailure(uint32_t code);
};

// Where the one request in flight stands. A request is written, then its answer is searched
// for; the search passing its start byte ends the request. In polling mode a search that finds
// nothing leaves the answer pending, and the next call only looks for it again instead of
// sending a new request. Frames of other requests met on the way are dropped and leave the
// request where it stood. Polling mode, once on, stays on for the port's life.
class ExchangeState {
 public:
  enum class Phase { Idle, RequestWritten, AnswerPending };

  Phase phase() const { return phase_; }
  bool polling() const { return polling_; }

  void SwitchToPolling() {
    polling_ = true;
    phase_ = Phase::Idle;
  }
  // Any bytes went out: from now on an answer is awaited.
  void Written() { phase_ = Phase::RequestWritten; }
  // Polling and an answer awaited: a new request is held back and the start-byte search may
  // come back empty-handed.
  bool HoldsRequestBack() const { return polling_ && phase_ != Phase::Idle; }
  // The search for the start byte came back with nothing yet.
  void NothingYet() { phase_ = Phase::AnswerPending; }
  // The search for the start byte is over, whatever it found: the request has its answer (or
  // its failure).
  void SearchEnded() { phase_ = Phase::Idle; }
  // A frame of another request was read and dropped: awaiting again what was awaited before.
  void StaleFrameDropped(Phase before) { phase_ = before; }

 private:
  bool polling_ = false;
  Phase phase_ = Phase::Idle;
};

// The one download file a port may hold, closed when it is replaced or the port goes.
struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using LoadFile = std::unique_ptr<FILE, FileCloser>;

class CComPortTestPeer;
class SocketLink;

class CComPort {
 public:
  CComPort();
  virtual ~CComPort();
  CComPort(const CComPort&) = delete;
  CComPort& operator=(const CComPort&) = delete;

  // --- configuration (by the driver object, at its construction) -----------------------
  PortTimings& Timings() { return timings_; }
  const PortTimings& Timings() const { return timings_; }
  // The configuration file, in which the platform may look up the device of a port number.
  void SetConfigFile(const std::string& file) { configFile_ = file; }
  // The devices of the COM port numbers, for a driver configured without a file.
  void SetSerialDevices(std::map<int32_t, std::string> devices) { serialDevices_ = std::move(devices); }
  void SetTracing(bool on) { tracing_ = on; }
  bool Tracing() const { return tracing_; }

  // --- link ------------------------------------------------------------------------------
  // Port numbers up to 255 open the serial line; above 255 a UDP link on that port number.
  uint32_t Open(int32_t nPort, int32_t nBaud, uint8_t nRtsControl);
  // TCP or UDP by argument string ("502", "502,UDP", "502,TCP") and dotted address.
  uint32_t OpenEthernet(const char* psAdditionalArg, const char* psRemoteIPAddress);
  void ChangeTimings(bool bFirmware);
  uint32_t Close();

  // --- stream layer ----------------------------------------------------------------------
  uint32_t ReadStream(uint8_t* buffer, int32_t length);
  uint32_t WriteStream(const uint8_t* buffer, int32_t length);

  // --- service protocol ------------------------------------------------------------------
  // Builds the request for serviceCode from data (32-bit values or bytes, by the code) and
  // *count, and writes it. 0, 0x10031 when it could not be written, 0x10060 when the
  // request cannot be built (count out of range, unassigned code).
  uint32_t GenerateService(uint32_t serviceCode, const void* data, const int32_t* count);
  // Reads, checks and decodes one answer into values (room for `capacity` values). With
  // AnswerOverflow::Fail an answer that needs more than capacity values returns 0x10053 with
  // *count set to the values it needed.
  uint32_t AnswerReception(uint32_t serviceCode, int32_t* values, int32_t* count,
                           size_t capacity = protocol::kUnbounded,
                           AnswerOverflow overflow = AnswerOverflow::Truncate);
  // The challenge of the privileged mode: answer 0x410F delivered unconverted.
  uint32_t ReceiveClock(uint32_t serviceCode, int32_t* values, int32_t* count,
                        size_t capacity = protocol::kUnbounded);
  // Polling mode for the rest of the port's life (the raw service code 0x10000).
  void SwitchToPolling() { exchange_.SwitchToPolling(); }

  // --- trace -----------------------------------------------------------------------------
  void Trace(const char* text);
  void TraceFormat(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;

  // --- download file readers -------------------------------------------------------------
  uint32_t InitDownloadLines(const char* path, int32_t* records);
  uint32_t DownloadLine();
  uint32_t ReadLoaderAnswer();
  uint32_t ReadLoaderIdent();
  uint32_t DownloadBslFile(const char* path);
  uint32_t DownloadSetCtxFile(const char* path);
  uint32_t DownloadBootFile(const char* path);
  uint32_t InitDownloadImage(const char* path, int32_t* length);
  uint32_t PopDownloadImageBlock(int32_t* size, uint8_t* buffer, int32_t* blockNumber);
  bool HasLoadFile() const { return load_.file != nullptr; }

  // --- privileged stream -----------------------------------------------------------------
  // Lays out description (at most 128 characters), 0x00 and the response to challenge, one
  // byte per value, into stream (room for 256 values); returns the length.
  static int32_t BuildPrivilegedStream(uint32_t challenge, const char* description,
                                       const uint8_t bits[32], int32_t* stream);

  const LinkStats& Stats() const { return stats_; }

 private:
  friend class CComPortTestPeer;

  uint32_t ReceiveFrame(uint32_t serviceCode, size_t* frameLength, bool trace);
  // The result of one reception, counted: answers, failures, the time of the last good answer.
  uint32_t CountReception(uint32_t result, bool answered);

  uint64_t receptionStartMs_ = 0;
  void DumpTransfer(const char* prefix, const uint8_t* buffer, int32_t length);
  static void TraceFromLink(void* port, const char* text);
  // Replaces the link by a new socket link with the socket layer started at that version.
  SocketLink& NewSocketLink(uint8_t major, uint8_t minor);

  PortTimings timings_;
  std::string configFile_;
  std::map<int32_t, std::string> serialDevices_;
  bool tracing_ = false;

  std::unique_ptr<Link> link_;
  ExchangeState exchange_;
  LinkStats stats_;

  // The open download file and where the reader stands in it.
  struct LoadState {
    std::unique_ptr<char[]> buffer;  // the image file's read buffer; outlives every file
    LoadFile file;
    uint32_t position = 0;  // byte offset of the next record
    uint32_t count = 0;     // records plus one
    uint32_t index = 0;     // the next record or block, from 1
  } load_;

  // Frame buffers live as long as the port object, so an exchange allocates nothing.
  uint8_t txFrame_[protocol::kMaxFrame] = {};
  uint8_t rxFrame_[protocol::kMaxFrame] = {};
};

}  // namespace tamrik

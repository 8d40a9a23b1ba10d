// CComPort: the one transport endpoint of a driver object. It holds either a serial line
// or a socket, moves bytes through the stream layer, speaks the service protocol on top of
// it, reads the download files and writes the trace.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <utility>

#include "platform/Platform.h"
#include "protocol/Codec.h"

namespace tamrik {

// An IPv4 endpoint as the socket layer takes it.
struct Ipv4Address {
  uint32_t address = 0;  // network byte order
  uint16_t port = 0;     // host byte order
};

// How long a link by address (TCP or UDP) waits for an answer to begin, unless configured.
inline constexpr uint32_t kDefaultSocketAnswerMs = 110;

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
  int64_t lastAnswerUnixMs = 0;
  uint32_t failureCodeCount = 0;
  uint32_t failureCodes[kCodes] = {};
  uint64_t failureCounts[kCodes] = {};
  uint64_t otherFailures = 0;

  void CountFailure(uint32_t code);
};

class CComPort {
 public:
  CComPort();
  virtual ~CComPort();
  CComPort(const CComPort&) = delete;
  CComPort& operator=(const CComPort&) = delete;

  // --- link ------------------------------------------------------------------------------
  // Port numbers up to 255 open the serial line; above 255 a UDP link on that port number.
  uint32_t Open(int32_t nPort, int32_t nBaud, uint8_t nRtsControl);
  // TCP or UDP by argument string ("502", "502,UDP", "502,TCP") and dotted address.
  uint32_t OpenEthernet(const char* psAdditionalArg, const char* psRemoteIPAddress);
  void ChangeTimings(bool bFirmware);
  uint32_t Close();

  // --- raw serial transfers (only the stream layer calls them) ----------------------------
  uint32_t ReadCom(uint8_t* buffer, int32_t length);
  uint32_t WriteCom(const uint8_t* buffer, int32_t length);

  // --- stream layer ----------------------------------------------------------------------
  uint32_t ReadStream(uint8_t* buffer, int32_t length);
  uint32_t WriteStream(const uint8_t* buffer, int32_t length);
  uint32_t ReadSocket(uint8_t* buffer, int32_t length);
  uint32_t ReadSocketNoWait(uint8_t* buffer, int32_t length);
  uint32_t WriteSocket(const uint8_t* buffer, int32_t length);

  // --- service protocol ------------------------------------------------------------------
  // Builds the request for serviceCode from data (32-bit values or bytes, by the code) and
  // *count, and writes it. 0, 0x10031 when it could not be written, 0x10060 when the
  // request cannot be built (count out of range, unassigned code).
  uint32_t GenerateService(uint32_t serviceCode, const void* data, const int32_t* count);
  // Reads, checks and decodes one answer into values (room for `capacity` values).
  // With AnswerOverflow::Fail an answer that needs more than capacity values returns
  // 0x10053 with *count set to the values it needed.
  uint32_t AnswerReception(uint32_t serviceCode, int32_t* values, int32_t* count,
                           size_t capacity = protocol::kUnbounded,
                           AnswerOverflow overflow = AnswerOverflow::Truncate);
  // The challenge of the privileged mode: answer 0x410F delivered unconverted.
  uint32_t ReceiveClock(uint32_t serviceCode, int32_t* values, int32_t* count,
                        size_t capacity = protocol::kUnbounded);

  // --- trace -----------------------------------------------------------------------------
  void Trace(const char* text);
  void TraceFormat(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;
  bool Tracing() const { return nLogfile == 1; }

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

  // --- privileged stream -----------------------------------------------------------------
  // Lays out description (at most 128 characters), 0x00 and the response to challenge, one
  // byte per value, into stream (room for 256 values); returns the length.
  static int32_t BuildPrivilegedStream(uint32_t challenge, const char* description,
                                       const uint8_t bits[32], int32_t* stream);

  // The configuration file, in which the platform may look up the device of a port number.
  void SetConfigFile(const std::string& file) { configFile_ = file; }
  // The devices of the COM port numbers, for a driver configured without a file.
  void SetSerialDevices(std::map<int32_t, std::string> devices) { serialDevices_ = std::move(devices); }

  const LinkStats& Stats() const { return stats_; }

  // --- fields ----------------------------------------------------------------------------
  uint32_t nReadInterval = 200;
  uint32_t nReadTotalMultiplier = 0;
  uint32_t nReadTotalConstant = 500;
  uint32_t nReadTotalConstantFW = 3000;
  uint32_t nActiveReadTotalConstant = 500;
  uint32_t nSocketAnswerMs = kDefaultSocketAnswerMs;

  FILE* pfLoadStream = nullptr;
  uint32_t nLoadPosition = 0;
  uint32_t nLoadCount = 0;
  uint32_t nLoadIndex = 0;

  int32_t nLogfile = 0;
  uint8_t bPolling = 0;
  uint8_t bWriteActive = 0;
  uint8_t bComOpen = 0;
  uint8_t bSocketMode = 0;
  uint8_t bSerialMode = 0;

  platform::SerialDevice* hCom = nullptr;
  platform::SocketHandle hSocket = platform::kInvalidSocket;
  Ipv4Address addrLocal;
  Ipv4Address addrRemote;

  static constexpr uint32_t kRecvBufferSize = 1000;
  uint8_t abyRecvBuffer[kRecvBufferSize] = {};
  uint8_t bRecvArmed = 0;
  uint32_t nRecvOffset = 0;  // read position in abyRecvBuffer
  uint32_t nRecvFill = 0;    // bytes received into abyRecvBuffer

 private:
  uint32_t OpenSerial(int32_t nPort, int32_t nBaud, uint8_t nRtsControl);
  uint32_t OpenUdpByPort(int32_t nPort);
  void WriteSerialTimeouts(uint32_t totalConstant);
  void ResetReceive();
  uint32_t ReadSocketUntil(uint8_t* buffer, int32_t length, bool returnWhenEmpty);
  uint32_t ReceiveFrame(uint32_t serviceCode, size_t* frameLength, bool trace);
  void DumpTransfer(const char* prefix, const uint8_t* buffer, int32_t length);

  // The result of one reception, counted: answers, failures, the time of the last good answer.
  uint32_t CountReception(uint32_t result, bool answered);

  std::string configFile_;
  std::map<int32_t, std::string> serialDevices_;
  LinkStats stats_;
  bool socketDatagram_ = false;
  bool socketBounded_ = false;  // UDP link by port number: reads bounded by the serial time-out

  // Frame buffers live as long as the port object, so an exchange allocates nothing.
  uint8_t txFrame_[protocol::kMaxFrame] = {};
  uint8_t rxFrame_[protocol::kMaxFrame] = {};
};

}  // namespace tamrik

// Every result code of the driver, named once.
//
// A result code is a 32-bit unsigned value; 0 is success everywhere. The driver's own
// codes are grouped by their low bits: 0x1001x opening and closing the link, 0x1002x
// reading, 0x1003x writing, 0x10040 the check value, 0x1005x the answer, 0x1006x bad
// arguments, 0x1007x privileged mode and image download, 0x10080 the C interface's own failure,
// 0x10100 polling.
#pragma once

#include <cstdint>

namespace tamrik {

namespace rc {

inline constexpr uint32_t kOk = 0;

// Opening and closing the link.
inline constexpr uint32_t kComAlreadyOpen = 0x10010;     // line open already, or device in use
inline constexpr uint32_t kComOpenFailed = 0x10012;      // device could not be opened otherwise
inline constexpr uint32_t kComBadBaudrate = 0x10013;     // not 9600/19200/38400/57600/115200
inline constexpr uint32_t kComSettingsFailed = 0x10014;  // line settings could not be written
inline constexpr uint32_t kNothingOpen = 0x10015;        // close found nothing open
inline constexpr uint32_t kComNoDevice = 0x10016;        // no such device

// Reading.
inline constexpr uint32_t kReadShort = 0x10020;   // fewer bytes arrived than requested (time-out)
inline constexpr uint32_t kReadFailed = 0x10021;  // read failed; answer header/body unreadable

// Writing.
inline constexpr uint32_t kWriteShort = 0x10030;   // fewer bytes written than requested
inline constexpr uint32_t kWriteFailed = 0x10031;  // write failed; request frame not written

inline constexpr uint32_t kBadCheckValue = 0x10040;

// Answers.
inline constexpr uint32_t kAnswerFailed = 0x10050;     // return value: the answer step failed
inline constexpr uint32_t kNoStartByte = 0x10051;      // no 0xAA where the answer should begin
inline constexpr uint32_t kAnswerMalformed = 0x10052;  // answer data cannot be decoded safely
inline constexpr uint32_t kAnswerTooLong = 0x10053;    // answer needs more room than the caller's array

// Arguments the method does not accept (null pointer, count out of range, ...).
inline constexpr uint32_t kBadArgument = 0x10060;

// Privileged mode and image download.
inline constexpr uint32_t kPrivilegedRefusedC = 0x10070;  // refusal with bits 0x8000|0x4000
inline constexpr uint32_t kPrivilegedRefused8 = 0x10071;  // refusal with bit 0x8000 only
inline constexpr uint32_t kImageBlockFailed = 0x10072;

// The C interface could not complete a call inside the driver (out of memory, or any other
// failure that would otherwise have left the library as an exception).
inline constexpr uint32_t kInternalFailure = 0x10080;

inline constexpr uint32_t kNoDataYet = 0x10100;  // polling mode: call again
inline constexpr uint32_t kBusy = 0x999999;      // return value of a busy-guarded method

// Composed codes.
inline constexpr uint32_t kRefusalBase = 0x20000;      // + answer code, refusal without data
inline constexpr uint32_t kRefusalDataBase = 0x30000;  // + data byte, refusal with one byte
inline constexpr uint32_t kRawAnswerBase = 0xF0000;    // + answer code, raw request answered
inline constexpr uint32_t kConnectErrorBase = 4000000; // + Windows Sockets error

// Demonstration paths.
inline constexpr uint32_t kDemoNoDownload = 0x3000;
inline constexpr uint32_t kDemoBadGatewayId = 0x2000;
inline constexpr uint32_t kDemoNoModNum = 0x20FF;
inline constexpr uint32_t kDemoBadModIdBase = 0x2001;  // + k

// Download files.
inline constexpr uint32_t kLoaderNotReady = 16;
inline constexpr uint32_t kStage1FileMissing = 100100;
inline constexpr uint32_t kStage2FileMissing = 100101;
inline constexpr uint32_t kStage3FileMissing = 100102;

// The socket open by port number returns this when no socket can be created.
inline constexpr uint32_t kNoSocket = 0xFFFFFFFF;

}  // namespace rc

// Windows Sockets error numbers that the driver reports or tests for. The POSIX side
// translates errno into these so that a host sees the same codes on every platform.
namespace wsa {
inline constexpr int32_t kInterrupted = 10004;
inline constexpr int32_t kBadHandle = 10009;
inline constexpr int32_t kAccess = 10013;
inline constexpr int32_t kFault = 10014;
inline constexpr int32_t kInvalid = 10022;
inline constexpr int32_t kTooManyFiles = 10024;
inline constexpr int32_t kWouldBlock = 10035;
inline constexpr int32_t kInProgress = 10036;
inline constexpr int32_t kAlready = 10037;
inline constexpr int32_t kNotSocket = 10038;
inline constexpr int32_t kDestAddrRequired = 10039;
inline constexpr int32_t kMsgSize = 10040;
inline constexpr int32_t kProtoType = 10041;
inline constexpr int32_t kNoProtoOpt = 10042;
inline constexpr int32_t kProtoNoSupport = 10043;
inline constexpr int32_t kSocketNoSupport = 10044;
inline constexpr int32_t kOpNotSupp = 10045;
inline constexpr int32_t kPfNoSupport = 10046;
inline constexpr int32_t kAfNoSupport = 10047;
inline constexpr int32_t kAddrInUse = 10048;
inline constexpr int32_t kAddrNotAvail = 10049;
inline constexpr int32_t kNetDown = 10050;
inline constexpr int32_t kNetUnreach = 10051;
inline constexpr int32_t kNetReset = 10052;
inline constexpr int32_t kConnAborted = 10053;
inline constexpr int32_t kConnReset = 10054;
inline constexpr int32_t kNoBufs = 10055;
inline constexpr int32_t kIsConn = 10056;
inline constexpr int32_t kNotConn = 10057;
inline constexpr int32_t kShutdown = 10058;
inline constexpr int32_t kTimedOut = 10060;
inline constexpr int32_t kConnRefused = 10061;
inline constexpr int32_t kHostDown = 10064;
inline constexpr int32_t kHostUnreach = 10065;
}  // namespace wsa

}  // namespace tamrik

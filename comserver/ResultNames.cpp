#include "ResultNames.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "ResultCodes.h"

namespace tamrik {
namespace {

// Sorted by code: DescribeResult searches it.
constexpr ResultEntry kFixed[] = {
    {rc::kOk, "Ok", "success"},
    {1, "Failed1",
     "opening a link: the socket layer could not be started, or a UDP link by port number could not "
     "connect; image download: the image file cannot be opened"},
    {2, "Failed2", "opening a link: no socket could be created; download file: read error"},
    {4, "LoaderAnswerX", "the boot loader answered 'x'"},
    {5, "LoaderAnswerE", "the boot loader answered 'E' (record refused)"},
    {6, "LoaderAnswerLowerE", "the boot loader answered 'e'"},
    {7, "LoaderAnswerT", "the boot loader answered 't'"},
    {8, "LoaderAnswerC", "the boot loader answered 'c'"},
    {9, "LoaderAnswerB", "the boot loader answered 'b'"},
    {rc::kLoaderNotReady, "LoaderNotReady", "the boot loader's first character was not 'r'"},
    {rc::kDemoBadGatewayId, "DemoBadGatewayId",
     "demonstration mode: GatewayId in kaVdmo.ini is not exactly 8 hexadecimal digits"},
    {rc::kDemoNoModNum, "DemoNoModNum", "demonstration mode: ModNum is missing from kaVdmo.ini"},
    {uint32_t(wsa::kInterrupted), "WSAEINTR", "socket: the call was interrupted"},
    {uint32_t(wsa::kBadHandle), "WSAEBADF", "socket: bad handle"},
    {uint32_t(wsa::kAccess), "WSAEACCES", "socket: permission denied"},
    {uint32_t(wsa::kFault), "WSAEFAULT", "socket: bad address"},
    {uint32_t(wsa::kInvalid), "WSAEINVAL", "socket: invalid argument"},
    {uint32_t(wsa::kTooManyFiles), "WSAEMFILE", "socket: too many open files"},
    {uint32_t(wsa::kWouldBlock), "WSAEWOULDBLOCK", "socket: the operation would block"},
    {uint32_t(wsa::kInProgress), "WSAEINPROGRESS", "socket: an operation is in progress"},
    {uint32_t(wsa::kAlready), "WSAEALREADY", "socket: the operation is already under way"},
    {uint32_t(wsa::kNotSocket), "WSAENOTSOCK", "socket: not a socket"},
    {uint32_t(wsa::kDestAddrRequired), "WSAEDESTADDRREQ", "socket: destination address required"},
    {uint32_t(wsa::kMsgSize), "WSAEMSGSIZE", "socket: message too long"},
    {uint32_t(wsa::kProtoType), "WSAEPROTOTYPE", "socket: wrong protocol type"},
    {uint32_t(wsa::kNoProtoOpt), "WSAENOPROTOOPT", "socket: protocol option not available"},
    {uint32_t(wsa::kProtoNoSupport), "WSAEPROTONOSUPPORT", "socket: protocol not supported"},
    {uint32_t(wsa::kSocketNoSupport), "WSAESOCKTNOSUPPORT", "socket: socket type not supported"},
    {uint32_t(wsa::kOpNotSupp), "WSAEOPNOTSUPP", "socket: operation not supported"},
    {uint32_t(wsa::kPfNoSupport), "WSAEPFNOSUPPORT", "socket: protocol family not supported"},
    {uint32_t(wsa::kAfNoSupport), "WSAEAFNOSUPPORT", "socket: address family not supported"},
    {uint32_t(wsa::kAddrInUse), "WSAEADDRINUSE", "socket: address already in use"},
    {uint32_t(wsa::kAddrNotAvail), "WSAEADDRNOTAVAIL", "socket: the address cannot be used"},
    {uint32_t(wsa::kNetDown), "WSAENETDOWN", "socket: the network is down"},
    {uint32_t(wsa::kNetUnreach), "WSAENETUNREACH", "socket: the network cannot be reached"},
    {uint32_t(wsa::kNetReset), "WSAENETRESET", "socket: the network dropped the connection"},
    {uint32_t(wsa::kConnAborted), "WSAECONNABORTED", "socket: the connection was aborted"},
    {uint32_t(wsa::kConnReset), "WSAECONNRESET", "socket: the peer reset the connection"},
    {uint32_t(wsa::kNoBufs), "WSAENOBUFS", "socket: no buffer space"},
    {uint32_t(wsa::kIsConn), "WSAEISCONN", "socket: already connected"},
    {uint32_t(wsa::kNotConn), "WSAENOTCONN", "socket: not connected"},
    {uint32_t(wsa::kShutdown), "WSAESHUTDOWN", "socket: the connection was shut down"},
    {uint32_t(wsa::kTimedOut), "WSAETIMEDOUT", "socket: the connection timed out"},
    {uint32_t(wsa::kConnRefused), "WSAECONNREFUSED", "socket: the connection was refused"},
    {uint32_t(wsa::kHostDown), "WSAEHOSTDOWN", "socket: the host is down"},
    {uint32_t(wsa::kHostUnreach), "WSAEHOSTUNREACH", "socket: the host cannot be reached"},
    {rc::kDemoNoDownload, "DemoNoDownload", "demonstration mode: nothing was sent to the gateway"},
    {0x3003, "LoaderAnswer0", "the boot loader answered '0'"},
    {0x3103, "LoaderAnswer1", "the boot loader answered '1'"},
    {0x3203, "LoaderAnswer2", "the boot loader answered '2'"},
    {0x3303, "LoaderAnswer3", "the boot loader answered '3'"},
    {0x3403, "LoaderAnswer4", "the boot loader answered '4'"},
    {0x3503, "LoaderAnswer5", "the boot loader answered '5'"},
    {0x3603, "LoaderAnswer6", "the boot loader answered '6'"},
    {0x3703, "LoaderAnswer7", "the boot loader answered '7'"},
    {rc::kComAlreadyOpen, "ComAlreadyOpen", "serial open: the line is open already, or the device refused access"},
    {rc::kComOpenFailed, "ComOpenFailed", "serial open: the device could not be opened"},
    {rc::kComBadBaudrate, "ComBadBaudrate",
     "serial open: the baud rate is not one of 9600, 19200, 38400, 57600, 115200"},
    {rc::kComSettingsFailed, "ComSettingsFailed", "serial open: the line settings could not be written"},
    {rc::kNothingOpen, "NothingOpen", "close: no link was open"},
    {rc::kComNoDevice, "ComNoDevice", "serial open: no such device"},
    {rc::kReadShort, "ReadShort", "fewer bytes arrived than requested (read time-out)"},
    {rc::kReadFailed, "ReadFailed",
     "the answer could not be read: no header or no rest of frame arrived, or the boot loader did not "
     "answer"},
    {rc::kWriteShort, "WriteShort", "fewer bytes were written than requested"},
    {rc::kWriteFailed, "WriteFailed", "the request could not be written to the link"},
    {rc::kBadCheckValue, "BadCheckValue", "the check value of the answer frame is wrong"},
    {rc::kAnswerFailed, "AnswerFailed", "the answer step of the method failed (the out-value holds the cause)"},
    {rc::kNoStartByte, "NoStartByte", "no start byte 0xAA where the answer frame should begin"},
    {rc::kAnswerMalformed, "AnswerMalformed", "the answer's data do not fit the service and cannot be decoded"},
    {rc::kAnswerTooLong, "AnswerTooLong",
     "the answer needs more values than the caller's array holds; it was read whole and nothing was written past "
     "the array (the count tells how many it needed)"},
    {rc::kBadArgument, "BadArgument", "an argument the method does not accept (null pointer, count out of range)"},
    {rc::kPrivilegedRefusedC, "PrivilegedRefusedC",
     "privileged mode refused by the gateway (answer code with bits 0x8000 and 0x4000)"},
    {rc::kPrivilegedRefused8, "PrivilegedRefused8",
     "privileged mode refused by the gateway (answer code with bit 0x8000 only)"},
    {rc::kImageBlockFailed, "ImageBlockFailed",
     "image download: no block could be taken from the file, or the gateway did not accept the block"},
    {rc::kInternalFailure, "InternalFailure",
     "the driver could not complete the call (out of memory or an unexpected internal failure)"},
    {rc::kNoDataYet, "NoDataYet", "polling mode: no answer has arrived yet; call again"},
    {rc::kStage1FileMissing, "Stage1FileMissing", "boot download: the BSL (stage 1) file cannot be opened"},
    {rc::kStage2FileMissing, "Stage2FileMissing", "boot download: the SetCtx (stage 2) file cannot be opened"},
    {rc::kStage3FileMissing, "Stage3FileMissing", "boot download: the Boot (stage 3) file cannot be opened"},
    {rc::kBusy, "Busy", "another data method of this driver object is running; nothing was done"},
    {rc::kNoSocket, "NoSocket", "UDP link by port number: no socket could be created"},
};

constexpr ResultFamily kFamilies[] = {
    {rc::kDemoBadModIdBase, 0, 0xFD, "DemoBadModuleId",
     "demonstration mode: module identifier k+1 in kaVdmo.ini is not exactly 6 hexadecimal digits "
     "(k identifiers were delivered)"},
    {rc::kRefusalBase, 0x8000, 0xFFFF, "Refused",
     "the gateway refused the request with answer code A (0x8000 or 0xC000 plus the service code) and "
     "no data"},
    {rc::kRefusalDataBase, 0, 0xFF, "RefusedWithByte", "the gateway refused the request with the data byte d"},
    {rc::kRawAnswerBase, 0, 0xFFFF, "RawAnswer", "a raw request was answered with code A"},
    {rc::kConnectErrorBase, uint32_t(wsa::kInterrupted), uint32_t(wsa::kHostUnreach), "ConnectFailed",
     "the connection could not be made; e is the socket error"},
};

constexpr bool Sorted() {
  for (size_t i = 1; i < std::size(kFixed); ++i) {
    if (kFixed[i - 1].code >= kFixed[i].code) return false;
  }
  return true;
}
static_assert(Sorted(), "kFixed must be sorted by code");

const ResultEntry* FindFixed(uint32_t code) {
  const auto it = std::lower_bound(std::begin(kFixed), std::end(kFixed), code,
                                   [](const ResultEntry& e, uint32_t c) { return e.code < c; });
  return it != std::end(kFixed) && it->code == code ? it : nullptr;
}

std::string Hex(uint32_t value, int digits = 0) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}

}  // namespace

std::span<const ResultEntry> FixedResults() { return kFixed; }
std::span<const ResultFamily> ResultFamilies() { return kFamilies; }

ResultEntry StaticDescription(uint32_t code) {
  if (const ResultEntry* entry = FindFixed(code)) return *entry;
  for (const ResultFamily& family : kFamilies) {
    if (code >= family.base + family.first && code <= family.base + family.last) {
      return {code, family.name, family.meaning};
    }
  }
  return {code, "Unknown", "no result code of this driver"};
}

ResultInfo DescribeResult(uint32_t code, ResultContext context) {
  // The small codes first: which reading applies depends on the operation.
  if (code == 1 && context != ResultContext::Any) {
    if (context == ResultContext::OpenLink)
      return {"Failed1", "the socket layer could not be started, or a UDP link by port number could not connect"};
    if (context == ResultContext::Image) return {"Failed1", "the image file cannot be opened"};
    if (context == ResultContext::Loader) return {"LoaderAnswerR", "the boot loader answered 'r'"};
  }
  if (code == 2 && context != ResultContext::Any) {
    if (context == ResultContext::OpenLink) return {"NoSocket", "no socket could be created"};
    if (context == ResultContext::Loader) return {"LoaderAnswerBang", "the boot loader answered '!'"};
    return {"ReadError", "the download file could not be read"};
  }
  if (const ResultEntry* entry = FindFixed(code)) return {entry->name, entry->meaning};

  const uint32_t low16 = code & 0xFFFF;
  if (code >= rc::kDemoBadModIdBase && code < rc::kDemoNoModNum) {
    const uint32_t k = code - rc::kDemoBadModIdBase;
    return {"DemoBadModuleId", "demonstration mode: identifier ModId" + std::to_string(k + 1) +
                                   " in kaVdmo.ini is not exactly 6 hexadecimal digits (" + std::to_string(k) +
                                   " identifiers were delivered)"};
  }
  if ((code & 0xFFFF0000u) == rc::kRefusalBase && (low16 & 0x8000) != 0) {
    return {"Refused", "the gateway refused service " + Hex(low16 & 0x3FFF) + " with answer code " + Hex(low16, 4) +
                           " and no data"};
  }
  if (code >= rc::kRefusalDataBase && code <= rc::kRefusalDataBase + 0xFF) {
    return {"RefusedWithByte", "the gateway refused the request with the data byte " + Hex(code & 0xFF, 2)};
  }
  if ((code & 0xFFFF0000u) == rc::kRawAnswerBase) {
    return {"RawAnswer", "a raw request was answered with code " + Hex(low16, 4)};
  }
  if (code >= rc::kConnectErrorBase + uint32_t(wsa::kInterrupted) &&
      code <= rc::kConnectErrorBase + uint32_t(wsa::kHostUnreach)) {
    const uint32_t e = code - rc::kConnectErrorBase;
    const ResultEntry* socket = FindFixed(e);
    std::string cause = socket != nullptr ? std::string(socket->name) + " (" + socket->meaning + ")"
                                          : "socket error " + std::to_string(e);
    return {"ConnectFailed", "the connection could not be made: " + cause};
  }
  return {"Unknown", "no result code of this driver"};
}

}  // namespace tamrik

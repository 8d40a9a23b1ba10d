// The gateway services, one row each: code, name, how the request carries its data, how the
// answer (code + 0x4000) is decoded, and whether the gateway may refuse it (code + 0x8000 or
// + 0xC000). The codec's rules, the named constants, the simulator, the trace and the
// services page of the docs are all made from this one table.
//
// Rows without a method of their own (Service009, ...) are services a gateway answers that no
// method sends; they keep their rules so that such answers decode as they always have.
#pragma once

#include <cstdint>

// TAMRIK_SERVICE(code, Name, request rule, answer rule, refusable)
// clang-format off
#define TAMRIK_SERVICE_TABLE(TAMRIK_SERVICE) \
  TAMRIK_SERVICE(0x001, ModuleList,           Empty,        Packed,       true)  \
  TAMRIK_SERVICE(0x003, ProcessIn,            Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x004, ProcessOutRead,       Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x005, ProcessOutWrite,      BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x006, ParameterRead,        Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x007, ParameterWrite,       BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x008, Diagnosis,            Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x009, Service009,           Unassigned,   BytePerValue, true)  \
  TAMRIK_SERVICE(0x00A, Service00A,           Unassigned,   BytePerValue, true)  \
  TAMRIK_SERVICE(0x00D, FbiReset,             Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x00E, FbiStart,             Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x00F, StreamSizeList,       Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x010, StreamSegment,        BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x011, StreamPosition,       BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x012, ModuleSWRev,          Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x013, ModuleTyp,            Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x015, ClearTRBuffer,        Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x016, GetTRBuffer,          Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x017, MonitorReset,         Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x018, MonitorStart,         Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x019, MonitorStop,          Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x01A, FirstDataFrame,       BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x01B, NextDataFrame,        BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x100, GatewayIdString,      Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x101, GatewayVersion,       Empty,        TwoBytes,     true)  \
  TAMRIK_SERVICE(0x102, BootFunctionIdString, Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x103, BootVersion,          Empty,        TwoBytes,     true)  \
  TAMRIK_SERVICE(0x104, ErrorList,            Empty,        ErrorList,    true)  \
  TAMRIK_SERVICE(0x105, GetOperationMode,     Empty,        OneByte,      true)  \
  TAMRIK_SERVICE(0x106, SetOperationMode,     OneByte,      BytePerValue, true)  \
  TAMRIK_SERVICE(0x107, FirmwareDownload,     Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x109, VersionString,        Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x10A, HardwareReset,        Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x10B, GatewayId,            Empty,        Packed,       true)  \
  TAMRIK_SERVICE(0x10C, StationAddress,       Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x10D, Service10D,           Unassigned,   Packed,       true)  \
  TAMRIK_SERVICE(0x10F, GatewayTime,          Empty,        Clock,        false) \
  TAMRIK_SERVICE(0x110, SetServiceBaudrate,   OneByte,      BytePerValue, false) \
  TAMRIK_SERVICE(0x111, Service111,           OneByte,      BytePerValue, true)  \
  TAMRIK_SERVICE(0x112, Switches,             Empty,        TwoBytes,     true)  \
  TAMRIK_SERVICE(0x113, Leds,                 Word16,       BytePerValue, true)  \
  TAMRIK_SERVICE(0x114, BootFctsHwInfo,       Empty,        Words16,      true)  \
  TAMRIK_SERVICE(0x115, Service115,           OneByte,      BytePerValue, true)  \
  TAMRIK_SERVICE(0x120, ImageAnnounce,        BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x121, ImageBlock,           RawBytes,     BytePerValue, true)  \
  TAMRIK_SERVICE(0x122, ImageEnd,             Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x130, PrivilegedRequest,    BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x131, PrivilegedChannel,    Empty,        Packed,       true)  \
  TAMRIK_SERVICE(0x132, PrivilegedName,       Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x902, DNetSerialNumber,     Empty,        FourBytes,    true)  \
  TAMRIK_SERVICE(0x904, DNetToolIdent,        Empty,        BytePerValue, true)  \
  TAMRIK_SERVICE(0x912, DNetGetAttribute,     BytePerValue, BytePerValue, true)  \
  TAMRIK_SERVICE(0x913, DNetSetAttribute,     BytePerValue, BytePerValue, true)
// clang-format on

namespace tamrik {

#define TAMRIK_SERVICE_CONSTANT(code, Name, request, answer, refusable) \
  inline constexpr uint32_t kService##Name = code;
TAMRIK_SERVICE_TABLE(TAMRIK_SERVICE_CONSTANT)
#undef TAMRIK_SERVICE_CONSTANT

// The gateway clock doubles as the challenge of the privileged mode.
inline constexpr uint32_t kServiceChallenge = kServiceGatewayTime;
// The gateway has no service of its own for the station address: the request goes out as an
// operation-mode request carrying the address byte.
inline constexpr uint32_t kServiceSetStationAddress = kServiceSetOperationMode;

namespace protocol {

// The name of a service ("GatewayVersion"), of the request code or of its answer or refusal
// (the low 14 bits count); nullptr for a code the table does not hold.
const char* ServiceName(uint32_t code);

}  // namespace protocol

}  // namespace tamrik

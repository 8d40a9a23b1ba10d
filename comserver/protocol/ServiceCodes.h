// The service codes that the driver sends, named once. The answer to code c carries
// c + 0x4000; a refusal c + 0x8000 or c + 0xC000.
#pragma once

#include <cstdint>

namespace tamrik {

inline constexpr uint32_t kServiceModuleList = 0x001;
inline constexpr uint32_t kServiceProcessIn = 0x003;
inline constexpr uint32_t kServiceProcessOutRead = 0x004;
inline constexpr uint32_t kServiceProcessOutWrite = 0x005;
inline constexpr uint32_t kServiceParameterRead = 0x006;
inline constexpr uint32_t kServiceParameterWrite = 0x007;
inline constexpr uint32_t kServiceDiagnosis = 0x008;
inline constexpr uint32_t kServiceFbiReset = 0x00D;
inline constexpr uint32_t kServiceFbiStart = 0x00E;
inline constexpr uint32_t kServiceStreamSizeList = 0x00F;
inline constexpr uint32_t kServiceStreamSegment = 0x010;
inline constexpr uint32_t kServiceStreamPosition = 0x011;
inline constexpr uint32_t kServiceModuleSWRev = 0x012;
inline constexpr uint32_t kServiceModuleTyp = 0x013;
inline constexpr uint32_t kServiceClearTRBuffer = 0x015;
inline constexpr uint32_t kServiceGetTRBuffer = 0x016;
inline constexpr uint32_t kServiceMonitorReset = 0x017;
inline constexpr uint32_t kServiceMonitorStart = 0x018;
inline constexpr uint32_t kServiceMonitorStop = 0x019;
inline constexpr uint32_t kServiceFirstDataFrame = 0x01A;
inline constexpr uint32_t kServiceNextDataFrame = 0x01B;
inline constexpr uint32_t kServiceGatewayIdString = 0x100;
inline constexpr uint32_t kServiceGatewayVersion = 0x101;
inline constexpr uint32_t kServiceBootFunctionIdString = 0x102;
inline constexpr uint32_t kServiceBootVersion = 0x103;
inline constexpr uint32_t kServiceErrorList = 0x104;
inline constexpr uint32_t kServiceGetOperationMode = 0x105;
inline constexpr uint32_t kServiceSetOperationMode = 0x106;
inline constexpr uint32_t kServiceFirmwareDownload = 0x107;
inline constexpr uint32_t kServiceVersionString = 0x109;
inline constexpr uint32_t kServiceHardwareReset = 0x10A;
inline constexpr uint32_t kServiceGatewayId = 0x10B;
inline constexpr uint32_t kServiceStationAddress = 0x10C;
inline constexpr uint32_t kServiceChallenge = 0x10F;  // the gateway clock doubles as the challenge
inline constexpr uint32_t kServiceGatewayTime = 0x10F;
inline constexpr uint32_t kServiceSetServiceBaudrate = 0x110;
inline constexpr uint32_t kServiceSwitches = 0x112;
inline constexpr uint32_t kServiceLeds = 0x113;
inline constexpr uint32_t kServiceBootFctsHwInfo = 0x114;
inline constexpr uint32_t kServiceImageAnnounce = 0x120;
inline constexpr uint32_t kServiceImageBlock = 0x121;
inline constexpr uint32_t kServiceImageEnd = 0x122;
inline constexpr uint32_t kServicePrivilegedRequest = 0x130;
inline constexpr uint32_t kServicePrivilegedChannel = 0x131;
inline constexpr uint32_t kServicePrivilegedName = 0x132;
inline constexpr uint32_t kServiceDNetSerialNumber = 0x902;
inline constexpr uint32_t kServiceDNetToolIdent = 0x904;
inline constexpr uint32_t kServiceDNetGetAttribute = 0x912;
inline constexpr uint32_t kServiceDNetSetAttribute = 0x913;

// The gateway knows no code of its own for setting the station address.
inline constexpr uint32_t kServiceSetStationAddress = kServiceSetOperationMode;

}  // namespace tamrik

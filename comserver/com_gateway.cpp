// Gateway information and control methods.
#include <algorithm>
#include <cstring>
#include <string>

#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceTable.h"
#include "platform/Platform.h"

namespace tamrik {

namespace {

// The gateway has no service of its own for the station address; the request goes out as
// an operation-mode request carrying the address byte.

constexpr const char* kStation = "Station";

constexpr size_t kStringCapacity = 200;
constexpr int32_t kMaxDemoText = 0x10000;
constexpr size_t kStationAddressCapacity = 8;
constexpr int32_t kDemoErrorRecords = 3;
constexpr int32_t kErrorRecordSize = 7;
// At most 30 entries of at most 255 bytes, each a record of its length plus one.
constexpr int32_t kMaxErrorListValues = 30 * 256;

// Two 16-bit halves of a millisecond count as the demonstration file keeps them.
uint32_t Halves(int32_t high, int32_t low) { return uint32_t(high) * 65536u + uint32_t(low); }

}  // namespace

// --- identity strings ----------------------------------------------------------------------

uint32_t Ccom::kaVGetGatewayIdSring(char* psDataa, int32_t* plSizeOfData, int32_t* plError) {
  return StringMethod("kaVGetGatewayIdSring", kServiceGatewayIdString, "GWIdString", psDataa, plSizeOfData, plError);
}

uint32_t Ccom::kaVGetGatewayBootFunctionIdString(char* psData, int32_t* plSizeOfData, int32_t* plError) {
  return StringMethod("kaVGetGatewayBootFunctionIdString", kServiceBootFunctionIdString, "GWBootID", psData,
                      plSizeOfData, plError);
}

uint32_t Ccom::kaVGetGatewayVersionString(char* psGWVersionString, int32_t* plSizeOfData, int32_t* plError) {
  return StringMethod("kaVGetGatewayVersionString", kServiceVersionString, "GWVersionString", psGWVersionString,
                      plSizeOfData, plError);
}

// --- versions, switches, mode ----------------------------------------------------------------

uint32_t Ccom::kaVGetGatewayVersion(int32_t* plData, int32_t* plError) {
  // The answer fills the two low bytes; the caller's upper bytes stay. The trace has always
  // named this method with a lower-case v, and log filters written against it look for that.
  return RunExchange({.name = "kavGetGatewayVersion",
                      .service = kServiceGatewayVersion,
                      .values = plData,
                      .capacity = 1,
                      .error = plError,
                      .demo = [&]() -> std::optional<uint32_t> {
                        *plData = DemoInt(kStation, "GWVersion");
                        return std::nullopt;
                      }});
}

uint32_t Ccom::kaVGetGatewayBootVersion(int32_t* plData, int32_t* plError) {
  return RunExchange({.name = "kaVGetGatewayBootVersion",
                      .service = kServiceBootVersion,
                      .values = plData,
                      .capacity = 1,
                      .error = plError,
                      .demo = [&]() -> std::optional<uint32_t> {
                        *plData = DemoInt(kStation, "GWBootVersion");
                        return std::nullopt;
                      }});
}

uint32_t Ccom::kaVGetCurrentGwSwitches(int32_t* plSwitch, int32_t* plError) {
  return RunExchange({.name = "kaVGetCurrentGwSwitches",
                      .service = kServiceSwitches,
                      .values = plSwitch,
                      .capacity = 1,
                      .error = plError});
}

uint32_t Ccom::kaVGetGatewayOperationMode(int32_t* plOPMode, int32_t* plError) {
  return RunExchange({.name = "kaVGetGatewayOperationMode",
                      .service = kServiceGetOperationMode,
                      .values = plOPMode,
                      .capacity = 1,
                      .error = plError,
                      .demo = [&]() -> std::optional<uint32_t> {
                        *plOPMode = DemoInt(kStation, "GWOPMode");
                        return std::nullopt;
                      }});
}

uint32_t Ccom::kaVSetGatewayOperationMode(int32_t* plOPMode, int32_t* plError) {
  port_->ChangeTimings(false);
  return RunExchange({.name = "kaVSetGatewayOperationMode",
                      .service = kServiceSetOperationMode,
                      .request = plOPMode,
                      .values = plOPMode,
                      .capacity = 1,
                      .error = plError,
                      .demo = [&]() -> std::optional<uint32_t> {
                        // The demonstration gateway knows the modes 1 and 2 only.
                        if (*plOPMode == 1 || *plOPMode == 2) {
                          DemoWrite(kStation, "GWOPMode", std::to_string(*plOPMode));
                        }
                        return std::nullopt;
                      }});
}

// --- identifier, station address, clock --------------------------------------------------------

uint32_t Ccom::kaVGetGatewayId(int32_t* plGatewayId, int32_t* plError) {
  port_->ChangeTimings(false);
  return RunExchange({.name = "kaVGetGatewayId",
                      .service = kServiceGatewayId,
                      .values = plGatewayId,
                      .capacity = 1,
                      .error = plError,
                      .demo = [&]() -> std::optional<uint32_t> {
                        const std::string id = DemoText(kStation, "GatewayId", 10);
                        if (id.size() != 8) {
                          *plError = int32_t(rc::kDemoBadGatewayId);
                          return 0;
                        }
                        *plGatewayId = int32_t(LeadingHex(id.c_str()));
                        return std::nullopt;
                      }});
}

uint32_t Ccom::kaVGetStationAddress(int32_t* plAddress, int32_t* plError) {
  int32_t work[kStationAddressCapacity] = {};
  int32_t count = 0;
  return RunExchange({.name = "kaVGetStationAddress",
                      .service = kServiceStationAddress,
                      .values = work,
                      .count = &count,
                      .capacity = kStationAddressCapacity,
                      .error = plError,
                      .demo = [&]() -> std::optional<uint32_t> {
                        *plAddress = DemoInt(kStation, "GWStationAddress");
                        return std::nullopt;
                      },
                      .afterAnswer = [&]() -> std::optional<uint32_t> {
                        // One byte is a short address; four or more give a long one. Anything else is no address.
                        if (count == 1) {
                          *plAddress = uint8_t(work[0]);
                        } else if (count >= 4) {
                          *plAddress = int32_t(uint32_t(uint8_t(work[0])) | (uint32_t(uint8_t(work[1])) << 8) |
                                               (uint32_t(uint8_t(work[2])) << 16) | (uint32_t(uint8_t(work[3])) << 24));
                        }
                        return std::nullopt;
                      }});
}

uint32_t Ccom::kaVSetStationAddress(int32_t* plAddress, int32_t* plError) {
  return RunExchange({.name = "kaVSetStationAddress",
                      .service = kServiceSetStationAddress,
                      .request = plAddress,
                      .values = plAddress,
                      .capacity = 1,
                      .error = plError});
}

uint32_t Ccom::kaVGetGatewayTime(int32_t* lDays, int32_t* lHours, int32_t* lMinutes, int32_t* lSeconds,
                                 int32_t* plError) {
  int32_t parts[4] = {};
  const auto deliver = [&]() -> std::optional<uint32_t> {
    *lDays = parts[0];
    *lHours = parts[1];
    *lMinutes = parts[2];
    *lSeconds = parts[3];
    return std::nullopt;
  };
  return RunExchange({.name = "kaVGetGatewayTime",
                      .service = kServiceGatewayTime,
                      .values = parts,
                      .capacity = 4,
                      .error = plError,
                      .demo = [&]() -> std::optional<uint32_t> {
                        const protocol::MillisecondParts t =
                            protocol::MillisecondSplit(Halves(DemoInt(kStation, "TimeA"), DemoInt(kStation, "TimeB")));
                        parts[0] = int32_t(t.days);
                        parts[1] = int32_t(t.hours);
                        parts[2] = int32_t(t.minutes);
                        parts[3] = int32_t(t.seconds);
                        return deliver();
                      },
                      .afterAnswer = deliver});
}

// --- error list ------------------------------------------------------------------------------

uint32_t Ccom::kaVGetGatewayErrorList(int32_t* plEntrys, int32_t* plErrorData, int32_t* plSizeOfErrBuf,
                                      int32_t* plError) {
  TraceMethod("kaVGetGatewayErrorList-->");
  if (*plSizeOfErrBuf < 0) {
    *plError = int32_t(rc::kBadArgument);
    return 0;
  }
  // No list fills more than this; a larger buffer is taken for what it can be used for, so
  // that the buffer is never cleared further than an answer could reach.
  const int32_t capacity = std::min(*plSizeOfErrBuf, kMaxErrorListValues);
  if (nDemo == 1) {
    *plEntrys = DemoInt(kStation, "GWErrors");
    // Only records that fit whole in the caller's buffer are written.
    static constexpr const char* kKeys[kDemoErrorRecords][3] = {
        {"Error1", "Errdur1a", "Errdur1b"}, {"Error2", "Errdur2a", "Errdur2b"}, {"Error3", "Errdur3a", "Errdur3b"}};
    for (int32_t n = 0; n < kDemoErrorRecords && (n + 1) * kErrorRecordSize <= capacity; ++n) {
      const protocol::MillisecondParts d =
          protocol::MillisecondSplit(Halves(DemoInt(kStation, kKeys[n][1]), DemoInt(kStation, kKeys[n][2])));
      int32_t* record = plErrorData + n * kErrorRecordSize;
      record[0] = kErrorRecordSize;
      record[1] = DemoInt(kStation, kKeys[n][0]);
      record[2] = int32_t(d.days);
      record[3] = int32_t(d.hours);
      record[4] = int32_t(d.minutes);
      record[5] = int32_t(d.seconds);
      record[6] = int32_t(d.milliseconds);
    }
  } else if (nDemo == 0) {
    uint32_t result = port_->GenerateService(kServiceErrorList, nullptr, nullptr);
    if (result != 0) {
      *plError = int32_t(result);
      return 0;
    }
    std::fill_n(plErrorData, capacity, 0);
    int32_t entries = 0;
    result = port_->AnswerReception(kServiceErrorList, plErrorData, &entries, size_t(capacity), Overflow());
    // A list that does not fit tells the room it needs through the buffer's size, which is
    // where the caller stated the room it had.
    if (result == rc::kAnswerTooLong) *plSizeOfErrBuf = entries;
    else *plEntrys = entries;
    if (result != 0) {
      *plError = int32_t(result);
      return rc::kAnswerFailed;
    }
  }
  TraceMethod("kaVGetGatewayErrorList<--");
  *plError = 0;
  return 0;
}

// --- module lists --------------------------------------------------------------------------

uint32_t Ccom::kaVGetModulIdStatusList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  // Values stay whole: identifier in the upper three bytes, status in the lowest.
  return RunExchange({.name = "kaVGetModulIdStatusList",
                      .service = kServiceModuleList,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError,
                      .demo = [&] { return DemoModuleStep(plData, plSizeOfData, plError); }});
}

uint32_t Ccom::kaVGetModuleSWRev(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return RunExchange({.name = "kaVGetModuleSWRev",
                      .service = kServiceModuleSWRev,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError});
}

uint32_t Ccom::kaVGetModuleTyp(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return RunExchange({.name = "kaVGetModuleTyp",
                      .service = kServiceModuleTyp,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError});
}

uint32_t Ccom::kavGetBootFctsHwInfo(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return RunExchange({.name = "kavGetBootFctsHwInfo",
                      .service = kServiceBootFctsHwInfo,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError});
}

// --- TR buffer -------------------------------------------------------------------------------

uint32_t Ccom::kaVGetTRBuffer(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return RunExchange({.name = "kaVGetTRBuffer",
                      .service = kServiceGetTRBuffer,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError,
                      .onRequestFailure = RequestFailure::ReturnCode,
                      .busyGuarded = true});
}

uint32_t Ccom::kaVClearTRBuffer(int32_t* plError) {
  return RunExchange({.name = "kaVClearTRBuffer", .service = kServiceClearTRBuffer, .error = plError});
}

// --- control ---------------------------------------------------------------------------------

uint32_t Ccom::kaVExecHardwareReset(int32_t* plError) {
  port_->ChangeTimings(false);
  return RunExchange({.name = "kaVExecHardwareReset", .service = kServiceHardwareReset, .error = plError});
}

uint32_t Ccom::kaVGatewayFbiReset(int32_t* plError) {
  return RunExchange({.name = "kaVGatewayFbiReset", .service = kServiceFbiReset, .error = plError});
}

uint32_t Ccom::kaVGatewayFbiStart(int32_t* plError) {
  return RunExchange({.name = "kaVGatewayFbiStart", .service = kServiceFbiStart, .error = plError});
}

uint32_t Ccom::kaVSetGatewayLeds(int32_t* LEDStatus, int32_t* plError) {
  return RunExchange({.name = "kaVSetGatewayLeds",
                      .service = kServiceLeds,
                      .request = LEDStatus,
                      .values = LEDStatus,
                      .capacity = 1,
                      .error = plError});
}

}  // namespace tamrik

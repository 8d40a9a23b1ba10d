// Lower-level access: service monitoring, DeviceNet services, any service with caller-given
// data, raw bytes on the line, and the driver's own memory area.
#include <algorithm>
#include <cstring>
#include <vector>

#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceTable.h"

namespace tamrik {

namespace {

// The code that switches the link to polling instead of naming a service.
constexpr int32_t kPollingSwitch = 0x10000;
constexpr int32_t kMaxBlock = 65535;

// Whether [address, address + size) lies inside the driver's memory area.
bool InsidePortArea(int32_t address, int32_t size) {
  return address >= 0 && size >= 0 && int64_t(address) + size <= Ccom::kPortAreaSize;
}

}  // namespace

// --- raw bytes on the line -----------------------------------------------------------------

uint32_t Ccom::kaVTestBlockRead(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  const int32_t size = *plSizeOfData;
  if (size < 0 || size > kMaxBlock) {
    if (nDemo == 0) *plError = int32_t(rc::kBadArgument);
    return 0;
  }
  // Bytes that no read sets (demonstration mode, a failed or short read) arrive as 0.
  std::vector<uint8_t> buffer(size_t(size), 0);
  if (nDemo == 0) *plError = int32_t(port_->ReadStream(buffer.data(), size));
  // The bytes reach the host sign-extended, as hosts of this method have always read them.
  for (int32_t i = 0; i < size; ++i) plData[i] = int8_t(buffer[size_t(i)]);  // NOLINT(bugprone-signed-char-misuse)
  return 0;
}

uint32_t Ccom::kaVTestBlockWrite(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  if (nDemo != 0) return 0;
  const int32_t size = *plSizeOfData;
  if (size < 0 || size > kMaxBlock) {
    *plError = int32_t(rc::kBadArgument);
    return 0;
  }
  std::vector<uint8_t> buffer(static_cast<size_t>(size));
  for (int32_t i = 0; i < size; ++i) buffer[size_t(i)] = uint8_t(plData[i]);
  *plError = int32_t(port_->WriteStream(buffer.data(), size));
  return 0;
}

// --- service monitoring ----------------------------------------------------------------------

uint32_t Ccom::kaVSrvMbResetMonitoring(int32_t* plError) {
  return RunExchange({.name = "kaVSrvMbResetMonitoring", .service = kServiceMonitorReset, .error = plError});
}

uint32_t Ccom::kaVSrvMbStartMonitoring(int32_t* plError) {
  // Its traces have always carried this name rather than the method's own; tools that read
  // the trace know it by it.
  return RunExchange({.name = "tamrikSrvMbStartMonitoring", .service = kServiceMonitorStart, .error = plError});
}

uint32_t Ccom::kaVSrvMbStopMonitoring(int32_t* plError) {
  return RunExchange({.name = "kaVSrvMbStopMonitoring", .service = kServiceMonitorStop, .error = plError});
}

uint32_t Ccom::kaVSrvGetFirstDataFrame(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return ArrayExchange("kaVSrvGetFirstDataFrame", kServiceFirstDataFrame, plData, plSizeOfData, plError);
}

uint32_t Ccom::kaVSrvGetNextDataFrame(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return ArrayExchange("kaVSrvGetNextDataFrame", kServiceNextDataFrame, plData, plSizeOfData, plError);
}

// --- DeviceNet -------------------------------------------------------------------------------

uint32_t Ccom::kaVSrvDNetGetEEPDNetSerialNumber(int32_t* lSerialNumber, int32_t* Error) {
  return RunExchange({.name = "kaVSrvDNetGetEEPDNetSerialNumber",
                      .service = kServiceDNetSerialNumber,
                      .values = lSerialNumber,
                      .capacity = 1,
                      .error = Error});
}

uint32_t Ccom::kaVSrvDNetGetEEPToolIdent(char* psIdentName, int32_t* plSizeOfData, int32_t* Error) {
  return StringMethod("kaVSrvDNetGetEEPToolIdent", kServiceDNetToolIdent, nullptr, psIdentName, plSizeOfData, Error);
}

uint32_t Ccom::kaVSrvDNetGetClassInstAttr(int32_t* plData, int32_t* plSizeOfData, int32_t* Error) {
  return ArrayExchange("kaVSrvDNetGetClassInstAttr", kServiceDNetGetAttribute, plData, plSizeOfData, Error);
}

uint32_t Ccom::kaVSrvDNetSetClassInstAttr(int32_t* plData, int32_t* plSizeOfData, int32_t* Error) {
  return ArrayExchange("kaVSrvDNetSetClassInstAttr", kServiceDNetSetAttribute, plData, plSizeOfData, Error);
}

// --- the driver's memory area ------------------------------------------------------------------
// The address is an offset into the area; a copy that would leave it copies nothing and is
// the only case in which the out-value is written.

uint32_t Ccom::SetPort(int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error) {
  const int32_t size = *plSize;
  const int32_t address = *plAddress;
  if (!InsidePortArea(address, size)) {
    *Error = int32_t(rc::kBadArgument);
    return 0;
  }
  if (size > 0) memcpy(pPortArea.get() + address, plData, size_t(size));
  return 0;
}

uint32_t Ccom::GetPort(int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error) {
  const int32_t size = *plSize;
  const int32_t address = *plAddress;
  if (!InsidePortArea(address, size)) {
    *Error = int32_t(rc::kBadArgument);
    return 0;
  }
  if (size > 0) memcpy(plData, pPortArea.get() + address, size_t(size));
  return 0;
}

// --- any service -----------------------------------------------------------------------------

uint32_t Ccom::kaVDoService(int32_t* service, uint8_t* plData, int32_t* plSizeOfSendData, int32_t* plSizeOfRecData,
                            int32_t* plError) {
  if (*service == kPollingSwitch) {
    // From now on socket reads return at once when no answer has begun to arrive, and the
    // host calls again to collect it.
    port_->SwitchToPolling();
    *service |= protocol::kAnswerBit;
    return 0;
  }
  TraceMethod("kaVDoService-->");
  if (nDemo == 1) return 0;
  if (nDemo == 0) {
    // Every code goes out as a raw request, the code 0 included: the data travel unchanged
    // and the answer is taken uninterpreted, as long as it answers this code.
    const uint32_t rawCode = protocol::kRawServiceBase + (uint32_t(*service) & 0xFFFF);
    if (*plSizeOfRecData < 0) {
      *plError = int32_t(rc::kBadArgument);
      return 0;
    }
    uint32_t result = port_->GenerateService(rawCode, plData, plSizeOfSendData);
    if (result != 0) {
      *plError = int32_t(result);
      return 0;
    }
    const size_t capacity = size_t(std::clamp(*plSizeOfRecData, 0, kMaxBlock));
    std::vector<int32_t> values(capacity);
    int32_t count = 0;
    result = port_->AnswerReception(rawCode, values.data(), &count, capacity, Overflow());
    if (result == rc::kAnswerTooLong) {
      TraceMethod("kaVDoService<--");
      *plSizeOfRecData = count;
      *plError = int32_t(result);
      return rc::kAnswerFailed;
    }
    if (result < rc::kRawAnswerBase || result > rc::kRawAnswerBase + 0xFFFF) {
      TraceMethod("kaVDoService<--");
      *plSizeOfRecData = 0;
      *plError = int32_t(result);
      return result;
    }
    count = std::clamp(count, 0, int32_t(capacity));
    for (int32_t i = 0; i < count; ++i) plData[i] = uint8_t(values[size_t(i)]);
    *plSizeOfRecData = count;
    // A refusal is an answer too: the host reads it from the code.
    *service = int32_t(result - rc::kRawAnswerBase);
  }
  TraceMethod("kaVDoService<--");
  *plError = 0;
  return 0;
}

}  // namespace tamrik

// Module stream data: the size list, the stream position and the segmented write; and the
// statistics methods, which keep no statistics.
#include <algorithm>

#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceTable.h"
#include "platform/Platform.h"

namespace tamrik {

namespace {

constexpr int32_t kMaxSegmentLength = 19;  // data values after the header in one request
constexpr int32_t kMaxStreamData = 127;
constexpr int32_t kSegmentBuffer = kMaxSegmentLength + 1;
constexpr int32_t kPositionValues = 2;
static_assert(kPositionValues == 2, "the entry trace of kaVSetModuleStreamDataPosition names this count");

}  // namespace

uint32_t Ccom::kaVGetModuleStreamDataSizeList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  return RunExchange({.name = "kaVGetModuleStreamDataSizeList",
                      .service = kServiceStreamSizeList,
                      .values = plData,
                      .count = plSizeOfData,
                      .capacity = kCallerCapacity,
                      .error = plError});
}

uint32_t Ccom::kaVSetModuleStreamDataPosition(int32_t* plData, int32_t* plError) {
  // The caller's array is known to hold the two request values; the answer gets no more.
  const int32_t requestCount = kPositionValues;
  int32_t count = 0;
  return RunExchange({.name = "kaVSetModuleStreamDataPosition",
                      // The entry line has always carried the request's value count in front.
                      .entryTrace = "DL: 2 kaVSetModuleStreamDataPosition-->",
                      .service = kServiceStreamPosition,
                      .request = plData,
                      .requestCount = &requestCount,
                      .values = plData,
                      .count = &count,
                      .capacity = kPositionValues,
                      .error = plError});
}

uint32_t Ccom::kaVSetModuleStreamSegmentData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  TraceMethod("kaVSetModuleStreamSegmentData-->");
  if (nDemo == 0) {
    // A longer segment would not fit the request buffer, and the gateway takes at most 127
    // stream bytes per block; both are refused before anything goes out.
    const int32_t header = int32_t(uint8_t(plData[0]));
    // The length byte is signed: 0x80 and above are negative and refused below.
    const int32_t segmentLength = int32_t(int8_t(uint8_t(plData[1])));  // NOLINT(bugprone-signed-char-misuse)
    if (segmentLength < 1 || segmentLength > kMaxSegmentLength || *plSizeOfData < 3 ||
        *plSizeOfData - 2 > kMaxStreamData) {
      *plError = int32_t(rc::kBadArgument);
      return rc::kBadArgument;
    }
    // Read at every call, so that a changed setting counts from the next block on.
    const int32_t dataCount = *plSizeOfData - 2;
    const int32_t setting =
        segmentSleepWithoutFile_ ? *segmentSleepWithoutFile_
                                 : int32_t(platform::ProfileGetInt("Init", "StreamSegmentSleepTime", 255, szConfigFile));
    const int32_t pause = std::max(setting, 0);

    const int32_t* data = plData + 2;
    int32_t segment[kSegmentBuffer];
    for (int32_t next = 0; next < dataCount;) {
      const int32_t take = std::min(segmentLength, dataCount - next);
      segment[0] = header;
      std::copy_n(data + next, take, segment + 1);
      next += take;
      const int32_t requestCount = take + 1;
      uint32_t result = port_->GenerateService(kServiceStreamSegment, segment, &requestCount);
      if (result != 0) {
        *plError = int32_t(result);
        return result;
      }
      platform::SleepMs(uint32_t(pause));
      int32_t count = 0;
      result = port_->AnswerReception(kServiceStreamSegment, segment, &count, kSegmentBuffer);
      if (result != 0) {
        *plError = int32_t(result);
        return rc::kAnswerFailed;
      }
    }
  }
  TraceMethod("kaVSetModuleStreamSegmentData<--");
  *plError = 0;
  return 0;
}

uint32_t Ccom::kaVGetStatistics(int32_t* time, int32_t* breaks, int32_t* data, int32_t* plError) {
  // No counters stand behind these two methods; they exist for hosts that call them.
  return 0;
}

uint32_t Ccom::kaVClrStatistics(int32_t* plError) { return 0; }

}  // namespace tamrik

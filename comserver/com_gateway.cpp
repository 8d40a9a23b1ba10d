// Gateway information and control methods.
#include "ResultCodes.h"
#include "com.h"
#include "platform/Platform.h"

namespace tamrik {

namespace {
constexpr uint32_t kServiceGatewayVersion = 0x101;
}  // namespace

uint32_t Ccom::kaVGetGatewayVersion(int32_t* plData, int32_t* plError) {
  TraceMethod("kavGetGatewayVersion-->");
  if (nDemo == 1) {
    *plData = int32_t(platform::ProfileGetInt("Station", "GWVersion", 255, szDemoFile));
  } else if (nDemo == 0) {
    // The answer fills the two low bytes; the caller's upper bytes stay.
    int32_t count = 0;
    uint32_t methodReturn = 0;
    if (!Exchange(kServiceGatewayVersion, nullptr, nullptr, plData, &count, 1, plError,
                  RequestFailure::ReturnZero, &methodReturn)) {
      return methodReturn;
    }
  }
  TraceMethod("kavGetGatewayVersion<--");
  *plError = 0;
  return 0;
}

}  // namespace tamrik

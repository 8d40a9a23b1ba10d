// The demonstration file: bit strings of the process, parameter and diagnosis data, module
// identifiers and gateway values, read and written back through the methods.
//
// Input: the demonstration file; its bytes also serve as the data the set methods write.
#include <memory>
#include <vector>

#include "FuzzSupport.h"
#include "com.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tamrik::Ccom;
  static const std::unique_ptr<Ccom> com = [] {
    const std::string config =
        "[Init]\nVersion=1\nLogfile=0\nComPort=1\nBaudrate=9600\nReadInterval=200\nReadTotalMultiplier=0\n"
        "ReadTotalConstant=500\nReadTotalConstantFW=3000\n";
    tamrik::fuzz::WriteWorkFile("kaVcnf.ini", reinterpret_cast<const uint8_t*>(config.data()), config.size());
    return std::make_unique<Ccom>(tamrik::fuzz::WorkDirectory());
  }();
  tamrik::fuzz::WriteWorkFile("kaVdmo.ini", data, size);

  // The host promises room for the largest answer; a guard behind it shows any write beyond.
  constexpr size_t kRoom = 70000;
  constexpr int32_t kGuard = 0x6D6D6D6D;
  std::vector<int32_t> values(kRoom + 1, kGuard);
  int32_t count = 0, error = 0;
  auto check = [&] {
    if (values.back() != kGuard) __builtin_trap();
  };
  com->kaVGetProcessInData(values.data(), &count, &error);
  com->kaVGetProcessInData(values.data(), &count, &error);  // the animated inputs move on
  check();
  com->kaVGetProcessOutData(values.data(), &count, &error);
  check();
  com->kaVGetParameterData(values.data(), &count, &error);
  check();
  com->kaVGetDiagData(values.data(), &count, &error);
  check();
  count = 1024;
  com->kaVGetModuleList(values.data(), &count, &error);
  check();
  count = 1024;
  com->kaVGetModulIdStatusList(values.data(), &count, &error);
  check();
  int32_t entries = 0, room = int32_t(kRoom);
  com->kaVGetGatewayErrorList(&entries, values.data(), &room, &error);
  check();

  std::vector<int32_t> bytes(data, data + size);
  int32_t n = int32_t(bytes.size());
  com->kaVSetProcessOutData(bytes.data(), &n, &error);
  n = int32_t(bytes.size());
  com->kaVSetParameterData(bytes.data(), &n, &error);
  char text[256];
  int32_t textSize = 0;
  com->kaVGetGatewayIdSring(text, &textSize, &error);
  com->kaVGetGatewayVersionString(text, &textSize, &error);
  int32_t days = 0, hours = 0, minutes = 0, seconds = 0;
  com->kaVGetGatewayTime(&days, &hours, &minutes, &seconds, &error);
  return 0;
}

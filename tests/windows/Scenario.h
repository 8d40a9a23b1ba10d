// One sequence of driver calls, written once and run against any way of reaching the driver
// object: the C interface on Linux, the vtable of Icom and IDispatch by name on Windows.
// Each call prints one line with its out-values, so that the runs can be compared line by
// line; the method's own status is printed as "status=..." for the ways that see it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace tamrik::scenario {

// How the link is made: "demo" (no link: demonstration mode), "tcp PORT", "udp PORT" or
// "serial N".
struct Link {
  std::string kind;
  std::string port;
};

class Printer {
 public:
  explicit Printer(FILE* out) : out_(out) {}
  // kept: the method leaves its out-value alone, so the line shows the value the caller put
  // in (which a caller through IDispatch cannot put in: there it comes back as 0).
  void Line(const char* name, uint32_t status, bool showStatus, int32_t error, const std::string& values,
            bool kept = false) {
    std::fprintf(out_, "%s %s=0x%X%s%s", name, kept ? "err(kept)" : "err", uint32_t(error),
                 values.empty() ? "" : " ", values.c_str());
    if (showStatus) std::fprintf(out_, " status=0x%X", status);
    std::fputc('\n', out_);
    std::fflush(out_);
  }

 private:
  FILE* out_;
};

inline std::string Numbers(const int32_t* values, int32_t count) {
  std::string text = "[";
  for (int32_t i = 0; i < count && i < 256; ++i) {
    if (i > 0) text += ",";
    text += std::to_string(values[i]);
  }
  return text + "]";
}

inline std::string Text(const char* text, int32_t size) {
  std::string s = "'";
  for (int32_t i = 0; i < size && i < 256; ++i) s += text[i];
  return s + "'";
}

// Driver: an object with the interface's methods taking the method table's types and
// returning the method's status, and a member kShowsStatus.
template <typename Driver>
void Run(Driver& d, const Link& link, Printer& p) {
  const bool st = Driver::kShowsStatus;
  int32_t err = -1;
  uint32_t s = 0;

  if (link.kind == "tcp" || link.kind == "udp") {
    const std::string argument = link.kind == "udp" ? link.port + ",UDP" : link.port;
    err = -1;
    s = d.kaVOpenEthernet(argument.c_str(), "127.0.0.1", &err);
    p.Line("kaVOpenEthernet", s, st, err, "");
  } else if (link.kind == "serial") {
    err = -1;
    s = d.kaVSetBaudrate(19200, &err);
    p.Line("kaVSetBaudrate", s, st, err, "");
    err = -1;
    s = d.kaVOpenComPort(std::stoi(link.port), &err);
    p.Line("kaVOpenComPort", s, st, err, "");
  }

  {
    char text[16];
    std::memset(text, '#', sizeof text);
    // The count on entry is the capacity for the C interface; the automation interface does
    // not read it.
    int32_t size = int32_t(sizeof text);
    err = 77;  // kaVGetVersion leaves it alone
    s = d.kaVGetVersion(text, &size, &err);
    p.Line("kaVGetVersion", s, st, err, Text(text, 12) + " size=" + std::to_string(size), true);
  }
  {
    int32_t version = 0;
    err = -1;
    s = d.kaVGetGatewayVersion(&version, &err);
    p.Line("kaVGetGatewayVersion", s, st, err, std::to_string(version));
  }
  {
    char text[256] = {};
    int32_t size = int32_t(sizeof text);
    err = -1;
    s = d.kaVGetGatewayVersionString(text, &size, &err);
    p.Line("kaVGetGatewayVersionString", s, st, err, Text(text, size));
    std::memset(text, 0, sizeof text);
    size = int32_t(sizeof text);
    err = -1;
    s = d.kaVGetGatewayIdSring(text, &size, &err);
    p.Line("kaVGetGatewayIdSring", s, st, err, Text(text, size));
  }
  {
    int32_t value = 0;
    err = -1;
    s = d.kaVGetStationAddress(&value, &err);
    p.Line("kaVGetStationAddress", s, st, err, std::to_string(value));
    value = 0;
    err = -1;
    s = d.kaVGetGatewayId(&value, &err);
    p.Line("kaVGetGatewayId", s, st, err, std::to_string(value));
    value = 0;
    err = -1;
    s = d.kaVGetGatewayOperationMode(&value, &err);
    p.Line("kaVGetGatewayOperationMode", s, st, err, std::to_string(value));
  }
  {
    int32_t data[256] = {};
    int32_t size = 256;
    err = -1;
    s = d.kaVGetModuleList(data, &size, &err);
    p.Line("kaVGetModuleList", s, st, err, Numbers(data, size));
    std::memset(data, 0, sizeof data);
    size = 256;
    err = -1;
    s = d.kaVGetProcessInData(data, &size, &err);
    p.Line("kaVGetProcessInData", s, st, err, Numbers(data, size));
  }
  {
    int32_t days = 0, hours = 0, minutes = 0, seconds = 0;
    err = -1;
    s = d.kaVGetGatewayTime(&days, &hours, &minutes, &seconds, &err);
    // The clock runs: only whether it answered is the same from run to run.
    p.Line("kaVGetGatewayTime", s, st, err, hours >= 0 && minutes >= 0 && seconds >= 0 ? "read" : "negative");
  }
  {
    int16_t out[4] = {0x1234, -2, 7, 0};
    int16_t back[4] = {};
    int32_t bytes = 6;
    int32_t address = 32;
    err = -1;
    s = d.SetPort(out, &bytes, &address, &err);
    s = d.GetPort(back, &bytes, &address, &err);
    int32_t values[4] = {back[0], back[1], back[2], back[3]};
    p.Line("SetPort+GetPort", s, st, err, Numbers(values, 4), true);
  }
  {
    int32_t service = 0x101;
    uint8_t data[64] = {};
    int32_t sendSize = 0;
    int32_t receiveSize = 64;
    err = -1;
    s = d.kaVDoService(&service, data, &sendSize, &receiveSize, &err);
    int32_t values[64];
    for (int i = 0; i < 64; ++i) values[i] = data[i];
    p.Line("kaVDoService", s, st, err,
           "service=" + std::to_string(service) + " " + Numbers(values, receiveSize > 0 && receiveSize <= 64 ? receiveSize : 0),
           link.kind == "demo");  // demonstration mode answers nothing
  }
  {
    int32_t demo = 5, log = 6;
    err = 7;
    s = d.kaVControll(&demo, &log, &err);
    p.Line("kaVControll", s, st, err, std::to_string(demo) + "," + std::to_string(log), true);
  }

  if (link.kind != "demo") {
    err = -1;
    s = d.kaVCloseComPort(0, &err);
    p.Line("kaVCloseComPort", s, st, err, "");
    int32_t version = 0;
    err = -1;
    s = d.kaVGetGatewayVersion(&version, &err);
    p.Line("kaVGetGatewayVersion(closed)", s, st, err, std::to_string(version));
  }
}

}  // namespace tamrik::scenario

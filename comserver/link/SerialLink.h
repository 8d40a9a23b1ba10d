// A COM port: the serial line behind the platform layer, with the Windows read time-outs.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "link/Link.h"
#include "platform/Platform.h"

namespace tamrik {

// The platform's device, closed when its owner goes.
struct SerialDeviceCloser {
  void operator()(platform::SerialDevice* device) const { platform::SerialClose(device); }
};
using SerialDevicePtr = std::unique_ptr<platform::SerialDevice, SerialDeviceCloser>;

// Where the device of a port number is found: the configuration file's port map, or a map of
// the driver's own when it was configured without a file.
struct SerialNaming {
  std::string configFile;
  std::map<int32_t, std::string> devices;
};

class SerialLink final : public Link {
 public:
  // Opens and configures port nPort at nBaud; on success *link holds the line. Result codes as
  // the open of a COM port reports them (0x10012, 0x10013, 0x10014, 0x10016, ...).
  static uint32_t Open(int32_t nPort, int32_t nBaud, uint8_t rtsControl, const SerialNaming& naming,
                       const PortTimings& timings, std::unique_ptr<Link>* link);

  // The rates a line may be opened at: 9600, 19200, 38400, 57600, 115200.
  static bool IsAllowedBaudrate(int32_t baud);

  uint32_t Read(uint8_t* buffer, int32_t length, ReadWait wait) override;
  uint32_t Write(const uint8_t* buffer, int32_t length) override;
  uint32_t ReadBoundMs() const override { return timings_.activeTotalConstant; }
  bool HasDeviceTimeouts() const override { return true; }
  void ApplyDeviceTimeouts() override;
  uint32_t Close() override;

 private:
  SerialLink(SerialDevicePtr device, const PortTimings& timings) : device_(std::move(device)), timings_(timings) {}

  SerialDevicePtr device_;
  const PortTimings& timings_;
};

}  // namespace tamrik

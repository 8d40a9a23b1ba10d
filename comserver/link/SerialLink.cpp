#include "link/SerialLink.h"

#include "ResultCodes.h"

namespace tamrik {

bool SerialLink::IsAllowedBaudrate(int32_t baud) {
  switch (baud) {
    case 9600:
    case 19200:
    case 38400:
    case 57600:
    case 115200:
      return true;
    default:
      return false;
  }
}

uint32_t SerialLink::Open(int32_t nPort, int32_t nBaud, uint8_t rtsControl, const SerialNaming& naming,
                          const PortTimings& timings, std::unique_ptr<Link>* link) {
  if (!IsAllowedBaudrate(nBaud)) return rc::kComBadBaudrate;
  platform::SerialOpenError error = platform::SerialOpenError::None;
  const auto mapped = naming.devices.find(nPort);
  SerialDevicePtr device(platform::SerialOpen(nPort, naming.configFile, &error,
                                              mapped != naming.devices.end() ? mapped->second : std::string()));
  if (!device) {
    switch (error) {
      case platform::SerialOpenError::NotFound:
        return rc::kComNoDevice;
      case platform::SerialOpenError::AccessDenied:
        return rc::kComAlreadyOpen;
      default:
        return rc::kComOpenFailed;
    }
  }
  // A device whose settings cannot be written is of no use; keeping it open would only make
  // every later open of the same port fail as "in use".
  if (!platform::SerialConfigure(device.get(), uint32_t(nBaud), uint8_t(rtsControl & 3))) {
    return rc::kComSettingsFailed;
  }
  auto serial = std::unique_ptr<SerialLink>(new SerialLink(std::move(device), timings));
  serial->ApplyDeviceTimeouts();
  *link = std::move(serial);
  return rc::kOk;
}

void SerialLink::ApplyDeviceTimeouts() {
  platform::SerialTimeouts timeouts;
  timeouts.readInterval = timings_.readInterval;
  timeouts.readTotalMultiplier = timings_.readTotalMultiplier;
  timeouts.readTotalConstant = timings_.activeTotalConstant;
  platform::SerialSetTimeouts(device_.get(), timeouts);
}

uint32_t SerialLink::Read(uint8_t* buffer, int32_t length, ReadWait) {
  // The line has no polling reads: its waits are bounded by the device's time-outs.
  if (length < 0) return rc::kReadFailed;
  uint32_t done = 0;
  if (!platform::SerialRead(device_.get(), buffer, uint32_t(length), &done)) return rc::kReadFailed;
  return done < uint32_t(length) ? rc::kReadShort : rc::kOk;
}

uint32_t SerialLink::Write(const uint8_t* buffer, int32_t length) {
  if (length < 0) return rc::kWriteFailed;
  uint32_t done = 0;
  if (!platform::SerialWrite(device_.get(), buffer, uint32_t(length), &done)) return rc::kWriteFailed;
  return done < uint32_t(length) ? rc::kWriteShort : rc::kOk;
}

uint32_t SerialLink::Close() {
  device_.reset();
  return rc::kOk;
}

}  // namespace tamrik

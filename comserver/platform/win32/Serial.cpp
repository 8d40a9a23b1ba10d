// The serial line on a Windows COM device: one synchronous handle, the line settings in the
// device's DCB and the read time-outs in its COMMTIMEOUTS, both changed field by field over
// what the device reported.
#include <windows.h>

#include <cstdio>

#include "platform/Platform.h"

namespace tamrik::platform {

struct SerialDevice {
  HANDLE handle = INVALID_HANDLE_VALUE;
};

SerialDevice* SerialOpen(int32_t port, const std::string& configFile, SerialOpenError* error,
                         const std::string& device) {
  SerialOpenError ignored;
  if (error == nullptr) error = &ignored;
  *error = SerialOpenError::None;
  // Room for any 32-bit number, the minus sign included.
  char name[32];
  std::snprintf(name, sizeof name, "\\\\.\\com%d", static_cast<int>(port));
  HANDLE handle = CreateFileA(device.empty() ? name : device.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              FILE_FLAG_WRITE_THROUGH, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    switch (GetLastError()) {
      case ERROR_FILE_NOT_FOUND: *error = SerialOpenError::NotFound; break;
      case ERROR_ACCESS_DENIED: *error = SerialOpenError::AccessDenied; break;
      default: *error = SerialOpenError::Other; break;
    }
    return nullptr;
  }
  return new SerialDevice{handle};
}

bool SerialConfigure(SerialDevice* device, uint32_t baudrate, uint8_t rtsControl) {
  if (device == nullptr) return false;
  DCB dcb{};
  dcb.DCBlength = sizeof dcb;
  // Some devices (a pseudo-terminal under wine among them) cannot report every field; what
  // they do report is kept and the rest stays zero.
  (void)GetCommState(device->handle, &dcb);
  dcb.DCBlength = 28;
  dcb.BaudRate = baudrate;
  dcb.fDtrControl = DTR_CONTROL_ENABLE;
  dcb.fRtsControl = rtsControl & 3;
  dcb.ByteSize = 8;
  dcb.Parity = NOPARITY;
  dcb.StopBits = ONESTOPBIT;
  dcb.XonLim = 0;
  dcb.XoffLim = 0;
  dcb.XonChar = 0;
  dcb.XoffChar = 0;
  return SetCommState(device->handle, &dcb) != FALSE;
}

void SerialSetTimeouts(SerialDevice* device, const SerialTimeouts& timeouts) {
  if (device == nullptr) return;
  COMMTIMEOUTS t{};
  (void)GetCommTimeouts(device->handle, &t);
  t.ReadIntervalTimeout = timeouts.readInterval;
  t.ReadTotalTimeoutMultiplier = timeouts.readTotalMultiplier;
  t.ReadTotalTimeoutConstant = timeouts.readTotalConstant;
  t.WriteTotalTimeoutMultiplier = MAXDWORD;
  t.WriteTotalTimeoutConstant = MAXDWORD;
  (void)SetCommTimeouts(device->handle, &t);
}

bool SerialRead(SerialDevice* device, uint8_t* buffer, uint32_t length, uint32_t* done) {
  uint32_t ignored;
  if (done == nullptr) done = &ignored;
  *done = 0;
  if (device == nullptr || (buffer == nullptr && length > 0)) return false;
  DWORD n = 0;
  const BOOL ok = ReadFile(device->handle, buffer, length, &n, nullptr);
  *done = n;
  return ok != FALSE;
}

bool SerialWrite(SerialDevice* device, const uint8_t* buffer, uint32_t length, uint32_t* done) {
  uint32_t ignored;
  if (done == nullptr) done = &ignored;
  *done = 0;
  if (device == nullptr || (buffer == nullptr && length > 0)) return false;
  DWORD n = 0;
  const BOOL ok = WriteFile(device->handle, buffer, length, &n, nullptr);
  *done = n;
  return ok != FALSE;
}

void SerialClose(SerialDevice* device) {
  if (device == nullptr) return;
  CloseHandle(device->handle);
  delete device;
}

}  // namespace tamrik::platform

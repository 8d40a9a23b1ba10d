// The thin layer between the driver and the operating system. The driver logic calls only
// these functions; posix/ and win32/ each implement them once. Results are plain values so
// that the logic above maps them onto the driver's result codes in one place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tamrik::platform {

// --- debug output ----------------------------------------------------------------------

// One call is one piece of debugger output; no line end is added. The text is 8-bit text in
// code page 1252.
void OutputDebugText(const char* text);

// Linux: installs a process-wide receiver of every debug output call (null restores the
// default, which writes each call to stderr as one UTF-8 line). Windows: the sink gets every
// call as well; the debugger keeps getting them.
using DebugSink = void (*)(void* context, const char* text);
void SetDebugSink(DebugSink sink, void* context);

// Shows a message box with OK and Cancel (the answer is not used). Where there is no window
// system the caption and text go to the debug output instead.
void ShowMessageBox(const char* caption, const char* text);

// --- files ------------------------------------------------------------------------------

// The length of an open file in bytes, leaving it positioned at its end; -1 when it cannot be
// told. Files beyond 2 GiB are told right on every platform.
int64_t FileLength(FILE* file);

// --- module -----------------------------------------------------------------------------

// Directory of the loaded driver module, with its trailing separator, or empty when it
// cannot be found.
std::string ModuleDirectory();

// Whether path names an existing directory, and whether this process may create files in it.
bool DirectoryExists(const std::string& path);
bool DirectoryWritable(const std::string& path);

// Where a user's own configuration goes when the module's directory is not writable:
// $TAMRIK_CONFIG_DIR, else $XDG_CONFIG_HOME/tamrik, else ~/.config/tamrik (%APPDATA%\tamrik on
// Windows). Made, with its missing parents, when it does not exist; with its trailing
// separator, or empty when none can be had.
std::string UserConfigDirectory();

// --- time --------------------------------------------------------------------------------

void SleepMs(uint32_t ms);
uint64_t MonotonicMs();

// --- profile files (the semantics of the Windows private profile functions) --------------

// Integer value of key in section: leading blanks, an optional sign and the leading digits;
// def when the file, the section or the key is missing or the value is empty.
uint32_t ProfileGetInt(const char* section, const char* key, int32_t def, const std::string& file);

// Copies the value (or def) into buffer, at most size - 1 characters and a terminating zero;
// returns the number of characters copied. Names are compared without regard to case.
uint32_t ProfileGetString(const char* section, const char* key, const char* def, char* buffer,
                          uint32_t size, const std::string& file);

// Writes key = value into section, creating the file and the section as needed and keeping
// everything else. Returns false when the file cannot be written.
bool ProfileWriteString(const char* section, const char* key, const char* value,
                        const std::string& file);

// --- serial line ---------------------------------------------------------------------------

struct SerialDevice;  // opaque: a device handle and what the platform keeps beside it

enum class SerialOpenError { None, NotFound, AccessDenied, Other };

// Opens COM port `port` exclusively. configFile names the driver's configuration file, in
// which a platform may look up the device that stands for the port number; a non-empty
// device names it directly (a driver configured without a file).
SerialDevice* SerialOpen(int32_t port, const std::string& configFile, SerialOpenError* error,
                         const std::string& device = {});

// Sets 8 data bits, no parity, one stop bit, DTR raised, RTS by rtsControl (two low bits:
// 0 off, 1 on, 2 handshake, 3 toggle) and the baud rate, leaving every other setting as the
// device reported it. False when the settings cannot be written.
bool SerialConfigure(SerialDevice* device, uint32_t baudrate, uint8_t rtsControl);

// Read time-outs with the meaning of the Windows serial driver: a read ends when all bytes
// arrived, when more than interval ms pass between two bytes (0: no interval limit), or
// when multiplier * length + constant ms have passed (both 0: no total limit).
struct SerialTimeouts {
  uint32_t readInterval = 0;
  uint32_t readTotalMultiplier = 0;
  uint32_t readTotalConstant = 0;
};
void SerialSetTimeouts(SerialDevice* device, const SerialTimeouts& timeouts);

// One synchronous transfer of exactly length bytes. False when the transfer failed (also
// when the line hung up, e.g. the other end of a pseudo-terminal closed); else *done tells
// how many bytes were moved (fewer on a read time-out).
bool SerialRead(SerialDevice* device, uint8_t* buffer, uint32_t length, uint32_t* done);
bool SerialWrite(SerialDevice* device, const uint8_t* buffer, uint32_t length, uint32_t* done);

void SerialClose(SerialDevice* device);

// --- sockets (IPv4) -------------------------------------------------------------------------

using SocketHandle = intptr_t;
inline constexpr SocketHandle kInvalidSocket = -1;

// Errors are Windows Sockets numbers on every platform (10035 would block, 10054 reset, ...).
int32_t NetStartup(uint8_t major, uint8_t minor);  // 0 or the startup's error
void NetCleanup();
int32_t SocketLastError();  // the calling thread's last socket error

SocketHandle SocketCreate(bool datagram);  // kInvalidSocket on failure (SocketLastError)
void SocketSetNonBlocking(SocketHandle s);
int32_t SocketBind(SocketHandle s, uint32_t addressNetworkOrder, uint16_t port);     // 0 or error
int32_t SocketConnect(SocketHandle s, uint32_t addressNetworkOrder, uint16_t port);  // 0 or error

// Sends length bytes in one call: the number of bytes sent, or minus the error.
int32_t SocketSend(SocketHandle s, const uint8_t* buffer, uint32_t length);

// Receives at most length bytes (one datagram on a datagram socket) without waiting when the
// socket is non-blocking: the number of bytes, or minus the error (minus 10035 when nothing
// is there; minus 10040 when a datagram was longer than length and was cut). 0 on a stream
// socket means the peer closed the connection; what that is worth is the caller's call. A
// connection that failed (refused, reset) reports so to every later send and receive.
int32_t SocketRecv(SocketHandle s, uint8_t* buffer, uint32_t length);

// Receives like SocketRecv, but waits up to timeoutMs for something to arrive, whether the
// socket is blocking or not: minus 10035 when nothing came in time (or a signal cut the
// wait short; the caller keeps its own deadline). Sends and receives without a wait stay
// without one.
int32_t SocketRecvWait(SocketHandle s, uint8_t* buffer, uint32_t length, uint32_t timeoutMs);

// Waits until the socket has data or an error to report, at most timeoutMs: 1 ready,
// 0 time-out, minus the error.
int32_t SocketWaitReadable(SocketHandle s, uint32_t timeoutMs);

// Waits until a connection in progress is made or has failed, at most timeoutMs: 0 when it
// was made or is still being made, else the error it failed with (10061 refused, ...), which
// later sends and receives report as well.
int32_t SocketWaitConnected(SocketHandle s, uint32_t timeoutMs);

void SocketClose(SocketHandle s);

}  // namespace tamrik::platform

// What every command of the tool shares: the options, the session with its driver object,
// the result document, and the one way a failing call ends the run.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Session.h"

namespace CLI {
class App;
}

namespace tamrik::cli {

// A result document: members stay in the order a command sets them, which is also the order
// of the lines of its text rendering.
using Json = nlohmann::ordered_json;

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;        // a driver call failed, or a check after it
inline constexpr int kExitUsage = 2;         // the run could not be set up as asked
inline constexpr int kExitInterrupted = 130;  // stopped by SIGINT or SIGTERM

// The driver's out-value when an answer does not fit the caller's array.
inline constexpr uint32_t kAnswerTooLong = 0x10053;

// A driver call that failed: ends the command; main prints it and exits with kExitFailed.
// A code of 0 is a check of the tool's own after the calls (the note says which).
struct CallFailed : std::runtime_error {
  CallFailed(std::string method, uint32_t code, std::string note = {})
      : std::runtime_error(method), method(std::move(method)), code(code), note(std::move(note)) {}
  std::string method;
  uint32_t code;
  std::string note;
};

// A wrong argument noticed after parsing; main prints it and exits with kExitUsage.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// SIGINT or SIGTERM ended a command that cleaned up after itself; the message says how.
struct Interrupted : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// {"code": N, "name": ..., "text": ...} as the driver names the code.
Json ErrorObject(uint32_t code);
// ErrorObject with the method that returned the code.
Json MethodError(const CallFailed& failure);
// "0x28101 Refused: the gateway refused ..."
std::string FormatCode(uint32_t code);

struct Context {
  LinkOptions link;
  bool json = false;
  bool noProgress = false;
  bool yes = false;         // --yes: changes to a gateway on a real link are wanted
  bool linkGiven = false;   // one of --serial, --tcp, --udp, --demo, --sim
  const CLI::App* app = nullptr;  // the whole command line, for help
  Json result = Json::object();
  bool printed = false;     // the command printed its text itself
  int status = kExitOk;     // a command that ends well but reports failures sets kExitFailed

  // Sets up the session (once) and opens its link unless told not to.
  Session& Connect(Purpose purpose = Purpose::Gateway, bool open = true);
  Session* session() const { return session_.get(); }
  // A link to equipment: neither the built-in simulator nor demonstration data.
  bool RealLink() const { return !link.sim && !link.demo; }
  // Changes to the gateway may be made: the link is simulated or demonstration data, or
  // --yes was given.
  bool ChangesAllowed() const { return !RealLink() || yes; }
  // Ends the command before anything is sent; change says what would have been done
  // ("write 01 02 to the output image").
  [[noreturn]] void RefuseChange(const std::string& change) const;
  // Text for a person, only without --json.
  void Say(const std::string& text) const;
  // Progress bars may be drawn: stdout is a terminal, no --json, no --no-progress.
  bool Interactive() const;

  std::unique_ptr<Session> session_;
};

// The link as named by the options, before any session exists ("TCP 10.0.0.7:5020").
std::string LinkText(const LinkOptions& link);

// Ends the command with CallFailed unless the call succeeded: the out-value is the result
// code; a call that leaves it 0 but returns a status of its own (busy) fails with that. The
// out-value is taken by reference so that Check(name, call(&error), error) reads it after
// the call, whatever the order in which the arguments are evaluated.
void Check(const char* method, uint32_t status, const int32_t& error);

// A method that receives values (or characters) into the caller's array: called with the
// array's real capacity, and once more with the room it asked for when the answer did not
// fit. Returns what was delivered; texts arrive in UTF-8 (the driver's are code page 1252).
using ReceiveCall = std::function<uint32_t(int32_t* data, int32_t* count, int32_t* error)>;
std::vector<int32_t> ReceiveValues(const char* method, size_t capacity, const ReceiveCall& call);
using ReceiveTextCall = std::function<uint32_t(char* text, int32_t* count, int32_t* error)>;
std::string ReceiveText(const char* method, size_t capacity, const ReceiveTextCall& call);

// Hexadecimal bytes: "01 02", "0102", "0x01,0x02", "1:2:ff"; throws UsageError.
std::vector<uint8_t> ParseBytes(const std::vector<std::string>& args);
// The one reading of a number the tool has: decimal or 0x hexadecimal, an optional sign,
// nothing after it, within [low, high]. A value that does not fit is refused, never cut.
bool ParseInteger(std::string_view text, int64_t low, int64_t high, int64_t* value);
// ParseInteger, or UsageError "WHAT 'TEXT' is not a number from LOW to HIGH".
int64_t ParseNumber(const std::string& text, const std::string& what, int64_t low, int64_t high);

// Values of the interface (one byte each) to bytes and back.
std::vector<uint8_t> ValuesToBytes(const std::vector<int32_t>& values);
std::vector<int32_t> BytesToValues(const std::vector<uint8_t>& bytes);

// "1d 01:01:01"
std::string FormatDuration(int32_t days, int32_t hours, int32_t minutes, int32_t seconds, int32_t ms = -1);

// SIGINT and SIGTERM set a flag while a Stoppable lives, instead of ending the process, so
// that a long command can finish its work (cancel a download, print a summary).
class Stoppable {
 public:
  Stoppable();
  ~Stoppable();
  Stoppable(const Stoppable&) = delete;
  Stoppable& operator=(const Stoppable&) = delete;
  static bool Requested();
  // Sleeps up to ms, less when a stop is asked for.
  static void Sleep(int64_t ms);
};

// A method that reads an array of byte values, and one that sends the array and receives its
// answer into it (the request's length is also the room for the answer).
using ArrayCall = uint32_t (*)(tamrik_com*, int32_t*, int32_t*, int32_t*);
std::vector<uint8_t> ReadArray(Context& ctx, const char* method, ArrayCall call);
std::vector<uint8_t> Exchange(Context& ctx, const char* method, ArrayCall call, const std::vector<uint8_t>& request);

// Reads shared by several commands. ReadIdentity reads every part it can; the parts that
// failed hold {"error": {...}} and are listed in *failures (method and code).
Json ReadIdentity(Context& ctx, std::vector<CallFailed>* failures);
Json ReadModules(Context& ctx);
std::vector<uint8_t> ReadInputs(Context& ctx);
std::vector<uint8_t> ReadOutputs(Context& ctx);
std::vector<uint8_t> WriteOutputs(Context& ctx, const std::vector<uint8_t>& bytes);
// Image download with its progress bar; returns the number of blocks sent. quarters: without a
// terminal, print the bar as a line at every quarter. SIGINT or SIGTERM cancels it. The
// caller has passed the --yes guard.
int64_t DownloadImage(Context& ctx, const std::string& file, int32_t startAddress, bool quarters,
                      const std::string& label = "image");

}  // namespace tamrik::cli

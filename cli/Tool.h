// What every command of the tool shares: the options, the session with its driver object,
// the result document, and the one way a failing call ends the run.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Json.h"
#include "ResultNames.h"
#include "Session.h"

namespace CLI {
class App;
}

namespace tamrik::cli {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // a driver call failed, or a check after it
inline constexpr int kExitUsage = 2;   // the run could not be set up as asked

// A driver call that failed: ends the command; main prints it and exits with kExitFailed.
struct CallFailed : std::runtime_error {
  CallFailed(std::string method, uint32_t code, ResultContext context, std::string note = {})
      : std::runtime_error(method), method(std::move(method)), code(code), context(context), note(std::move(note)) {}
  std::string method;
  uint32_t code;
  ResultContext context;
  std::string note;
};

// A wrong argument noticed after parsing; main prints it and exits with kExitUsage.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Context {
  LinkOptions link;
  bool json = false;
  bool noProgress = false;
  bool linkGiven = false;   // one of --serial, --tcp, --udp, --demo, --sim
  std::function<void(Context&)> run;  // the chosen command
  std::string commandName;
  Json result = Json::Object();
  bool printed = false;     // the command printed its text itself

  // Sets up the session (once) and opens its link unless told not to.
  Session& Connect(Purpose purpose = Purpose::Gateway, bool open = true);
  Session* session() const { return session_.get(); }
  bool simulated() const { return session_ && (session_->simulator() != nullptr || session_->loader() != nullptr); }
  // Text for a person, only without --json.
  void Say(const std::string& text) const;
  // Progress bars may be drawn: stdout is a terminal, no --json, no --no-progress.
  bool Interactive() const;

  std::unique_ptr<Session> session_;
};

// Ends the command with CallFailed unless the call succeeded: the out-value is the result
// code; a call that leaves it 0 but returns a status of its own (busy) fails with that. The
// out-value is taken by reference so that Check(name, call(&error), error) reads it after
// the call, whatever the order in which the arguments are evaluated.
void Check(const char* method, uint32_t status, const int32_t& error, ResultContext context = ResultContext::Any);

// Hexadecimal bytes: "01 02", "0102", "0x01,0x02", "1:2:ff"; throws UsageError.
std::vector<uint8_t> ParseBytes(const std::vector<std::string>& args);
// Decimal or 0x hexadecimal, within [low, high]; throws UsageError naming what.
int64_t ParseNumber(const std::string& text, const char* what, int64_t low, int64_t high);

// Values of the interface (one byte each) to bytes and back.
std::vector<uint8_t> ValuesToBytes(const int32_t* values, int32_t count);
std::vector<int32_t> BytesToValues(const std::vector<uint8_t>& bytes);

// Diagnosis bytes of a module by bits 12 to 15 of its identifier.
int32_t DiagLength(uint32_t moduleId);

// "1d 01:01:01"
std::string FormatDuration(int32_t days, int32_t hours, int32_t minutes, int32_t seconds, int32_t ms = -1);

// The command groups register their subcommands here.
void AddGatewayCommands(CLI::App& app, Context& ctx);
void AddDataCommands(CLI::App& app, Context& ctx);
void AddDownloadCommands(CLI::App& app, Context& ctx);
void AddDemoCommand(CLI::App& app, Context& ctx);
void RunTour(Context& ctx);

// Reads shared by several commands.
Json ReadIdentity(Context& ctx);
Json ReadModules(Context& ctx);
std::vector<uint8_t> ReadInputs(Context& ctx);
std::vector<uint8_t> ReadOutputs(Context& ctx);
std::vector<uint8_t> WriteOutputs(Context& ctx, const std::vector<uint8_t>& bytes);
// Image download with its progress bar; returns the number of blocks sent. quarters: without a
// terminal, print the bar as a line at every quarter.
int64_t DownloadImage(Context& ctx, const std::string& file, int32_t startAddress, bool quarters,
                      const std::string& label = "image");

}  // namespace tamrik::cli

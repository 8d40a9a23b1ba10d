// The tool's commands as one table: name, summary, arguments, whether a run changes the
// gateway, and the handler. The argument parser's setup, `help COMMAND`, the --yes guard, the
// man page and the bash completion are all made from it, so none of them can forget a command.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Tool.h"

namespace tamrik::cli {

enum class Kind {
  Word,    // one word, one of choices when they are given
  Words,   // any number of words (count: exactly that many when given)
  Number,  // one number within [low, high]
  Bytes,   // hexadecimal bytes, in any number of words
  Flag,    // an option without a value
};

struct Argument {
  const char* name;  // "MODE" for a positional, "-n,--count" for an option
  const char* help;
  Kind kind = Kind::Word;
  bool required = false;
  std::vector<std::string> choices = {};
  int64_t low = 0;
  int64_t high = 0;
  const char* fallback = "";  // the value when it is not given
  const char* type = "";      // the value's name in help; PATH also completes file names
  int count = 0;
};

// The arguments of the command being run, read after the parser's checks: numbers within
// their ranges, bytes parsed, fallbacks in place. Options are named by their long name
// ("--count"), positionals by their own.
class Args {
 public:
  bool Has(const std::string& name) const;
  // The first word, or "" when there is none.
  std::string Word(const std::string& name) const;
  const std::vector<std::string>& Words(const std::string& name) const;
  int64_t Number(const std::string& name) const;
  const std::vector<uint8_t>& Bytes(const std::string& name) const;

  struct Value {
    bool given = false;
    std::vector<std::string> words;
    int64_t number = 0;
    std::vector<uint8_t> bytes;
  };
  void Set(const std::string& name, Value value) { values_[name] = std::move(value); }

 private:
  const Value& Get(const std::string& name) const;
  std::map<std::string, Value> values_;
};

// When a run changes the gateway, and what it would change, for the refusal without --yes.
struct Change {
  // The argument that makes a run a change; empty: every run changes.
  const char* when = "";
  // With when: only these words of it do (tr clear); empty: its presence does.
  std::vector<std::string> actions = {};
  // What a run would change, for the refusal: always the same ("clear the TR buffer"), or made
  // from the arguments ("write 01 02 to the output image"). Neither: the command changes nothing.
  const char* text = nullptr;
  std::string (*what)(const Args&) = nullptr;

  bool Never() const { return text == nullptr && what == nullptr; }
};

using Handler = void (*)(Context&, const Args&);

struct Command {
  const char* name;  // "stream write" for a command of a group
  const char* summary;
  std::vector<Argument> arguments = {};
  Change change = {};
  Handler run = nullptr;  // null: a group whose commands follow it
};

// The table, in the order of --help.
const std::vector<Command>& CommandTable();

// The commands that change a gateway and the forms that do ("outputs BYTES", "tr clear").
std::string ChangingCommands();

// Whether this run of the command changes the gateway.
bool Changes(const Command& command, const Args& args);
// What this run would change, for the refusal without --yes.
std::string ChangeText(const Command& command, const Args& args);

// The known name closest to word, or empty when none is close enough to be a likely typo.
std::string ClosestName(const std::string& word, const std::vector<std::string>& names);

// Identity and state (CommandsGateway.cpp).
void Info(Context& ctx, const Args& args);
void Modules(Context& ctx, const Args& args);
void Errors(Context& ctx, const Args& args);
void Clock(Context& ctx, const Args& args);
void Switches(Context& ctx, const Args& args);
void Reset(Context& ctx, const Args& args);
void OperationMode(Context& ctx, const Args& args);
void StationAddress(Context& ctx, const Args& args);
void Leds(Context& ctx, const Args& args);
void FieldBus(Context& ctx, const Args& args);
void TrBuffer(Context& ctx, const Args& args);
void ServiceBaud(Context& ctx, const Args& args);
// Process data, diagnosis, stream data (CommandsData.cpp).
void Inputs(Context& ctx, const Args& args);
void Outputs(Context& ctx, const Args& args);
void Parameters(Context& ctx, const Args& args);
void Diagnosis(Context& ctx, const Args& args);
void StreamSizes(Context& ctx, const Args& args);
void StreamPosition(Context& ctx, const Args& args);
void StreamWrite(Context& ctx, const Args& args);
// Monitoring, DeviceNet, raw access, privileged mode (CommandsRaw.cpp).
void Monitor(Context& ctx, const Args& args);
void DeviceNet(Context& ctx, const Args& args);
void Service(Context& ctx, const Args& args);
void Block(Context& ctx, const Args& args);
void Privileged(Context& ctx, const Args& args);
// watch (CommandsWatch.cpp).
void Watch(Context& ctx, const Args& args);
// serve (CommandsServe.cpp).
void Serve(Context& ctx, const Args& args);
// Downloads (CommandsDownload.cpp); the boot files come from the arguments or from --ini.
void Firmware(Context& ctx, const Args& args);
void Boot(Context& ctx, const Args& args);
void Image(Context& ctx, const Args& args);
std::vector<std::string> BootFiles(const Args& args);
// image: whether --cancel was asked for; UsageError unless one of FILE and --cancel is given.
bool CancelAsked(const Args& args);
// The tour (Demo.cpp).
void Tour(Context& ctx, const Args& args);
// decode: frames of a trace or of hexadecimal bytes (CommandsDecode.cpp).
void Decode(Context& ctx, const Args& args);
// codes and help (CommandLine.cpp).
void Codes(Context& ctx, const Args& args);
void Help(Context& ctx, const Args& args);

}  // namespace tamrik::cli

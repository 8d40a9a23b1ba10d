// Every command of the tool, in the order of --help.
#include <algorithm>
#include <filesystem>

#include "Commands.h"
#include "Render.h"

namespace tamrik::cli {
namespace {

const std::vector<std::string> kBaudRates = {"9600", "19200", "38400", "57600", "115200"};

std::string ImageChange(const Args& args) {
  if (CancelAsked(args)) return "cancel the image download in progress";
  std::error_code ec;
  const auto length = std::filesystem::file_size(args.Word("FILE"), ec);
  return "download the image " + args.Word("FILE") + (ec ? "" : " (" + std::to_string(length) + " bytes)");
}

std::string BootChange(const Args& args) {
  const std::vector<std::string> names = BootFiles(args);
  const bool withoutSetCtx = names[1].empty() || names[1] == "-";
  return "load the boot-loader chain (" + names[0] + ", " + (withoutSetCtx ? "no SetCtx" : names[1]) + ", " + names[2] +
         ", " + names[3] + ")";
}

std::string ServiceChange(const Args& args) {
  return "send the raw service " + HexText(uint64_t(args.Number("CODE")), 1) + " with " +
         std::to_string(args.Bytes("BYTES").size()) + " data bytes";
}

std::string AddressChange(const Args& args) {
  const std::string address = std::to_string(args.Number("ADDRESS"));
  // The driver has no service of its own for the address and sends the operation-mode one.
  return "set the station address to " + address +
         " (the request carries the operation-mode service code 262, so the gateway may take " + address +
         " for a new operation mode)";
}

const std::vector<Command> kCommands = {
    // --- identity and state
    {.name = "info",
     .summary = "Identity, versions, station address, gateway id, operation mode, switches, clock",
     .run = Info},
    {.name = "modules",
     .summary = "Module list: identifiers, status, software revision, type, diagnosis size",
     .run = Modules},
    {.name = "errors", .summary = "The gateway's error list: code, duration, extra bytes", .run = Errors},
    {.name = "clock", .summary = "The gateway's clock (time since start)", .run = Clock},
    {.name = "switches", .summary = "Current positions of the gateway's switches", .run = Switches},
    {.name = "reset",
     .summary = "Hardware reset of the gateway (changes the gateway)",
     .change = {.text = "reset the gateway (hardware reset)"},
     .run = Reset},
    {.name = "opmode",
     .summary = "Read the operation mode, or set it to MODE and read it back",
     .arguments = {{.name = "MODE", .help = "New operation mode (0 to 255)", .kind = Kind::Number, .high = 255}},
     .change = {.when = "MODE",
                .what = [](const Args& a) { return "set the operation mode to " + std::to_string(a.Number("MODE")); }},
     .run = OperationMode},
    {.name = "address",
     .summary = "Read the station address, or set it to ADDRESS and read it back (sent with the operation-mode service)",
     .arguments = {{.name = "ADDRESS", .help = "New station address (0 to 255)", .kind = Kind::Number, .high = 255}},
     .change = {.when = "ADDRESS", .what = AddressChange},
     .run = StationAddress},
    // --- control
    {.name = "leds",
     .summary = "Set the gateway's LEDs to VALUE (16 bits)",
     .arguments = {{.name = "VALUE", .help = "LED pattern, e.g. 0x0102", .kind = Kind::Number, .required = true,
                    .high = 0xFFFF}},
     .change = {.what = [](const Args& a) { return "set the LEDs to " + HexText(uint64_t(a.Number("VALUE")), 4); }},
     .run = Leds},
    {.name = "fbi",
     .summary = "Start or reset the gateway's field-bus interface",
     .arguments = {{.name = "ACTION", .help = "start or reset", .required = true, .choices = {"start", "reset"}}},
     .change = {.what = [](const Args& a) { return a.Word("ACTION") + " the field-bus interface"; }},
     .run = FieldBus},
    {.name = "tr",
     .summary = "Read (default) or clear the gateway's TR buffer",
     .arguments = {{.name = "ACTION", .help = "read or clear", .choices = {"read", "clear"}, .fallback = "read"}},
     .change = {.when = "ACTION",
                .actions = {"clear"},
                .text = "clear the TR buffer"},
     .run = TrBuffer},
    {.name = "service-baud",
     .summary = "Set the baud rate of the gateway's service interface; the line keeps its own",
     .arguments = {{.name = "RATE", .help = "9600, 19200, 38400, 57600 or 115200", .kind = Kind::Number,
                    .required = true, .choices = kBaudRates, .low = 9600, .high = 115200}},
     .change = {.what = [](const Args& a) {
       return "set the service interface's baud rate to " + std::to_string(a.Number("RATE"));
     }},
     .run = ServiceBaud},
    // --- process data and diagnosis
    {.name = "inputs", .summary = "Read the input process image", .run = Inputs},
    {.name = "outputs",
     .summary = "Read the output process image, or write BYTES and read it back",
     .arguments = {{.name = "BYTES", .help = "Hexadecimal bytes: 01 FF, 01FF or 0x01,0xFF", .kind = Kind::Bytes}},
     .change = {.when = "BYTES",
                .what = [](const Args& a) { return "write " + BytesText(a.Bytes("BYTES")) + " to the output image"; }},
     .run = Outputs},
    {.name = "params",
     .summary = "Read the module parameters, or write BYTES and read them back",
     .arguments = {{.name = "BYTES", .help = "Hexadecimal bytes: 01 FF, 01FF or 0x01,0xFF", .kind = Kind::Bytes}},
     .change = {.when = "BYTES",
                .what = [](const Args& a) { return "write " + BytesText(a.Bytes("BYTES")) + " to the module parameters"; }},
     .run = Parameters},
    {.name = "diag", .summary = "Read the diagnosis, split into the gateway's and each module's bytes", .run = Diagnosis},
    // --- stream data
    {.name = "stream", .summary = "Module stream data: sizes, position A B, write HEADER SEGLEN BYTES"},
    {.name = "stream sizes", .summary = "Read the list of stream data sizes", .run = StreamSizes},
    {.name = "stream position",
     .summary = "Set the stream position to the two bytes A B",
     .arguments = {{.name = "A", .help = "First byte", .kind = Kind::Number, .required = true, .high = 255},
                   {.name = "B", .help = "Second byte", .kind = Kind::Number, .required = true, .high = 255}},
     .change = {.what = [](const Args& a) {
       return "set the stream position to " + BytesText({uint8_t(a.Number("A")), uint8_t(a.Number("B"))});
     }},
     .run = StreamPosition},
    {.name = "stream write",
     .summary = "Write BYTES in segments of SEGLEN bytes, each opened by HEADER",
     .arguments = {{.name = "HEADER", .help = "Header byte of every segment", .kind = Kind::Number, .required = true,
                    .high = 255},
                   {.name = "SEGLEN", .help = "Data bytes per segment, 1 to 19", .kind = Kind::Number, .required = true,
                    .low = 1, .high = 19},
                   {.name = "BYTES", .help = "1 to 127 hexadecimal data bytes", .kind = Kind::Bytes, .required = true}},
     .change = {.what = [](const Args& a) {
       return "write " + std::to_string(a.Bytes("BYTES").size()) + " bytes of module stream data";
     }},
     .run = StreamWrite},
    // --- monitoring, DeviceNet
    {.name = "monitor",
     .summary = "Service monitoring: reset, start, stop, first [BYTES], next [BYTES]",
     .arguments = {{.name = "ACTION", .help = "One of: reset, start, stop, first, next", .required = true,
                    .choices = {"reset", "start", "stop", "first", "next"}},
                   {.name = "BYTES", .help = "Request bytes of first and next", .kind = Kind::Bytes}},
     .change = {.when = "ACTION",
                .actions = {"reset", "start", "stop"},
                .what = [](const Args& a) { return a.Word("ACTION") + " the service monitoring"; }},
     .run = Monitor},
    {.name = "dnet",
     .summary = "DeviceNet: serial, tool, get BYTES, set BYTES (class, instance, attribute[, value])",
     .arguments = {{.name = "ACTION", .help = "One of: serial, tool, get, set", .required = true,
                    .choices = {"serial", "tool", "get", "set"}},
                   {.name = "BYTES", .help = "Attribute address bytes, and for set the value bytes after them",
                    .kind = Kind::Bytes}},
     .change = {.when = "ACTION",
                .actions = {"set"},
                .what = [](const Args& a) { return "write the DeviceNet attribute " + BytesText(a.Bytes("BYTES")); }},
     .run = DeviceNet},
    {.name = "privileged",
     .summary = "Privileged mode: enter DESCRIPTION, channel, name",
     .arguments = {{.name = "ACTION", .help = "One of: enter, channel, name", .required = true,
                    .choices = {"enter", "channel", "name"}},
                   {.name = "DESCRIPTION", .help = "How the host describes itself (enter)", .kind = Kind::Words}},
     .change = {.when = "ACTION",
                .actions = {"enter"},
                .text = "enter privileged mode"},
     .run = Privileged},
    // --- raw access
    {.name = "service",
     .summary = "Send service CODE with BYTES and show the raw answer",
     .arguments = {{.name = "CODE", .help = "Service code, e.g. 0x101 or 257 (0x10000 switches to polling mode)",
                    .kind = Kind::Number, .required = true, .high = 0x10000},
                   {.name = "BYTES", .help = "Request data, hexadecimal bytes", .kind = Kind::Bytes},
                   {.name = "--receive", .help = "Most answer bytes taken", .kind = Kind::Number, .low = 1,
                    .high = 65535, .fallback = "1024", .type = "N"}},
     .change = {.what = ServiceChange},
     .run = Service},
    {.name = "block",
     .summary = "Raw bytes on the line, no frame: write BYTES, read N",
     .arguments = {{.name = "ACTION", .help = "write or read", .required = true, .choices = {"write", "read"}},
                   {.name = "ARGS", .help = "write: hexadecimal bytes; read: number of bytes", .kind = Kind::Words},
                   {.name = "--read", .help = "After a write, read this many bytes", .kind = Kind::Number,
                    .high = 4096, .fallback = "0", .type = "N"}},
     .change = {.when = "ACTION",
                .actions = {"write"},
                .what = [](const Args& a) {
                  return "write " + std::to_string(ParseBytes(a.Words("ARGS")).size()) + " raw bytes to the line";
                }},
     .run = Block},
    // --- watch and downloads
    {.name = "watch",
     .summary = "Poll the inputs, show the bytes that changed, and a summary at the end",
     .arguments = {{.name = "-n,--count", .help = "Number of reads, 0 until Ctrl-C", .kind = Kind::Number,
                    .high = 1000000, .fallback = "10", .type = "COUNT"},
                   {.name = "-i,--interval", .help = "Milliseconds between reads", .kind = Kind::Number,
                    .high = 3600000, .fallback = "500", .type = "MS"},
                   {.name = "--csv", .help = "One CSV row a read: RFC 3339 time, read, ms, exchange ms, inputs, changed, error",
                    .kind = Kind::Flag},
                   {.name = "--reconnect",
                    .help = "After a failure, open the link again (waits from 100 ms doubling to 5 s) and go on",
                    .kind = Kind::Flag}},
     .run = Watch},
    {.name = "serve",
     .summary = "Poll many gateways at once, publish them to an MQTT broker and serve an HTTP interface with a live page",
     .arguments = {{.name = "--config", .help = "The service's TOML file: [[gateway]] tables, [mqtt], [http]",
                    .type = "PATH"},
                   {.name = "--sim", .help = "Serve N gateways of the built-in simulator (writable) instead",
                    .kind = Kind::Number, .low = 1, .high = 100000, .type = "N"},
                   {.name = "--mqtt", .help = "Publish to the broker at HOST:PORT (sets or overrides [mqtt])",
                    .type = "HOST:PORT"},
                   {.name = "--http", .help = "Listen on ADDR:PORT (default 127.0.0.1:8080; port 0 picks a free one)",
                    .type = "ADDR:PORT"}},
     .run = Serve},
    {.name = "firmware",
     .summary = "Firmware line download: FILE's records to the boot loader",
     .arguments = {{.name = "FILE", .help = "Firmware line file (records starting with ':')", .required = true,
                    .type = "PATH"}},
     .change = {.what = [](const Args& a) {
       return "load the firmware records of " + a.Word("FILE") + " into the boot loader";
     }},
     .run = Firmware},
    {.name = "boot",
     .summary = "Boot-loader chain over the serial line: BSL SETCTX BOOT FIRMWARE (SETCTX '-': none), or --ini FILE",
     .arguments = {{.name = "FILES", .help = "BSL, SetCtx, Boot and firmware line files", .kind = Kind::Words,
                    .type = "PATH", .count = 4},
                   {.name = "--ini", .help = "A kaVBoot.ini naming the four files (section BSL-Files)",
                    .type = "PATH"}},
     .change = {.what = BootChange},
     .run = Boot},
    {.name = "image",
     .summary = "Image download: FILE in blocks of 256 bytes; --cancel abandons one",
     .arguments = {{.name = "FILE", .help = "Binary image file (not empty)", .type = "PATH"},
                   {.name = "--start", .help = "Start address sent with the announcement (-1: none)",
                    .kind = Kind::Number, .low = -1, .high = 0xFFFFFFFFLL, .fallback = "-1", .type = "ADDR"},
                   {.name = "--cancel", .help = "Announce an empty image: abandons a download in progress",
                    .kind = Kind::Flag}},
     .change = {.what = ImageChange},
     .run = Image},
    // --- other
    {.name = "demo",
     .summary = "A short tour: identity, modules, live inputs, an output write read back, an image download",
     .change = {.text =
         "write a test pattern to the output image (restored afterwards) and download a 64 KiB test image"},
     .run = Tour},
    {.name = "decode",
     .summary = "Decode the frames of a driver trace (--trace output) or of hexadecimal bytes, one line a frame",
     .arguments = {{.name = "FILE", .help = "Trace or hexadecimal bytes; '-' or none: standard input", .type = "PATH"}},
     .run = Decode},
    {.name = "codes",
     .summary = "Explain result codes (the whole table: docs/result-codes.md)",
     .arguments = {{.name = "CODE", .help = "Result codes, decimal or 0x hexadecimal", .kind = Kind::Words,
                    .required = true}},
     .run = Codes},
    {.name = "help",
     .summary = "Help for one command, or for the tool",
     .arguments = {{.name = "COMMAND", .help = "The command, e.g. watch or 'stream write'", .kind = Kind::Words}},
     .run = Help},
};

}  // namespace

const std::vector<Command>& CommandTable() { return kCommands; }

bool Changes(const Command& command, const Args& args) {
  const Change& change = command.change;
  if (change.Never()) return false;
  if (*change.when == '\0') return true;
  if (change.actions.empty()) return args.Has(change.when);
  const std::string word = args.Word(change.when);
  return std::find(change.actions.begin(), change.actions.end(), word) != change.actions.end();
}

std::string ChangeText(const Command& command, const Args& args) {
  return command.change.what != nullptr ? command.change.what(args) : command.change.text;
}

std::string ChangingCommands() {
  std::string list;
  for (const Command& command : kCommands) {
    if (command.change.Never()) continue;
    std::string form = command.name;
    const Change& change = command.change;
    if (!change.actions.empty()) {
      std::string actions;
      for (const std::string& action : change.actions) actions += (actions.empty() ? "" : "|") + action;
      form += " " + actions;
    } else if (*change.when != '\0') {
      form += " " + std::string(change.when);
    }
    list += (list.empty() ? "" : ", ") + form;
  }
  return list;
}

}  // namespace tamrik::cli

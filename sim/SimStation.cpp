// Station defaults and the model file loader.
//
// Model file format: one "key = value" per line; blank lines and lines whose first
// non-blank character is '#' or ';' are ignored. Keys are not case sensitive. Keys before
// any section, or after a "[gateway]" line, describe the gateway; each "[module]" line
// opens a new module, and the first one replaces the default modules. Repeated keys
// (error, attribute, monitor_frame) add an entry each; their first use replaces the
// default entries.
//
//   numbers      decimal, or hexadecimal with 0x (gateway_id = 0x12345678)
//   bytes        hexadecimal bytes separated by blanks or commas (01 A0 ff)
//   text         the rest of the line, trimmed; "double quotes" keep outer blanks
//   yes/no       yes, no, true, false, on, off, 1, 0
//
// Gateway keys:
//   identity, boot_id, version_string, privileged_name, tool_ident, image_file   text
//   version, boot_version, switches, leds                                        number (16 bit)
//   gateway_id, privileged_channel, dnet_serial                                  number (32 bit)
//   station_address, operation_mode, service_baud_index                          number (8 bit)
//   boot_hw_info        numbers, 16-bit words
//   gateway_diagnosis   bytes: the gateway's own diagnosis bytes
//   tr_buffer           bytes
//   animate_inputs      yes/no
//   clock               number: a fixed clock in ms (no key: ms since start)
//   privileged_table    32 numbers, a permutation of 0..31
//   privileged_refusal  0x8000 or 0xC000
//   unknown_service     "silence", or 0x8000 / 0xC000 optionally followed by a data byte
//   attribute_key_length number of request bytes that name an attribute (default 3)
//   error               CODE DURATION_MS [extra bytes...]
//   attribute           KEY BYTES : VALUE BYTES   (for example 01 01 07 : 41 42)
//   monitor_frame       bytes
//
// Module keys:
//   id                  number, 24 bit
//   type                D or A
//   inputs, outputs, parameters, diagnosis   sizes in bytes (zero-filled); the diagnosis
//                       size defaults to what the identifier's bits 12 to 15 announce
//   input_data, output_data, parameter_data, diagnosis_data   bytes: content and size
//   status, sw_revision, type_code, stream_size               number (8 bit)
#include "SimStation.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <numeric>
#include <sstream>

#include "protocol/Codec.h"

namespace tamrik::sim {

namespace {
constexpr size_t kMaxText = 200;   // hosts receive identity texts into 200 values
constexpr size_t kMaxImage = 4096;  // per module image, plenty for a field-bus module
}  // namespace

uint16_t DiagLengthForId(uint32_t moduleId) { return uint16_t(protocol::DiagnosisLength(moduleId)); }

Module MakeModule(uint32_t id, char type, size_t inputs, size_t outputs, size_t parameters) {
  Module m;
  m.id = id & 0xFFFFFF;
  m.type = type;
  m.typeCode = type == 'A' ? 2 : 1;
  m.inputs.assign(inputs, 0);
  m.outputs.assign(outputs, 0);
  m.parameters.assign(parameters, 0);
  m.diagnosis.assign(DiagLengthForId(id), 0);
  return m;
}

Station DefaultStation() {
  Station s;
  s.modules.push_back(MakeModule(0x021101, 'D', 2, 2, 1));
  s.modules.push_back(MakeModule(0x045203, 'A', 4, 0, 4));
  s.modules.push_back(MakeModule(0x013004, 'D', 0, 1, 0));
  s.modules[1].streamSize = 16;

  s.identity = "TAMRIK-SIM GW-1";
  s.version = 0x0102;
  s.bootId = "TAMRIK-SIM BOOT";
  s.bootVersion = 0x0105;
  s.errors = {{0x11, 1000, {}}, {0x22, 10000, {0xAA, 0xBB}}};
  s.operationMode = 1;
  s.versionString = "TAMRIK-SIM 1.2.0";
  s.gatewayId = 0x12345678;
  s.stationAddress = 3;
  s.switches = 0x0003;
  s.bootHwInfo = {0x0001, 0x0200, 0x1000};
  s.gatewayDiagnosis = {0x00, 0x00};
  std::iota(s.privilegedTable.begin(), s.privilegedTable.end(), uint8_t(0));
  s.privilegedChannel = 1;
  s.privilegedName = "TAMRIK-SIM PRIV";
  s.dnetSerial = 0x01020304;
  s.toolIdent = "TAMRIK-SIM DNET";
  s.attributes[{0x01, 0x01, 0x07}] = {'S', 'I', 'M'};
  return s;
}

// --- loader ---------------------------------------------------------------------------

namespace {

struct ParseError {
  std::string message;
};

std::string Trim(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(uint8_t(s[b]))) ++b;
  while (e > b && std::isspace(uint8_t(s[e - 1]))) --e;
  return std::string(s.substr(b, e - b));
}

std::string Lower(std::string s) {
  for (char& c : s) c = char(std::tolower(uint8_t(c)));
  return s;
}

std::vector<std::string> Tokens(std::string_view s) {
  std::vector<std::string> out;
  std::string cur;
  for (char c : s) {
    if (std::isspace(uint8_t(c)) || c == ',') {
      if (!cur.empty()) out.push_back(std::move(cur));
      cur.clear();
    } else {
      cur += c;
    }
  }
  if (!cur.empty()) out.push_back(std::move(cur));
  return out;
}

uint64_t Number(std::string_view text, uint64_t max) {
  const std::string t = Trim(text);
  const std::optional<uint64_t> v = ParseNumber(t);
  if (!v) throw ParseError{"not a number: '" + t + "'"};
  if (*v > max) throw ParseError{"number too large: '" + t + "'"};
  return *v;
}

std::vector<uint8_t> Bytes(std::string_view text) {
  std::vector<uint8_t> out;
  for (const std::string& tok : Tokens(text)) {
    std::string_view d = tok;
    if (d.size() > 2 && d[0] == '0' && (d[1] == 'x' || d[1] == 'X')) d.remove_prefix(2);
    uint32_t v = 0;
    auto [ptr, ec] = std::from_chars(d.data(), d.data() + d.size(), v, 16);
    if (d.empty() || d.size() > 2 || ec != std::errc() || ptr != d.data() + d.size())
      throw ParseError{"not a hexadecimal byte: '" + tok + "'"};
    out.push_back(uint8_t(v));
  }
  return out;
}

bool YesNo(std::string_view text) {
  const std::string t = Lower(Trim(text));
  if (t == "yes" || t == "true" || t == "on" || t == "1") return true;
  if (t == "no" || t == "false" || t == "off" || t == "0") return false;
  throw ParseError{"expected yes or no: '" + t + "'"};
}

std::string Text(std::string_view raw) {
  std::string t = Trim(raw);
  if (t.size() >= 2 && t.front() == '"' && t.back() == '"') t = t.substr(1, t.size() - 2);
  if (t.size() > kMaxText) throw ParseError{"text longer than 200 characters"};
  return t;
}

uint16_t RefusalBase(std::string_view text) {
  const uint64_t v = Number(text, 0xFFFF);
  if (v != 0x8000 && v != 0xC000) throw ParseError{"refusal base must be 0x8000 or 0xC000"};
  return uint16_t(v);
}

std::vector<uint8_t> SizedImage(std::string_view text) {
  return std::vector<uint8_t>(size_t(Number(text, kMaxImage)), 0);
}

std::vector<uint8_t> ImageData(std::string_view text) {
  std::vector<uint8_t> b = Bytes(text);
  if (b.size() > kMaxImage) throw ParseError{"more than 4096 bytes"};
  return b;
}

class Loader {
 public:
  explicit Loader(Station s) : s_(std::move(s)) {}

  void Line(const std::string& line) {
    const std::string t = Trim(line);
    if (t.empty() || t[0] == '#' || t[0] == ';') return;
    if (t.front() == '[') {
      if (t.back() != ']') throw ParseError{"section line without ']'"};
      const std::string name = Lower(Trim(std::string_view(t).substr(1, t.size() - 2)));
      if (name == "module") {
        if (!modulesSeen_) s_.modules.clear();
        modulesSeen_ = true;
        s_.modules.push_back(MakeModule(0, 'D', 0, 0, 0));
        diagSizeGiven_ = false;
        inModule_ = true;
      } else if (name == "gateway") {
        inModule_ = false;
      } else {
        throw ParseError{"unknown section [" + name + "]"};
      }
      return;
    }
    const size_t eq = t.find('=');
    if (eq == std::string::npos) throw ParseError{"expected key = value"};
    const std::string key = Lower(Trim(std::string_view(t).substr(0, eq)));
    const std::string_view value = std::string_view(t).substr(eq + 1);
    if (inModule_)
      ModuleKey(key, value);
    else
      GatewayKey(key, value);
  }

  // Checks what only the whole file can tell.
  Station Take() {
    if (!attributesSeen_) {
      std::erase_if(s_.attributes, [&](const auto& kv) { return kv.first.size() != s_.attributeKeyLength; });
    }
    for (const Module& m : s_.modules)
      if (m.id == 0) throw ParseError{"a [module] has no id"};
    for (const auto& kv : s_.attributes)
      if (kv.first.size() != s_.attributeKeyLength)
        throw ParseError{"an attribute key is not attribute_key_length bytes long"};
    return std::move(s_);
  }

 private:
  void GatewayKey(const std::string& key, std::string_view v) {
    if (key == "identity") s_.identity = Text(v);
    else if (key == "boot_id") s_.bootId = Text(v);
    else if (key == "version_string") s_.versionString = Text(v);
    else if (key == "privileged_name") s_.privilegedName = Text(v);
    else if (key == "tool_ident") s_.toolIdent = Text(v);
    else if (key == "image_file") s_.imageFile = Trim(v);
    else if (key == "version") s_.version = uint16_t(Number(v, 0xFFFF));
    else if (key == "boot_version") s_.bootVersion = uint16_t(Number(v, 0xFFFF));
    else if (key == "switches") s_.switches = uint16_t(Number(v, 0xFFFF));
    else if (key == "leds") s_.leds = uint16_t(Number(v, 0xFFFF));
    else if (key == "gateway_id") s_.gatewayId = uint32_t(Number(v, 0xFFFFFFFF));
    else if (key == "privileged_channel") s_.privilegedChannel = uint32_t(Number(v, 0xFFFFFFFF));
    else if (key == "dnet_serial") s_.dnetSerial = uint32_t(Number(v, 0xFFFFFFFF));
    else if (key == "station_address") s_.stationAddress = uint8_t(Number(v, 0xFF));
    else if (key == "operation_mode") s_.operationMode = uint8_t(Number(v, 0xFF));
    else if (key == "service_baud_index") s_.serviceBaudIndex = uint8_t(Number(v, 0xFF));
    else if (key == "gateway_diagnosis") s_.gatewayDiagnosis = ImageData(v);
    else if (key == "tr_buffer") s_.trBuffer = ImageData(v);
    else if (key == "animate_inputs") s_.animateInputs = YesNo(v);
    else if (key == "clock") s_.fixedClockMs = uint32_t(Number(v, 0xFFFFFFFF));
    else if (key == "privileged_refusal") s_.privilegedRefusalBase = RefusalBase(v);
    else if (key == "attribute_key_length") s_.attributeKeyLength = size_t(Number(v, 64));
    else if (key == "boot_hw_info") {
      s_.bootHwInfo.clear();
      for (const std::string& tok : Tokens(v)) s_.bootHwInfo.push_back(uint16_t(Number(tok, 0xFFFF)));
    } else if (key == "privileged_table") {
      PrivilegedTable(v);
    } else if (key == "unknown_service") {
      UnknownService(v);
    } else if (key == "error") {
      Error(v);
    } else if (key == "attribute") {
      Attribute(v);
    } else if (key == "monitor_frame") {
      if (!monitorSeen_) s_.monitorFrames.clear();
      monitorSeen_ = true;
      s_.monitorFrames.push_back(ImageData(v));
    } else {
      throw ParseError{"unknown gateway key '" + key + "'"};
    }
  }

  void ModuleKey(const std::string& key, std::string_view v) {
    Module& m = s_.modules.back();
    if (key == "id") {
      m.id = uint32_t(Number(v, 0xFFFFFF));
      if (!diagSizeGiven_) m.diagnosis.assign(DiagLengthForId(m.id), 0);
    } else if (key == "type") {
      const std::string t = Trim(v);
      if (t != "D" && t != "A" && t != "d" && t != "a") throw ParseError{"type must be D or A"};
      m.type = char(std::toupper(uint8_t(t[0])));
      m.typeCode = m.type == 'A' ? 2 : 1;
    } else if (key == "inputs") m.inputs = SizedImage(v);
    else if (key == "outputs") m.outputs = SizedImage(v);
    else if (key == "parameters") m.parameters = SizedImage(v);
    else if (key == "diagnosis") { m.diagnosis = SizedImage(v); diagSizeGiven_ = true; }
    else if (key == "input_data") m.inputs = ImageData(v);
    else if (key == "output_data") m.outputs = ImageData(v);
    else if (key == "parameter_data") m.parameters = ImageData(v);
    else if (key == "diagnosis_data") { m.diagnosis = ImageData(v); diagSizeGiven_ = true; }
    else if (key == "status") m.status = uint8_t(Number(v, 0xFF));
    else if (key == "sw_revision") m.swRevision = uint8_t(Number(v, 0xFF));
    else if (key == "type_code") m.typeCode = uint8_t(Number(v, 0xFF));
    else if (key == "stream_size") m.streamSize = uint8_t(Number(v, 0xFF));
    else throw ParseError{"unknown module key '" + key + "'"};
  }

  void PrivilegedTable(std::string_view v) {
    const std::vector<std::string> toks = Tokens(v);
    if (toks.size() != 32) throw ParseError{"privileged_table needs 32 numbers"};
    std::array<bool, 32> seen{};
    for (size_t i = 0; i < 32; ++i) {
      const auto e = uint8_t(Number(toks[i], 31));
      if (seen[e]) throw ParseError{"privileged_table is not a permutation of 0..31"};
      seen[e] = true;
      s_.privilegedTable[i] = e;
    }
  }

  void UnknownService(std::string_view v) {
    const std::vector<std::string> toks = Tokens(v);
    if (toks.size() == 1 && Lower(toks[0]) == "silence") {
      s_.unknownService.reset();
      return;
    }
    if (toks.empty() || toks.size() > 2) throw ParseError{"unknown_service: silence or BASE [BYTE]"};
    Refusal r;
    r.base = RefusalBase(toks[0]);
    if (toks.size() == 2) r.data = uint8_t(Number(toks[1], 0xFF));
    s_.unknownService = r;
  }

  void Error(std::string_view v) {
    const std::vector<std::string> toks = Tokens(v);
    if (toks.size() < 2) throw ParseError{"error needs CODE DURATION_MS [bytes]"};
    if (!errorsSeen_) s_.errors.clear();
    errorsSeen_ = true;
    ErrorEntry e;
    e.code = uint8_t(Number(toks[0], 0xFF));
    e.durationMs = uint32_t(Number(toks[1], 0xFFFFFFFF));
    for (size_t i = 2; i < toks.size(); ++i) {
      const std::vector<uint8_t> b = Bytes(toks[i]);
      e.extra.insert(e.extra.end(), b.begin(), b.end());
    }
    if (e.extra.size() > 249) throw ParseError{"error entry longer than 255 bytes"};
    s_.errors.push_back(std::move(e));
  }

  void Attribute(std::string_view v) {
    const size_t colon = v.find(':');
    if (colon == std::string_view::npos) throw ParseError{"attribute needs KEY : VALUE"};
    if (!attributesSeen_) s_.attributes.clear();
    attributesSeen_ = true;
    std::vector<uint8_t> k = Bytes(v.substr(0, colon));
    if (k.empty()) throw ParseError{"attribute key is empty"};
    s_.attributes[std::move(k)] = ImageData(v.substr(colon + 1));
  }

  Station s_;
  bool inModule_ = false;
  bool modulesSeen_ = false;
  bool diagSizeGiven_ = false;
  bool errorsSeen_ = false;
  bool attributesSeen_ = false;
  bool monitorSeen_ = false;
};

}  // namespace

std::optional<uint64_t> ParseNumber(std::string_view text) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) return std::nullopt;
  uint64_t v = 0;
  const char* last = text.data() + text.size();
  const std::from_chars_result read = std::from_chars(text.data(), last, v, base);
  if (read.ec != std::errc() || read.ptr != last) return std::nullopt;
  return v;
}

std::optional<Station> ParseStation(std::string_view text, std::string* error) {
  Loader loader(DefaultStation());
  std::istringstream in{std::string(text)};
  std::string line;
  int lineNo = 0;
  try {
    while (std::getline(in, line)) {
      ++lineNo;
      if (!line.empty() && line.back() == '\r') line.pop_back();
      loader.Line(line);
    }
  } catch (const ParseError& e) {
    if (error) *error = "line " + std::to_string(lineNo) + ": " + e.message;
    return std::nullopt;
  }
  try {
    return loader.Take();
  } catch (const ParseError& e) {
    if (error) *error = e.message;
    return std::nullopt;
  }
}

std::optional<Station> LoadStationFile(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = "cannot open " + path;
    return std::nullopt;
  }
  std::ostringstream text;
  text << in.rdbuf();
  std::string err;
  auto s = ParseStation(text.str(), &err);
  if (!s && error) *error = path + ": " + err;
  return s;
}

}  // namespace tamrik::sim

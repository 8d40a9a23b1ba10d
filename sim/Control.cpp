// The control channel: routes of cpp-httplib, bodies through nlohmann-json. Byte data travel
// as hexadecimal strings ("0180"; blanks are allowed on the way in), as curl users and the
// Python package write them most easily. Every refused request gets a 4xx status and
// {"error": "..."}; nothing is changed by a request that is refused.
#include "Control.h"

#include <httplib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "SimEngine.h"
#include "protocol/ServiceTable.h"

namespace tamrik::sim {

namespace {

using Json = nlohmann::json;

constexpr size_t kMaxText = 200;  // hosts receive identity texts into 200 values
constexpr uint64_t kMaxFaultMs = 60000;
constexpr uint64_t kMaxNoise = 4096;
constexpr uint64_t kMaxServiceCode = 0x3FFF;

// A request the channel turns down, with the status it answers.
struct Refused {
  int status;
  std::string message;
};

[[noreturn]] void Refuse(const std::string& message, int status = 400) { throw Refused{status, message}; }

// --- values in and out ------------------------------------------------------------------------

std::string Hex(std::span<const uint8_t> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (uint8_t b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::vector<uint8_t> Bytes(const Json& value, const std::string& what) {
  if (!value.is_string()) Refuse(what + ": hexadecimal bytes in a string, such as \"01 80\"");
  std::vector<uint8_t> out;
  int high = -1;
  for (char c : value.get_ref<const std::string&>()) {
    if (c == ' ') continue;
    const int digit = HexDigit(c);
    if (digit < 0) Refuse(what + ": '" + std::string(1, c) + "' is no hexadecimal digit");
    if (high < 0) {
      high = digit;
    } else {
      out.push_back(uint8_t(high << 4 | digit));
      high = -1;
    }
  }
  if (high >= 0) Refuse(what + ": an odd number of hexadecimal digits");
  return out;
}

uint64_t Number(const Json& value, const std::string& what, uint64_t max) {
  if (!value.is_number_unsigned() || value.get<uint64_t>() > max)
    Refuse(what + ": a whole number from 0 to " + std::to_string(max));
  return value.get<uint64_t>();
}

std::string Text(const Json& value, const std::string& what) {
  if (!value.is_string() || value.get_ref<const std::string&>().size() > kMaxText)
    Refuse(what + ": a text of at most " + std::to_string(kMaxText) + " characters");
  return value.get<std::string>();
}

const Json& Field(const Json& body, const char* key) {
  if (!body.is_object() || !body.contains(key)) Refuse(std::string("\"") + key + "\" missing");
  return body.at(key);
}

Json Body(const httplib::Request& request) {
  Json body = Json::parse(request.body, nullptr, false);
  if (body.is_discarded()) Refuse("the body is no JSON document");
  return body;
}

// --- the station as JSON ----------------------------------------------------------------------

Json IdentityJson(const Station& s) {
  return {{"identity", s.identity},           {"boot_id", s.bootId},
          {"version_string", s.versionString}, {"version", s.version},
          {"boot_version", s.bootVersion},     {"gateway_id", s.gatewayId},
          {"station_address", s.stationAddress}, {"operation_mode", s.operationMode},
          {"switches", s.switches},           {"leds", s.leds}};
}

void PatchIdentity(Station& s, const Json& patch) {
  if (!patch.is_object()) Refuse("identity: an object of the fields to change");
  for (const auto& [key, value] : patch.items()) {
    if (key == "identity") s.identity = Text(value, key);
    else if (key == "boot_id") s.bootId = Text(value, key);
    else if (key == "version_string") s.versionString = Text(value, key);
    else if (key == "version") s.version = uint16_t(Number(value, key, 0xFFFF));
    else if (key == "boot_version") s.bootVersion = uint16_t(Number(value, key, 0xFFFF));
    else if (key == "gateway_id") s.gatewayId = uint32_t(Number(value, key, 0xFFFFFFFF));
    else if (key == "station_address") s.stationAddress = uint8_t(Number(value, key, 0xFF));
    else if (key == "operation_mode") s.operationMode = uint8_t(Number(value, key, 0xFF));
    else if (key == "switches") s.switches = uint16_t(Number(value, key, 0xFFFF));
    else if (key == "leds") s.leds = uint16_t(Number(value, key, 0xFFFF));
    else Refuse("identity has no field \"" + key + "\"");
  }
}

Json ModuleJson(const Module& m) {
  return {{"id", m.id},
          {"type", std::string(1, m.type)},
          {"status", m.status},
          {"sw_revision", m.swRevision},
          {"type_code", m.typeCode},
          {"stream_size", m.streamSize},
          {"inputs", Hex(m.inputs)},
          {"outputs", Hex(m.outputs)},
          {"parameters", Hex(m.parameters)},
          {"diagnosis", Hex(m.diagnosis)}};
}

Module ModuleFromJson(const Json& j) {
  const uint32_t id = uint32_t(Number(Field(j, "id"), "id", 0xFFFFFF));
  const Json type = j.value("type", Json("D"));
  if (type != "D" && type != "A") Refuse("type: \"D\" (digital) or \"A\" (analogue)");
  Module m = MakeModule(id, type.get_ref<const std::string&>()[0], 0, 0, 0);
  for (const auto& [key, value] : j.items()) {
    if (key == "id" || key == "type") continue;
    if (key == "status") m.status = uint8_t(Number(value, key, 0xFF));
    else if (key == "sw_revision") m.swRevision = uint8_t(Number(value, key, 0xFF));
    else if (key == "type_code") m.typeCode = uint8_t(Number(value, key, 0xFF));
    else if (key == "stream_size") m.streamSize = uint8_t(Number(value, key, 0xFF));
    else if (key == "inputs") m.inputs = Bytes(value, key);
    else if (key == "outputs") m.outputs = Bytes(value, key);
    else if (key == "parameters") m.parameters = Bytes(value, key);
    else if (key == "diagnosis") m.diagnosis = Bytes(value, key);
    else Refuse("a module has no field \"" + key + "\"");
  }
  return m;
}

Json ErrorsJson(const std::vector<ErrorEntry>& errors) {
  Json out = Json::array();
  for (const ErrorEntry& e : errors) out.push_back({{"code", e.code}, {"duration_ms", e.durationMs}, {"extra", Hex(e.extra)}});
  return out;
}

std::vector<ErrorEntry> ErrorsFromJson(const Json& j) {
  if (!j.is_array()) Refuse("errors: an array of {code, duration_ms, extra}");
  std::vector<ErrorEntry> errors;
  for (const Json& e : j) {
    ErrorEntry entry;
    entry.code = uint8_t(Number(Field(e, "code"), "code", 0xFF));
    entry.durationMs = uint32_t(Number(Field(e, "duration_ms"), "duration_ms", 0xFFFFFFFF));
    if (e.contains("extra")) entry.extra = Bytes(e["extra"], "extra");
    errors.push_back(std::move(entry));
  }
  return errors;
}

// The byte images of the station, each the modules' parts in slot order; the diagnosis has
// the gateway's own bytes ahead of them.
struct ImageKind {
  const char* name;
  std::vector<uint8_t> Module::*part;
  std::vector<uint8_t> (ServiceEngine::*read)() const;
};

constexpr ImageKind kImages[] = {{"inputs", &Module::inputs, &ServiceEngine::InputImage},
                                 {"outputs", &Module::outputs, &ServiceEngine::OutputImage},
                                 {"parameters", &Module::parameters, &ServiceEngine::ParameterImage},
                                 {"diagnosis", &Module::diagnosis, &ServiceEngine::DiagnosisImage}};

void WriteImage(Station& s, const ImageKind& kind, std::span<const uint8_t> data) {
  const bool diagnosis = kind.part == &Module::diagnosis;
  size_t size = diagnosis ? s.gatewayDiagnosis.size() : 0;
  for (const Module& m : s.modules) size += (m.*kind.part).size();
  if (data.size() != size)
    Refuse(std::string("the ") + kind.name + " image has " + std::to_string(size) + " bytes, not " +
           std::to_string(data.size()));
  auto next = data.begin();
  auto take = [&next](std::vector<uint8_t>& into) {
    std::copy(next, next + std::ptrdiff_t(into.size()), into.begin());
    next += std::ptrdiff_t(into.size());
  };
  if (diagnosis) take(s.gatewayDiagnosis);
  for (Module& m : s.modules) take(m.*kind.part);
}

// --- faults by rule ---------------------------------------------------------------------------

// A fault the channel injects: what it does to an answer, which requests it is for, and how
// often; a rule with a count is gone when it has been used that often.
struct FaultRule {
  uint32_t id = 0;
  // As the request that made it gave them, for GET /faults.
  std::string kind;
  std::optional<uint64_t> value, base;
  AnswerFault fault;
  std::optional<uint16_t> service;
  uint64_t every = 1;
  std::optional<uint64_t> remaining;
  uint64_t matched = 0;
  uint64_t applied = 0;
};

uint32_t FaultMs(const Json& body, const char* kind) {
  const uint64_t ms = Number(Field(body, "value"), std::string(kind) + " value (ms)", kMaxFaultMs);
  if (ms == 0) Refuse(std::string(kind) + " value (ms): at least 1");
  return uint32_t(ms);
}

AnswerFault FaultOfKind(const std::string& kind, const Json& body) {
  AnswerFault f;
  if (kind == "noise") {
    f.noiseBytes = uint32_t(Number(Field(body, "value"), "noise value (bytes)", kMaxNoise));
  } else if (kind == "corrupt") {
    f.corruptCheckValue = true;
  } else if (kind == "refuse") {
    Refusal refusal;
    if (body.contains("base")) refusal.base = uint16_t(Number(body["base"], "base", 0xFFFF));
    if (refusal.base != 0x8000 && refusal.base != 0xC000) Refuse("base: 0x8000 (32768) or 0xC000 (49152)");
    if (body.contains("value")) refusal.data = uint8_t(Number(body["value"], "refuse value (data byte)", 0xFF));
    f.refusal = refusal;
  } else if (kind == "silence") {
    f.silence = true;
  } else if (kind == "delay") {
    f.delayMs = FaultMs(body, "delay");
  } else if (kind == "truncate") {
    f.truncateTo = uint32_t(Number(Field(body, "value"), "truncate value (bytes kept)", 0xFFFF));
  } else if (kind == "late") {
    f.lateMs = FaultMs(body, "late");
  } else if (kind == "drop") {
    f.dropConnection = true;
  } else if (kind == "pace") {
    f.paceBaud = uint32_t(Number(Field(body, "value"), "pace value (baud)", 4000000));
  } else {
    Refuse("kind: one of noise, corrupt, refuse, silence, delay, truncate, late, drop, pace; not \"" + kind + "\"");
  }
  return f;
}

FaultRule RuleFromJson(const Json& body) {
  static const char* const kKeys[] = {"kind", "value", "base", "count", "every", "service"};
  if (!body.is_object()) Refuse("a fault: {\"kind\": ..., \"count\", \"every\", \"service\", \"value\", \"base\"}");
  for (const auto& [key, value] : body.items()) {
    if (std::find(std::begin(kKeys), std::end(kKeys), key) == std::end(kKeys))
      Refuse("a fault has no field \"" + key + "\"");
  }
  const Json& kind = Field(body, "kind");
  if (!kind.is_string()) Refuse("kind: a text");
  FaultRule rule;
  rule.fault = FaultOfKind(kind.get<std::string>(), body);
  if (body.contains("service")) rule.service = uint16_t(Number(body["service"], "service", kMaxServiceCode));
  if (body.contains("every")) rule.every = Number(body["every"], "every", 0xFFFFFFFF);
  if (body.contains("count")) rule.remaining = Number(body["count"], "count", 0xFFFFFFFF);
  if (rule.every == 0 || (rule.remaining && *rule.remaining == 0)) Refuse("every and count: at least 1");
  rule.kind = kind.get<std::string>();
  if (body.contains("value")) rule.value = Number(body["value"], "value", 0xFFFFFFFF);
  if (body.contains("base")) rule.base = Number(body["base"], "base", 0xFFFF);
  return rule;
}

class FaultRules {
 public:
  uint32_t Add(FaultRule rule) {
    std::lock_guard lock(mutex_);
    rule.id = nextId_++;
    rules_.push_back(std::move(rule));
    return rules_.back().id;
  }

  bool Remove(uint32_t id) {
    std::lock_guard lock(mutex_);
    return std::erase_if(rules_, [id](const FaultRule& r) { return r.id == id; }) != 0;
  }

  void Clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
  }

  Json Describe() const {
    std::lock_guard lock(mutex_);
    Json out = Json::array();
    for (const FaultRule& r : rules_) {
      Json j = {{"id", r.id},
                {"kind", r.kind},
                {"service", r.service ? Json(*r.service) : Json()},
                {"every", r.every},
                {"count", r.remaining ? Json(*r.remaining) : Json()},
                {"applied", r.applied}};
      if (r.value) j["value"] = *r.value;
      if (r.base) j["base"] = *r.base;
      out.push_back(std::move(j));
    }
    return out;
  }

  // The faults of every rule that takes this request; called by the gateway as it serves.
  AnswerFault Choose(const ParsedFrame& request) {
    std::lock_guard lock(mutex_);
    AnswerFault chosen;
    for (FaultRule& r : rules_) {
      if (r.service && *r.service != request.code) continue;
      if (++r.matched % r.every != 0) continue;
      chosen = Overlay(chosen, r.fault);
      ++r.applied;
      if (r.remaining) --*r.remaining;
    }
    std::erase_if(rules_, [](const FaultRule& r) { return r.remaining && *r.remaining == 0; });
    return chosen;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<FaultRule> rules_;
  uint32_t nextId_ = 1;
};

// --- routes -----------------------------------------------------------------------------------

struct Reply {
  Json body;
  int status = 200;
};

using Handler = std::function<Reply(const httplib::Request&)>;

void SendJson(httplib::Response& response, int status, const Json& body) {
  response.status = status;
  if (!body.is_null()) response.set_content(body.dump(), "application/json");
}

httplib::Server::Handler Wrap(Handler handler) {
  return [handler = std::move(handler)](const httplib::Request& request, httplib::Response& response) {
    try {
      Reply reply = handler(request);
      SendJson(response, reply.body.is_null() ? 204 : reply.status, reply.body);
    } catch (const Refused& refused) {
      SendJson(response, refused.status, {{"error", refused.message}});
    } catch (const std::exception& e) {
      SendJson(response, 500, {{"error", e.what()}});
    }
  };
}

}  // namespace

struct ControlChannel::Impl {
  Impl(Gateway& g, Station s) : gateway(g), start(std::move(s)), began(std::chrono::steady_clock::now()) {}

  Gateway& gateway;
  const Station start;
  const std::chrono::steady_clock::time_point began;
  FaultRules rules;
  httplib::Server server;
  std::thread thread;

  void Routes();
  void StationRoutes();
  void ImageRoutes();
  void FaultRoutes();
  void LogRoutes();
  Json StationJson();
  Json RequestsJson() const;
  template <typename EditFn>
  void Edit(EditFn&& edit);
};

// Changes a copy of the live station and puts it in place only when the change went through,
// so that a refused request leaves the station as it was.
template <typename EditFn>
void ControlChannel::Impl::Edit(EditFn&& edit) {
  gateway.EditStation([&](Station& live) {
    Station changed = live;
    edit(changed);
    live = std::move(changed);
  });
}

Json ControlChannel::Impl::StationJson() {
  Json out;
  gateway.InspectEngine([&](const ServiceEngine& engine) {
    const Station& s = engine.station();
    out = IdentityJson(s);
    Json modules = Json::array();
    for (const Module& m : s.modules) modules.push_back(ModuleJson(m));
    out["modules"] = std::move(modules);
    out["errors"] = ErrorsJson(s.errors);
    out["clock"] = {{"ms", engine.ClockMs()}, {"fixed", s.fixedClockMs.has_value()}};
    out["animate_inputs"] = s.animateInputs;
    out["gateway_diagnosis"] = Hex(s.gatewayDiagnosis);
    for (const ImageKind& kind : kImages) out[kind.name] = Hex((engine.*kind.read)());
  });
  return out;
}

void ControlChannel::Impl::StationRoutes() {
  server.Get("/station", Wrap([this](const httplib::Request&) -> Reply { return {StationJson()}; }));
  server.Get("/station/identity", Wrap([this](const httplib::Request&) -> Reply {
               return {IdentityJson(gateway.GetStation())};
             }));
  server.Patch("/station/identity", Wrap([this](const httplib::Request& request) -> Reply {
                 const Json patch = Body(request);
                 Edit([&](Station& s) { PatchIdentity(s, patch); });
                 return {IdentityJson(gateway.GetStation())};
               }));
  server.Get("/station/modules", Wrap([this](const httplib::Request&) -> Reply {
               Json modules = Json::array();
               for (const Module& m : gateway.GetStation().modules) modules.push_back(ModuleJson(m));
               return {modules};
             }));
  server.Put("/station/modules", Wrap([this](const httplib::Request& request) -> Reply {
               const Json body = Body(request);
               if (!body.is_array()) Refuse("modules: an array of modules");
               std::vector<Module> modules;
               for (const Json& m : body) modules.push_back(ModuleFromJson(m));
               Edit([&](Station& s) { s.modules = std::move(modules); });
               return {};
             }));
  server.Get("/station/errors", Wrap([this](const httplib::Request&) -> Reply {
               return {ErrorsJson(gateway.GetStation().errors)};
             }));
  server.Put("/station/errors", Wrap([this](const httplib::Request& request) -> Reply {
               std::vector<ErrorEntry> errors = ErrorsFromJson(Body(request));
               Edit([&](Station& s) { s.errors = std::move(errors); });
               return {};
             }));
  server.Get("/station/clock", Wrap([this](const httplib::Request&) -> Reply { return {StationJson()["clock"]}; }));
  server.Put("/station/clock", Wrap([this](const httplib::Request& request) -> Reply {
               const Json body = Body(request);
               const Json& ms = Field(body, "ms");
               const std::optional<uint32_t> fixed =
                   ms.is_null() ? std::nullopt : std::optional<uint32_t>(uint32_t(Number(ms, "ms", 0xFFFFFFFF)));
               Edit([&](Station& s) { s.fixedClockMs = fixed; });
               return {};
             }));
}

void ControlChannel::Impl::ImageRoutes() {
  for (const ImageKind& kind : kImages) {
    const std::string path = std::string("/station/") + kind.name;
    server.Get(path, Wrap([this, &kind](const httplib::Request&) -> Reply {
                 Json out;
                 gateway.InspectEngine([&](const ServiceEngine& engine) {
                   out["data"] = Hex((engine.*kind.read)());
                   if (kind.part == &Module::inputs) out["animate"] = engine.station().animateInputs;
                 });
                 return {out};
               }));
    server.Put(path, Wrap([this, &kind](const httplib::Request& request) -> Reply {
                 const Json body = Body(request);
                 const bool inputs = kind.part == &Module::inputs;
                 if (inputs && body.is_object() && body.contains("animate") && !body["animate"].is_boolean())
                   Refuse("animate: true or false");
                 const std::optional<std::vector<uint8_t>> data =
                     body.is_object() && body.contains("data") ? std::optional(Bytes(body["data"], "data")) : std::nullopt;
                 if (!data && !(inputs && body.contains("animate"))) Refuse("\"data\" missing");
                 Edit([&](Station& s) {
                   if (data) WriteImage(s, kind, *data);
                   // Inputs that were set stay as they are, until they are told to move again.
                   if (inputs) s.animateInputs = body.contains("animate") ? body["animate"].get<bool>() : !data;
                 });
                 return {};
               }));
  }
}

void ControlChannel::Impl::FaultRoutes() {
  server.Get("/faults", Wrap([this](const httplib::Request&) -> Reply { return {rules.Describe()}; }));
  server.Post("/faults", Wrap([this](const httplib::Request& request) -> Reply {
                return {{{"id", rules.Add(RuleFromJson(Body(request)))}}, 201};
              }));
  // Also the faults of the command line: the simulator answers well again.
  server.Delete("/faults", Wrap([this](const httplib::Request&) -> Reply {
                  rules.Clear();
                  gateway.ClearFaults();
                  return {};
                }));
  server.Delete(R"(/faults/(\d+))", Wrap([this](const httplib::Request& request) -> Reply {
                  const std::string id = request.matches[1].str();
                  if (id.size() > 9 || !rules.Remove(uint32_t(std::stoul(id)))) Refuse("no fault " + id, 404);
                  return {};
                }));
}

Json ControlChannel::Impl::RequestsJson() const {
  Json out = Json::array();
  for (const RequestRecord& r : gateway.Requests()) {
    // Only request codes have names; an answer code's name would mislead.
    const char* name = (r.code & ~kMaxServiceCode) == 0 ? protocol::ServiceName(r.code) : nullptr;
    out.push_back({{"time", std::chrono::duration<double>(r.time - began).count()},
                   {"link", LinkName(r.link)},
                   {"service", r.code},
                   {"name", name ? name : ""},
                   {"data", Hex(r.data)},
                   {"answer", Hex(r.answer)}});
  }
  return out;
}

void ControlChannel::Impl::LogRoutes() {
  server.Get("/requests", Wrap([this](const httplib::Request&) -> Reply { return {RequestsJson()}; }));
  server.Delete("/requests", Wrap([this](const httplib::Request&) -> Reply {
                  gateway.ClearRequests();
                  return {};
                }));
  const httplib::Server::Handler reset = Wrap([this](const httplib::Request&) -> Reply {
    rules.Clear();
    gateway.ClearScript();
    gateway.SetStation(start);
    gateway.ClearRequests();
    return {};
  });
  // "curl -X POST" sends neither a body nor a length: a route that takes the body as a stream
  // answers at once, where the server would otherwise wait for a body until it times out.
  server.Post("/reset", [reset](const httplib::Request& request, httplib::Response& response,
                                const httplib::ContentReader&) { reset(request, response); });
}

void ControlChannel::Impl::Routes() {
  StationRoutes();
  ImageRoutes();
  FaultRoutes();
  LogRoutes();
  // Paths and methods without a route: a JSON error too, as for every other refusal.
  server.set_error_handler(httplib::Server::HandlerWithResponse(
      [](const httplib::Request& request, httplib::Response& response) {
        if (!response.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        const std::string call = request.method + " " + request.path;
        SendJson(response, response.status,
                 {{"error", response.status == 404 ? "no call " + call : "the request " + call + " could not be read"}});
        return httplib::Server::HandlerResponse::Handled;
      }));
}

ControlChannel::ControlChannel(Gateway& gateway, Station start)
    : impl_(std::make_unique<Impl>(gateway, std::move(start))) {
  // A test steers from one thread or a few: two workers are plenty.
  impl_->server.new_task_queue = [] { return new httplib::ThreadPool(2); };
  impl_->Routes();
  gateway.SetFaultRule([rules = &impl_->rules](const ParsedFrame& request) { return rules->Choose(request); });
}

ControlChannel::~ControlChannel() {
  Stop();
  impl_->gateway.SetFaultRule(nullptr);
}

uint16_t ControlChannel::Start(uint16_t port) {
  const int bound =
      port == 0 ? impl_->server.bind_to_any_port("127.0.0.1")
                : (impl_->server.bind_to_port("127.0.0.1", port) ? int(port) : -1);
  if (bound <= 0) throw std::system_error(errno, std::generic_category(), "control channel on 127.0.0.1");
  impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
  return uint16_t(bound);
}

void ControlChannel::Stop() {
  if (!impl_->thread.joinable()) return;
  impl_->server.stop();
  impl_->thread.join();
}

}  // namespace tamrik::sim

#include "Config.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <toml++/toml.h>

#include "Address.h"

namespace tamrik::serve {
namespace {

// The longest poll interval and time-out taken: a day, and a minute.
constexpr int64_t kMaxIntervalMs = 86400000;
constexpr int64_t kMaxTimeoutMs = 60000;

// Reads one table, refusing what it does not know: a misspelt key would otherwise be
// silently ignored and the gateway polled with a default nobody asked for.
class TableReader {
 public:
  TableReader(const toml::table& table, std::string file, const char* what)
      : table_(table), file_(std::move(file)), what_(what) {}

  [[noreturn]] void Fail(const toml::node* node, const std::string& reason) const {
    const auto line = node != nullptr ? node->source().begin.line : table_.source().begin.line;
    throw ConfigError(file_ + ":" + std::to_string(line) + ": " + reason);
  }
  int32_t Line() const { return int32_t(table_.source().begin.line); }

  const toml::node* Get(const char* key) {
    known_.insert(key);
    return table_.get(key);
  }
  std::optional<std::string> Text(const char* key) {
    const toml::node* node = Get(key);
    if (node == nullptr) return std::nullopt;
    if (!node->is_string()) Fail(node, std::string(what_) + " " + key + " must be a string");
    return node->value<std::string>();
  }
  std::optional<int64_t> Integer(const char* key, int64_t low, int64_t high) {
    const toml::node* node = Get(key);
    if (node == nullptr) return std::nullopt;
    if (!node->is_integer()) Fail(node, std::string(what_) + " " + key + " must be an integer");
    const int64_t value = *node->value<int64_t>();
    if (value < low || value > high)
      Fail(node, std::string(what_) + " " + key + " must be from " + std::to_string(low) + " to " + std::to_string(high));
    return value;
  }
  std::optional<bool> Boolean(const char* key) {
    const toml::node* node = Get(key);
    if (node == nullptr) return std::nullopt;
    if (!node->is_boolean()) Fail(node, std::string(what_) + " " + key + " must be true or false");
    return node->value<bool>();
  }
  // An interval in ms, or false / 0 for off.
  void Interval(const char* key, uint32_t* ms) {
    const toml::node* node = Get(key);
    if (node == nullptr) return;
    if (node->is_boolean() && !*node->value<bool>()) {
      *ms = 0;
      return;
    }
    if (!node->is_integer()) Fail(node, std::string(what_) + " " + key + " must be an interval in ms, or false");
    const int64_t value = *node->value<int64_t>();
    if (value < 0 || value > kMaxIntervalMs)
      Fail(node, std::string(what_) + " " + key + " must be from 0 (off) to " + std::to_string(kMaxIntervalMs) + " ms");
    *ms = uint32_t(value);
  }
  void RefuseUnknown() const {
    for (const auto& [key, node] : table_) {
      if (!known_.count(std::string(key.str())))
        Fail(&node, "unknown key '" + std::string(key.str()) + "' in " + what_);
    }
  }

 private:
  const toml::table& table_;
  std::string file_;
  const char* what_;
  std::set<std::string> known_;
};

bool ValidName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
  });
}

void ReadLink(TableReader& reader, GatewayConfig& gateway) {
  const auto tcp = reader.Text("tcp"), udp = reader.Text("udp"), serial = reader.Text("serial");
  const int links = int(tcp.has_value()) + int(udp.has_value()) + int(serial.has_value());
  if (links != 1) reader.Fail(nullptr, "gateway '" + gateway.name + "' needs exactly one of tcp, udp and serial");
  const auto baudrate = reader.Integer("baudrate", 1, INT32_MAX);
  if (serial) {
    if (serial->empty()) reader.Fail(reader.Get("serial"), "gateway serial must name a device");
    gateway.link = LinkKind::Serial;
    gateway.device = *serial;
    static const std::set<int64_t> kRates = {9600, 19200, 38400, 57600, 115200};
    if (baudrate && !kRates.count(*baudrate))
      reader.Fail(reader.Get("baudrate"), "gateway baudrate must be 9600, 19200, 38400, 57600 or 115200");
    gateway.baudrate = int32_t(baudrate.value_or(9600));
    return;
  }
  if (baudrate) reader.Fail(reader.Get("baudrate"), "gateway baudrate is for a serial link only");
  gateway.link = tcp ? LinkKind::Tcp : LinkKind::Udp;
  const char* key = tcp ? "tcp" : "udp";
  const auto split = SplitHostPort(tcp ? *tcp : *udp);
  if (!split) reader.Fail(reader.Get(key), std::string("gateway ") + key + " must be \"host:port\"");
  gateway.host = split->first;
  gateway.port = split->second;
}

GatewayConfig ReadGateway(const toml::table& table, const std::string& file) {
  TableReader reader(table, file, "[[gateway]]");
  GatewayConfig gateway;
  gateway.line = reader.Line();
  gateway.name = reader.Text("name").value_or("");
  if (!ValidName(gateway.name))
    reader.Fail(reader.Get("name"), "gateway name must be letters, digits, '_' and '-' (\"" + gateway.name + "\")");
  ReadLink(reader, gateway);
  reader.Interval("inputs", &gateway.inputsMs);
  reader.Interval("outputs", &gateway.outputsMs);
  reader.Interval("diagnosis", &gateway.diagnosisMs);
  reader.Interval("errors", &gateway.errorsMs);
  reader.Interval("clock", &gateway.clockMs);
  gateway.timeoutMs = int32_t(reader.Integer("timeout", 1, kMaxTimeoutMs).value_or(gateway.timeoutMs));
  gateway.writable = reader.Boolean("writable").value_or(false);
  reader.RefuseUnknown();
  return gateway;
}

void ReadMqtt(const toml::table& table, const std::string& file, MqttConfig& mqtt) {
  TableReader reader(table, file, "[mqtt]");
  mqtt.enabled = true;
  mqtt.host = reader.Text("host").value_or(mqtt.host);
  if (mqtt.host.empty()) reader.Fail(reader.Get("host"), "[mqtt] host must not be empty");
  mqtt.port = uint16_t(reader.Integer("port", 1, 65535).value_or(mqtt.port));
  mqtt.clientId = reader.Text("client_id").value_or("");
  mqtt.prefix = reader.Text("prefix").value_or(mqtt.prefix);
  if (mqtt.prefix.empty() || mqtt.prefix.find_first_of("+#") != std::string::npos || mqtt.prefix.back() == '/')
    reader.Fail(reader.Get("prefix"), "[mqtt] prefix must be a topic without wildcards or a trailing '/'");
  mqtt.qos = int32_t(reader.Integer("qos", 0, 2).value_or(mqtt.qos));
  mqtt.republishS = uint32_t(reader.Integer("republish", 0, 86400).value_or(mqtt.republishS));
  mqtt.cafile = reader.Text("cafile").value_or("");
  reader.RefuseUnknown();
}

void ReadHttp(const toml::table& table, const std::string& file, HttpConfig& http) {
  TableReader reader(table, file, "[http]");
  http.line = reader.Line();
  if (const auto listen = reader.Text("listen")) {
    const auto split = SplitHostPort(*listen, 0);
    if (!split) reader.Fail(reader.Get("listen"), "[http] listen must be \"address:port\"");
    http.address = split->first;
    http.port = split->second;
  }
  http.token = reader.Text("token").value_or("");
  reader.RefuseUnknown();
}

void ReadGateways(const toml::node& node, const std::string& file, Config& config) {
  const toml::array* list = node.as_array();
  if (list == nullptr || !list->is_array_of_tables())
    throw ConfigError(file + ":" + std::to_string(node.source().begin.line) + ": gateway must be [[gateway]] tables");
  for (const toml::node& entry : *list) config.gateways.push_back(ReadGateway(*entry.as_table(), file));
}

// A table where one is expected, or the message with its line.
const toml::table& TableOf(const toml::node& node, const std::string& file, const std::string& key) {
  if (!node.is_table()) throw ConfigError(file + ":" + std::to_string(node.source().begin.line) + ": " + key + " must be a table");
  return *node.as_table();
}

Config ReadDocument(const toml::table& root, const std::string& file) {
  Config config;
  for (const auto& [key, node] : root) {
    const std::string name(key.str());
    if (name == "gateway") ReadGateways(node, file, config);
    else if (name == "mqtt") ReadMqtt(TableOf(node, file, name), file, config.mqtt);
    else if (name == "http") ReadHttp(TableOf(node, file, name), file, config.http);
    else throw ConfigError(file + ":" + std::to_string(node.source().begin.line) + ": unknown table or key '" + name + "'");
  }
  return config;
}

}  // namespace

std::string GatewayConfig::LinkText() const {
  switch (link) {
    case LinkKind::Tcp: return "tcp " + host + ":" + std::to_string(port);
    case LinkKind::Udp: return "udp " + host + ":" + std::to_string(port);
    case LinkKind::Serial: return "serial " + device + " " + std::to_string(baudrate);
  }
  return {};
}

Config ParseConfig(std::string_view text, const std::string& name) {
  Config config;
  try {
    const toml::table root = toml::parse(text, name);
    config = ReadDocument(root, name);
  } catch (const toml::parse_error& e) {
    throw ConfigError(name + ":" + std::to_string(e.source().begin.line) + ": " + std::string(e.description()));
  }
  if (const char* user = std::getenv("TAMRIK_MQTT_USER")) config.mqtt.user = user;
  if (const char* password = std::getenv("TAMRIK_MQTT_PASSWORD")) config.mqtt.password = password;
  Validate(config, name);
  return config;
}

Config LoadConfig(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ConfigError(path + ":0: cannot be read");
  std::ostringstream text;
  text << in.rdbuf();
  return ParseConfig(text.str(), path);
}

void SetMqtt(Config& config, const std::string& hostPort) {
  const auto split = SplitHostPort(hostPort);
  if (!split) throw ConfigError("--mqtt must be HOST:PORT, not '" + hostPort + "'");
  config.mqtt.enabled = true;
  config.mqtt.host = split->first;
  config.mqtt.port = split->second;
}

void SetHttp(Config& config, const std::string& addressPort) {
  const auto split = SplitHostPort(addressPort, 0);
  if (!split) throw ConfigError("--http must be ADDRESS:PORT, not '" + addressPort + "'");
  config.http.address = split->first;
  config.http.port = split->second;
}

void Validate(const Config& config, const std::string& file) {
  auto where = [&](int32_t line) { return file.empty() ? std::string() : file + ":" + std::to_string(line) + ": "; };
  std::map<std::string, const GatewayConfig*> names, links;
  for (const GatewayConfig& gateway : config.gateways) {
    if (const auto [it, fresh] = names.emplace(gateway.name, &gateway); !fresh)
      throw ConfigError(where(gateway.line) + "gateway name '" + gateway.name + "' is taken by the gateway of line " +
                        std::to_string(it->second->line));
    // Two driver objects on one link would take each other's answers.
    const std::string link = gateway.link == LinkKind::Serial ? "serial " + gateway.device : gateway.LinkText();
    if (const auto [it, fresh] = links.emplace(link, &gateway); !fresh)
      throw ConfigError(where(gateway.line) + "gateway '" + gateway.name + "': " + link + " is the link of '" +
                        it->second->name + "' already");
  }
  if (!IsLoopback(config.http.address) && config.http.token.empty())
    throw ConfigError(where(config.http.line) + "[http] listen " + config.http.address +
                      " is reachable from other machines: set [http] token, or listen on 127.0.0.1");
}

}  // namespace tamrik::serve

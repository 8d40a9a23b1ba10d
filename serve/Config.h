// What `tamrik serve` runs: its gateways with their poll schedules, the broker and the HTTP
// listener, read from a TOML file and checked as a whole before anything starts.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tamrik::serve {

enum class LinkKind { Tcp, Udp, Serial };

struct GatewayConfig {
  std::string name;
  LinkKind link = LinkKind::Tcp;
  std::string host;      // tcp, udp: dotted IPv4 address or a name
  uint16_t port = 0;     // tcp, udp
  std::string device;    // serial
  int32_t baudrate = 9600;
  // Poll intervals in ms; 0: not polled.
  uint32_t inputsMs = 100;
  uint32_t outputsMs = 1000;
  uint32_t diagnosisMs = 0;
  uint32_t errorsMs = 5000;
  uint32_t clockMs = 1000;
  int32_t timeoutMs = 200;  // how long an answer may take to begin (serial: the read bound)
  bool writable = false;
  int32_t line = 0;         // where the table starts in the file, for messages

  // "tcp 127.0.0.1:5000", "serial /dev/ttyUSB0 115200"
  std::string LinkText() const;
};

struct MqttConfig {
  bool enabled = false;
  std::string host = "127.0.0.1";
  uint16_t port = 1883;
  std::string clientId;  // empty: tamrik-serve-<pid>
  std::string prefix = "tamrik";
  int32_t qos = 1;
  uint32_t republishS = 60;  // 0: only on change
  std::string cafile;        // TLS when set
  std::string user;          // from TAMRIK_MQTT_USER
  std::string password;      // from TAMRIK_MQTT_PASSWORD
};

struct HttpConfig {
  std::string address = "127.0.0.1";
  uint16_t port = 8080;  // 0: a free port
  std::string token;     // required when the address is not loopback
  int32_t line = 0;      // where the table starts in the file, for messages
};

struct Config {
  std::vector<GatewayConfig> gateways;
  MqttConfig mqtt;
  HttpConfig http;
};

// "FILE:LINE: reason" for a file, or just the reason for an option; the program exits 2.
struct ConfigError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Reads and checks a file; throws ConfigError.
Config LoadConfig(const std::string& path);
// The same for text; name stands for the file in messages.
Config ParseConfig(std::string_view text, const std::string& name);

// --mqtt HOST:PORT and --http ADDR:PORT; throw ConfigError naming the option.
void SetMqtt(Config& config, const std::string& hostPort);
void SetHttp(Config& config, const std::string& addressPort);

// The checks that concern the whole: unique names, one gateway per link, a token when the
// listener is reachable from other machines. Throws ConfigError, with "FILE:LINE: " ahead
// of the reason when file is given.
void Validate(const Config& config, const std::string& file = {});

}  // namespace tamrik::serve

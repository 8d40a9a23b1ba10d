#include "Metrics.h"

#include <cstdio>
#include <sstream>

#include "tamrik.h"

namespace tamrik::serve {
namespace {

// One metric family: its header once, then a sample per gateway.
struct Family {
  const char* name;
  const char* type;
  const char* help;
};

constexpr Family kFamilies[] = {
    {"tamrik_gateway_up", "gauge", "1 while the gateway answers, 0 while its link is down"},
    {"tamrik_gateway_exchanges_total", "counter", "Requests written to the gateway"},
    {"tamrik_gateway_failures_total", "counter", "Exchanges that failed, by result code"},
    {"tamrik_gateway_reconnects_total", "counter", "Times the link was opened again after a failure"},
    {"tamrik_gateway_last_good_timestamp_seconds", "gauge", "Wall-clock time of the last good answer"},
    {"tamrik_gateway_poll_duration_seconds", "histogram", "Duration of one call of the driver"},
    {"tamrik_mqtt_messages_published_total", "counter", "MQTT messages published for the gateway"},
    {"tamrik_mqtt_messages_received_total", "counter", "MQTT commands received for the gateway"},
    {"tamrik_gateway_polls_total", "counter", "Scheduled polls, made or left out"},
    {"tamrik_gateway_polls_late_total", "counter",
     "Polls begun more than a tenth of their interval after they were due, or left out"},
};

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", value);
  return text;
}

void Header(std::ostringstream& out, const Family& family) {
  out << "# HELP " << family.name << ' ' << family.help << "\n# TYPE " << family.name << ' ' << family.type << '\n';
}

void Histogram(std::ostringstream& out, const std::string& label, const GatewayState& state) {
  uint64_t cumulative = 0;
  for (size_t i = 0; i < state.durationBuckets.size(); ++i) {
    cumulative += state.durationBuckets[i];
    const std::string bound = i < kDurationBounds.size() ? Number(kDurationBounds[i]) : "+Inf";
    out << "tamrik_gateway_poll_duration_seconds_bucket{" << label << ",le=\"" << bound << "\"} " << cumulative << '\n';
  }
  out << "tamrik_gateway_poll_duration_seconds_sum{" << label << "} " << Number(state.durationSum) << '\n';
  out << "tamrik_gateway_poll_duration_seconds_count{" << label << "} " << cumulative << '\n';
}

// The samples of family f for one gateway.
void Samples(std::ostringstream& out, size_t f, size_t index, const GatewayState& state, const MqttBridge* mqtt) {
  // Gateway names are [A-Za-z0-9_-]: nothing to escape.
  const std::string label = "gateway=\"" + state.name + "\"";
  const std::string name = kFamilies[f].name;
  switch (f) {
    case 0: out << name << '{' << label << "} " << (state.online ? 1 : 0) << '\n'; break;
    case 1: out << name << '{' << label << "} " << state.exchanges << '\n'; break;
    case 2:
      for (const auto& [code, count] : state.failuresByCode)
        out << name << '{' << label << ",code=\"" << code << "\",name=\"" << tamrik_result_name(code) << "\"} " << count
            << '\n';
      break;
    case 3: out << name << '{' << label << "} " << state.reconnects << '\n'; break;
    case 4: out << name << '{' << label << "} " << Number(double(state.lastGoodMs) / 1000.0) << '\n'; break;
    case 5: Histogram(out, label, state); break;
    case 6: out << name << '{' << label << "} " << (mqtt ? mqtt->Published(index) : 0) << '\n'; break;
    case 7: out << name << '{' << label << "} " << (mqtt ? mqtt->Received(index) : 0) << '\n'; break;
    case 8: out << name << '{' << label << "} " << state.polls << '\n'; break;
    case 9: out << name << '{' << label << "} " << state.latePolls << '\n'; break;
  }
}

}  // namespace

std::string MetricsText(const StateStore& store, const MqttBridge* mqtt) {
  std::vector<GatewayState> states;
  states.reserve(store.Size());
  for (size_t i = 0; i < store.Size(); ++i) states.push_back(store.Snapshot(i));
  std::ostringstream out;
  for (size_t f = 0; f < std::size(kFamilies); ++f) {
    Header(out, kFamilies[f]);
    for (size_t i = 0; i < states.size(); ++i) Samples(out, f, i, states[i], mqtt);
  }
  out << "# HELP tamrik_mqtt_connected 1 while the broker is connected\n# TYPE tamrik_mqtt_connected gauge\n"
      << "tamrik_mqtt_connected " << (mqtt && mqtt->Connected() ? 1 : 0) << '\n';
  out << "# HELP tamrik_mqtt_reconnects_total Connections to the broker after the first\n"
      << "# TYPE tamrik_mqtt_reconnects_total counter\ntamrik_mqtt_reconnects_total " << (mqtt ? mqtt->Reconnects() : 0)
      << '\n';
  return out.str();
}

}  // namespace tamrik::serve

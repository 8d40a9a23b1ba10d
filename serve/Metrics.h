// GET /metrics: the state of every gateway in the Prometheus text format.
#pragma once

#include <string>

#include "Mqtt.h"
#include "State.h"

namespace tamrik::serve {

// mqtt: null when no broker is used.
std::string MetricsText(const StateStore& store, const MqttBridge* mqtt);

}  // namespace tamrik::serve

// The control channel over a simulator in this process: which requests a fault takes, what
// reset and clearing undo, and how requests it cannot do are refused.
#include <httplib.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Control.h"
#include "SimTestSupport.h"
#include "Simulator.h"

namespace tamrik::sim::test {
namespace {

using Json = nlohmann::json;

struct Steered {
  Simulator sim;
  ControlChannel control{sim, sim.GetStation()};
  httplib::Client client{"127.0.0.1", control.Start(0)};

  Steered() { client.set_read_timeout(5, 0); }

  // Status and body of one call.
  std::pair<int, Json> Call(const std::string& method, const std::string& path, const Json& body = nullptr) {
    const std::string text = body.is_null() ? "" : body.dump();
    httplib::Result r = method == "GET"      ? client.Get(path.c_str())
                        : method == "POST"   ? client.Post(path.c_str(), text, "application/json")
                        : method == "PUT"    ? client.Put(path.c_str(), text, "application/json")
                        : method == "PATCH"  ? client.Patch(path.c_str(), text, "application/json")
                                             : client.Delete(path.c_str());
    if (!r) return {0, nullptr};
    return {r->status, r->body.empty() ? Json() : Json::parse(r->body)};
  }

  // "ok", "bad" (wrong check value), "none", or the answer code of a refusal.
  std::string Serve(uint16_t code) {
    const Delivery d = sim.ServeFrame(Request(code), LinkKind::Direct);
    if (d.action != Delivery::Action::Send) return "none";
    const auto frame = ParseFrame(d.bytes);
    if (!frame) return "bad";
    return frame->code == code + 0x4000 ? "ok" : std::to_string(frame->code);
  }
};

TEST(ControlChannel, FaultsTakeTheirRequestsByServiceEveryNthAndCount) {
  Steered s;
  EXPECT_EQ(s.Call("POST", "/faults", {{"kind", "corrupt"}, {"service", 3}, {"every", 2}, {"count", 2}}).first, 201);
  std::vector<std::string> got;
  for (uint16_t code : {3, 4, 3, 3, 4, 3, 3, 3}) got.push_back(s.Serve(code));
  EXPECT_EQ(got, (std::vector<std::string>{"ok", "ok", "bad", "ok", "ok", "bad", "ok", "ok"}));
  // Used up, the rule is gone.
  EXPECT_EQ(s.Call("GET", "/faults").second, Json::array());

  const auto [status, made] = s.Call("POST", "/faults", {{"kind", "refuse"}, {"service", 4}, {"base", 0xC000}});
  ASSERT_EQ(status, 201);
  s.Call("POST", "/faults", {{"kind", "silence"}, {"count", 1}});
  EXPECT_EQ(s.Serve(4), "none");  // both rules take it; silence wins over any answer
  EXPECT_EQ(s.Serve(4), std::to_string(0xC004));
  EXPECT_EQ(s.Serve(3), "ok");
  const Json rules = s.Call("GET", "/faults").second;
  ASSERT_EQ(rules.size(), 1u);
  EXPECT_EQ(rules[0]["id"], made["id"]);
  EXPECT_EQ(rules[0]["applied"], 2);
  EXPECT_TRUE(rules[0]["count"].is_null());
  EXPECT_EQ(s.Call("DELETE", "/faults/" + std::to_string(made["id"].get<int>())).first, 204);
  EXPECT_EQ(s.Serve(4), "ok");

  // Clearing takes the faults set without the channel (the command line's) with it.
  s.sim.SetSilence(true);
  EXPECT_EQ(s.Serve(3), "none");
  EXPECT_EQ(s.Call("DELETE", "/faults").first, 204);
  EXPECT_EQ(s.Serve(3), "ok");
}

TEST(ControlChannel, ResetBringsBackTheStartingStationAndEmptiesTheLog) {
  Steered s;
  const Json start = s.Call("GET", "/station/identity").second;
  EXPECT_EQ(s.Call("PATCH", "/station/identity", {{"identity", "CHANGED"}, {"gateway_id", 7}}).first, 200);
  EXPECT_EQ(s.Call("PUT", "/station/outputs", {{"data", "01 02 03"}}).first, 204);
  EXPECT_EQ(s.Call("POST", "/faults", {{"kind", "silence"}}).first, 201);
  EXPECT_EQ(s.Serve(4), "none");
  EXPECT_EQ(s.Call("GET", "/requests").second.size(), 1u);
  EXPECT_EQ(s.sim.OutputImage(), (Bytes{1, 2, 3}));

  EXPECT_EQ(s.Call("POST", "/reset").first, 204);
  EXPECT_EQ(s.Call("GET", "/station/identity").second, start);
  EXPECT_EQ(s.Call("GET", "/requests").second, Json::array());
  EXPECT_EQ(s.Serve(4), "ok");
  EXPECT_EQ(s.Call("GET", "/station/outputs").second["data"], "000000");
}

TEST(ControlChannel, RefusesWithAJsonReasonAndChangesNothing) {
  Steered s;
  // The station but its clock, which runs.
  auto station = [&s] {
    Json j = s.Call("GET", "/station").second;
    j.erase("clock");
    return j;
  };
  const Json before = station();
  const std::vector<std::tuple<std::string, std::string, Json, int>> cases = {
      {"PATCH", "/station/identity", {{"identity", "NEW"}, {"station_address", 256}}, 400},
      {"PUT", "/station/modules", Json::array({{{"id", 1}}, {{"id", 0x1000000}}}), 400},
      {"PUT", "/station/errors", {{"code", 1}}, 400},
      {"PUT", "/station/clock", {{"seconds", 5}}, 400},
      {"PUT", "/station/inputs", {{"data", "010"}}, 400},
      {"POST", "/faults", {{"kind", "silence"}, {"often", true}}, 400},
      {"POST", "/faults", {{"kind", "refuse"}, {"base", 0x4000}}, 400},
      {"DELETE", "/faults/7", nullptr, 404},
      {"PUT", "/requests", {{"data", ""}}, 404},
  };
  for (const auto& [method, path, body, expected] : cases) {
    const auto [status, answer] = s.Call(method, path, body);
    EXPECT_EQ(status, expected) << method << " " << path;
    EXPECT_TRUE(answer.contains("error") && !answer["error"].get<std::string>().empty()) << method << " " << path;
  }
  // A body that is no JSON at all.
  const httplib::Result r = s.client.Put("/station/outputs", "{", "application/json");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->status, 400);
  EXPECT_EQ(r->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(station(), before);
  EXPECT_EQ(s.Call("GET", "/faults").second, Json::array());
}

}  // namespace
}  // namespace tamrik::sim::test

// The service against Debian's mosquitto on loopback: retained status, values on change,
// commands answered (refused where not writable, malformed ones too), retained topics back
// after the broker restarts, offline on SIGTERM, and two services on one broker.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <set>

#include "ServeSupport.h"
#include "Simulator.h"

namespace tamrik::test {
namespace {

bool Payload(const Message& message, const char* text) { return message.payload == text; }

Json Body(const std::optional<Message>& message) {
  return message ? Json::parse(message->payload, nullptr, false) : Json();
}

struct Plant {
  explicit Plant(const Broker& broker, const std::vector<std::pair<std::string, bool>>& gateways,
                 const std::string& prefix = "plant") {
    std::string text = "[mqtt]\nhost = \"127.0.0.1\"\nport = " + std::to_string(broker.port()) + "\nprefix = \"" +
                       prefix + "\"\nrepublish = 0\n[http]\nlisten = \"127.0.0.1:0\"\n\n";
    for (const auto& [name, writable] : gateways) {
      sims.push_back(std::make_unique<sim::Simulator>());
      text += GatewayTable(name, sims.back()->StartTcp(), writable);
    }
    dir.Write("plant.toml", text);
  }
  std::string file() const { return dir.File("plant.toml"); }
  TempDir dir;
  std::vector<std::unique_ptr<sim::Simulator>> sims;
};

TEST(ServeMqtt, StatusValuesCommandsAndOfflineOnStop) {
  Broker broker;
  ASSERT_TRUE(broker.running());
  Plant plant(broker, {{"press", true}, {"lathe", false}});
  Subscriber all(broker.port(), "plant/#");
  ASSERT_TRUE(all.connected());
  ServeProcess serve({"--config", plant.file()});
  ASSERT_TRUE(serve.started());
  ASSERT_TRUE(all.WaitOn("plant/press/status", [](const Message& m) { return Payload(m, "online"); }, 10000));
  EXPECT_TRUE(all.WaitOn("plant/_service/status", [](const Message& m) { return Payload(m, "online"); }, 5000));

  // A subscriber that comes later gets the retained topics at once.
  Subscriber late(broker.port(), "plant/press/+");
  const auto status = late.WaitOn("plant/press/status", [](const Message& m) { return m.retained; }, 5000);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->payload, "online");
  EXPECT_EQ(Body(late.WaitOn("plant/press/modules", [](const Message& m) { return m.retained; }, 5000)).size(), 3u);
  EXPECT_TRUE(Body(late.WaitOn("plant/press/identity", [](const Message& m) { return m.retained; }, 5000)).is_object());

  // Inputs move with every read: one message per change, each with its time and bytes.
  ASSERT_TRUE(WaitFor([&] { return all.On("plant/press/inputs").size() >= 3; }, 5000));
  const std::vector<Message> inputs = all.On("plant/press/inputs");
  const Json first = Json::parse(inputs[0].payload), second = Json::parse(inputs[1].payload);
  EXPECT_NE(first["bytes"], second["bytes"]);
  EXPECT_EQ(first["ts"].get<std::string>().size(), 24u);  // 2026-11-25T11:50:00.123Z
  EXPECT_FALSE(inputs[0].retained);

  all.Publish("plant/press/outputs/set", R"({"id": "w1", "bytes": [7, 8, 9]})");
  EXPECT_EQ(Body(all.WaitOn("plant/press/outputs/result", [](const Message&) { return true; }, 5000)),
            Json({{"id", "w1"}, {"ok", true}}));
  EXPECT_EQ(plant.sims[0]->OutputImage(), (std::vector<uint8_t>{7, 8, 9}));
  EXPECT_TRUE(all.WaitOn("plant/press/outputs", [](const Message& m) {
    return Json::parse(m.payload)["bytes"] == Json({7, 8, 9});
  }, 5000));

  const std::vector<uint8_t> latheBefore = plant.sims[1]->OutputImage();
  all.Publish("plant/lathe/outputs/set", R"({"id": 17, "bytes": [7]})");
  const Json refused = Body(all.WaitOn("plant/lathe/outputs/result", [](const Message&) { return true; }, 5000));
  EXPECT_EQ(refused["id"], 17);
  EXPECT_EQ(refused["ok"], false);
  EXPECT_EQ(refused["name"], "NotWritable");
  EXPECT_EQ(plant.sims[1]->OutputImage(), latheBefore);

  all.Publish("plant/press/outputs/set", "not json at all");
  all.Publish("plant/press/outputs/set", R"({"id": "m2", "bytes": "01 02"})");
  all.Publish("plant/press/outputs/set", R"({"id": "m3"})");
  ASSERT_TRUE(WaitFor([&] { return all.On("plant/press/outputs/result").size() >= 4; }, 5000));
  const std::vector<Message> results = all.On("plant/press/outputs/result");
  for (size_t i = 1; i < 4; ++i) {
    const Json result = Json::parse(results[i].payload);
    EXPECT_EQ(result["ok"], false) << results[i].payload;
    EXPECT_EQ(result["name"], "Malformed") << results[i].payload;
  }
  EXPECT_EQ(Json::parse(results[2].payload)["id"], "m2");
  EXPECT_EQ(plant.sims[0]->OutputImage(), (std::vector<uint8_t>{7, 8, 9}));

  EXPECT_EQ(serve.Stop(SIGTERM), 0);
  EXPECT_TRUE(all.WaitOn("plant/press/status", [](const Message& m) { return Payload(m, "offline"); }, 5000));
  EXPECT_TRUE(all.WaitOn("plant/lathe/status", [](const Message& m) { return Payload(m, "offline"); }, 5000));
  EXPECT_TRUE(all.WaitOn("plant/_service/status", [](const Message& m) { return Payload(m, "offline"); }, 5000));
}

TEST(ServeMqtt, RetainedTopicsReturnAfterTheBrokerRestarts) {
  Broker broker;
  ASSERT_TRUE(broker.running());
  Plant plant(broker, {{"press", false}});
  ServeProcess serve({"--config", plant.file()});
  ASSERT_TRUE(serve.started());
  {
    Subscriber before(broker.port(), "plant/#");
    ASSERT_TRUE(before.WaitOn("plant/press/status", [](const Message& m) { return Payload(m, "online"); }, 10000));
  }
  // A broker without persistence forgets everything retained.
  broker.Stop();
  ASSERT_TRUE(broker.Start());
  Subscriber after(broker.port(), "plant/#");
  ASSERT_TRUE(after.connected());
  EXPECT_TRUE(after.WaitOn("plant/press/status", [](const Message& m) { return Payload(m, "online"); }, 20000));
  EXPECT_TRUE(after.WaitOn("plant/press/modules", [](const Message&) { return true; }, 5000));
  EXPECT_TRUE(after.WaitOn("plant/press/identity", [](const Message&) { return true; }, 5000));
  EXPECT_TRUE(after.WaitOn("plant/_service/status", [](const Message& m) { return Payload(m, "online"); }, 5000));
  // The service is still polling, and publishing changes.
  const size_t seen = after.On("plant/press/inputs").size();
  EXPECT_TRUE(WaitFor([&] { return after.On("plant/press/inputs").size() > seen + 2; }, 5000));
  EXPECT_EQ(serve.Stop(SIGTERM), 0);
}

TEST(ServeMqtt, TwoServicesWithDisjointGatewaysShareOneBroker) {
  Broker broker;
  ASSERT_TRUE(broker.running());
  // Each service under a prefix of its own, so that each has its own service status; one
  // subscriber to the common part sees every gateway.
  Plant east(broker, {{"east1", true}, {"east2", false}}, "plant/east");
  Plant west(broker, {{"west1", true}, {"west2", false}}, "plant/west");
  Subscriber all(broker.port(), "plant/#");
  ServeProcess one({"--config", east.file()});
  ServeProcess two({"--config", west.file()});
  ASSERT_TRUE(one.started() && two.started());
  for (const char* name : {"east/east1", "east/east2", "west/west1", "west/west2", "east/_service", "west/_service"}) {
    EXPECT_TRUE(all.WaitOn(std::string("plant/") + name + "/status",
                           [](const Message& m) { return Payload(m, "online"); }, 10000))
        << name;
  }
  // A command is answered by the service that has the gateway, once.
  all.Publish("plant/west/west1/outputs/set", R"({"id": "x", "bytes": [3]})");
  EXPECT_TRUE(all.WaitOn("plant/west/west1/outputs/result", [](const Message&) { return true; }, 5000));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(all.On("plant/west/west1/outputs/result").size(), 1u);
  EXPECT_EQ(west.sims[0]->OutputImage().at(0), 3);
  EXPECT_EQ(one.Stop(SIGTERM), 0);
  // One service gone: it and its gateways offline, the other and its gateways still online.
  EXPECT_TRUE(all.WaitOn("plant/east/east1/status", [](const Message& m) { return Payload(m, "offline"); }, 5000));
  EXPECT_TRUE(all.WaitOn("plant/east/_service/status", [](const Message& m) { return Payload(m, "offline"); }, 5000));
  EXPECT_EQ(all.On("plant/west/west1/status").back().payload, "online");
  EXPECT_EQ(all.On("plant/west/_service/status").back().payload, "online");
  EXPECT_EQ(two.Stop(SIGTERM), 0);
}

// A plant of a thousand gateways puts the broker connection above descriptor 1023, where a
// loop that waits with select() fails without a word: the service here starts with 1100
// descriptors taken, inherited from the test.
TEST(ServeMqtt, BrokerConnectionAboveDescriptor1023) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 1300) GTEST_SKIP() << "the hard limit of open files is below 1300";
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1300);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  Broker broker;
  ASSERT_TRUE(broker.running());
  Plant plant(broker, {{"press", true}});
  Subscriber all(broker.port(), "plant/#");
  ASSERT_TRUE(all.connected());
  std::vector<int> taken;
  for (int i = 0; i < 1100; ++i) taken.push_back(open("/dev/null", O_RDONLY));
  ServeProcess serve({"--config", plant.file()});
  for (int fd : taken) close(fd);
  ASSERT_TRUE(serve.started());
  EXPECT_TRUE(all.WaitOn("plant/press/status", [](const Message& m) { return Payload(m, "online"); }, 10000));
  all.Publish("plant/press/outputs/set", R"({"id": "high", "bytes": [5]})");
  EXPECT_EQ(Body(all.WaitOn("plant/press/outputs/result", [](const Message&) { return true; }, 5000))["ok"], true);
  EXPECT_EQ(plant.sims[0]->OutputImage().at(0), 5);
  EXPECT_EQ(serve.Stop(SIGTERM), 0);
}

}  // namespace
}  // namespace tamrik::test

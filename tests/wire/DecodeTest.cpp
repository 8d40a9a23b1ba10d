// `tamrik decode` on traces the tool writes itself with --trace, and on hexadecimal bytes: the
// frames it finds and what it decodes must be what the driver delivered for the same bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli/ToolSupport.h"
#include "common/TestSupport.h"

namespace tamrik {
namespace {

using test::Json;
using test::RunResult;
using test::Tool;
using test::ToolJson;

// The tool's run against its built-in gateway with the trace on; the trace lands in a file.
Json TracedRun(const test::TempDir& dir, const std::string& file, std::vector<std::string> args) {
  args.insert(args.begin(), "--trace");
  RunResult run;
  const Json doc = ToolJson(args, &run);
  dir.Write(file, run.err);
  return doc;
}

// Decoded frames by kind and service name, in order.
std::vector<Json> Frames(const Json& decoded, const std::string& kind, const std::string& name) {
  std::vector<Json> out;
  for (const Json& frame : decoded["frames"]) {
    if (frame.value("kind", "") == kind && frame.value("name", "") == name) out.push_back(frame);
  }
  return out;
}

TEST(Decode, TraceOfInfoGivesEveryExchangeDecodedAsTheDriverReadIt) {
  test::TempDir dir;
  const Json info = TracedRun(dir, "info.trace", {"--sim-refuse", "0x101:0x8000:0x07", "info"});
  const Json decoded = ToolJson({"decode", dir.File("info.trace")});
  ASSERT_TRUE(decoded.value("ok", false)) << decoded.dump();
  EXPECT_EQ(decoded["input"], "trace");
  // Eleven exchanges, each a request sent and an answer received, all intact.
  ASSERT_EQ(decoded["count"], 22u) << decoded.dump(1);
  EXPECT_EQ(decoded["bad_check_values"], 0u);
  for (size_t i = 0; i < 22; ++i) {
    const Json& frame = decoded["frames"][i];
    EXPECT_EQ(frame["direction"], i % 2 == 0 ? "sent" : "received") << frame.dump();
    EXPECT_TRUE(frame["check_value_good"].get<bool>()) << frame.dump();
  }
  const auto identity = Frames(decoded, "answer", "GatewayIdString");
  ASSERT_EQ(identity.size(), 1u);
  EXPECT_EQ(identity[0]["decoded"]["text"], info["identity"]);
  EXPECT_EQ(identity[0]["method"], "kaVGetGatewayIdSring");
  const auto refusal = Frames(decoded, "refusal", "GatewayVersion");
  ASSERT_EQ(refusal.size(), 1u);
  EXPECT_EQ(refusal[0]["code"], 0x8101);
  EXPECT_EQ(refusal[0]["decoded"]["reason"], 7);
  // The driver's own result for the refusal is the one the info run reported for its part.
  EXPECT_EQ(refusal[0]["decoded"]["result"]["code"], info["version"]["error"]["code"]);
  EXPECT_EQ(Frames(decoded, "answer", "BootVersion").at(0)["decoded"]["value"], info["boot_version"]);

  // The same trace as text from standard input: one line a frame.
  const RunResult text = test::Run({"/bin/sh", "-c", std::string(TAMRIK_TOOL) + " decode < " + dir.File("info.trace")});
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(std::count(text.out.begin(), text.out.end(), '\n'), 22) << text.out;
  EXPECT_NE(text.out.find("received refusal  0x8101 GatewayVersion"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("\"" + info["identity"].get<std::string>() + "\""), std::string::npos) << text.out;
}

TEST(Decode, ModulesErrorsAndClockDecodeAsTheirCommandsShowThem) {
  test::TempDir dir;
  const Json modules = TracedRun(dir, "modules.trace", {"modules"});
  const Json errors = TracedRun(dir, "errors.trace", {"errors"});
  const Json clock = TracedRun(dir, "clock.trace", {"clock"});

  const auto list = Frames(ToolJson({"decode", dir.File("modules.trace")}), "answer", "ModuleList");
  ASSERT_FALSE(list.empty());
  const Json& decodedModules = list[0]["decoded"]["modules"];
  ASSERT_EQ(decodedModules.size(), modules["modules"].size());
  for (size_t i = 0; i < decodedModules.size(); ++i) {
    EXPECT_EQ(decodedModules[i]["id"], modules["modules"][i]["id"]);
    EXPECT_EQ(decodedModules[i]["status"], modules["modules"][i]["status"]);
  }

  const auto errorList = Frames(ToolJson({"decode", dir.File("errors.trace")}), "answer", "ErrorList");
  ASSERT_EQ(errorList.size(), 1u);
  const Json& decodedErrors = errorList[0]["decoded"]["errors"];
  ASSERT_EQ(decodedErrors.size(), errors["errors"].size());
  for (size_t i = 0; i < decodedErrors.size(); ++i) {
    EXPECT_EQ(decodedErrors[i]["code"], errors["errors"][i]["code"]);
    EXPECT_EQ(decodedErrors[i]["duration_ms"], errors["errors"][i]["duration_ms"]);
    EXPECT_EQ(decodedErrors[i]["extra"], errors["errors"][i]["extra"]);
  }

  const auto time = Frames(ToolJson({"decode", dir.File("clock.trace")}), "answer", "GatewayTime");
  ASSERT_EQ(time.size(), 1u);
  EXPECT_EQ(time[0]["decoded"]["milliseconds"].get<int64_t>() / 1000, clock["total_seconds"].get<int64_t>());
  EXPECT_EQ(time[0]["decoded"]["clock"].get<std::string>().rfind(clock["clock"].get<std::string>() + ".", 0), 0u)
      << time[0].dump();
}

TEST(Decode, HexBytesWithNoiseABadCheckValueAndAFrameCutShort) {
  test::TempDir dir;
  // A request for the gateway version, its answer after two noise bytes (written with 0x and
  // over two lines), the same answer with its check value spoilt, and a header with nothing after it.
  dir.Write("frames.hex",
            "AA0101000083D0\n"
            "13 48 0xAA 0x01 0x41 0x02 0x00\n02 01 44 AA\n"
            "AA 01 41 02 00 02 01 44 55\n"
            "AA 00 41 0F 00 54 41\n");
  const Json decoded = ToolJson({"decode", dir.File("frames.hex")});
  ASSERT_TRUE(decoded.value("ok", false)) << decoded.dump();
  EXPECT_EQ(decoded["input"], "hex");
  ASSERT_EQ(decoded["count"], 4u) << decoded.dump(1);
  EXPECT_EQ(decoded["bad_check_values"], 1u);
  const Json& frames = decoded["frames"];
  EXPECT_EQ(frames[0]["kind"], "request");
  EXPECT_EQ(frames[0]["name"], "GatewayVersion");
  EXPECT_FALSE(frames[0].contains("direction"));
  EXPECT_EQ(frames[1]["noise"], Json::array({0x13, 0x48}));
  EXPECT_EQ(frames[1]["decoded"]["value"], 0x0102);
  EXPECT_TRUE(frames[1]["check_value_good"].get<bool>());
  EXPECT_FALSE(frames[2]["check_value_good"].get<bool>());
  EXPECT_EQ(frames[2]["computed_check_value"], 0xAA44);
  EXPECT_FALSE(frames[3]["complete"].get<bool>());
  EXPECT_EQ(frames[3]["name"], "GatewayIdString");

  const RunResult text = Tool({"decode", dir.File("frames.hex")});
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("check 0x5544 BAD (computed 0xAA44)"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("[2 bytes before the start byte]"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("cut short after 7 bytes"), std::string::npos) << text.out;

  dir.Write("nonsense.txt", "this is no trace\n");
  const RunResult nonsense = Tool({"decode", dir.File("nonsense.txt")});
  EXPECT_EQ(nonsense.status, 2) << nonsense.out;
  EXPECT_NE(nonsense.err.find("neither the driver's trace nor hexadecimal bytes"), std::string::npos) << nonsense.err;
  EXPECT_EQ(Tool({"decode", dir.File("missing.trace")}).status, 2);
}

}  // namespace
}  // namespace tamrik

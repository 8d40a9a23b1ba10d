// The tool next to live equipment: changes only with --yes, inputs checked before anything
// is sent, stops that clean up, failures that say what happened, in text and in JSON.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "common/Loopback.h"
#include "Simulator.h"
#include "cli/ProcessSupport.h"
#include "cli/ToolSupport.h"
#include "common/TestSupport.h"

namespace tamrik {
namespace {

using test::Json;
using test::Flag;
using test::Process;
using test::RunResult;
using test::Tool;
using test::Int;
using test::Text;
using test::ToolJson;

// A gateway of the test's own on a loopback TCP port: a "real" link for the tool.
struct Gateway {
  Gateway() : port(sim.StartTcp()) {}
  std::vector<std::string> Link() const { return {"--tcp", "127.0.0.1:" + std::to_string(port)}; }
  sim::Simulator sim;
  uint16_t port;
};

std::vector<std::string> Join(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(Safety, EveryChangeNeedsYesOnARealLinkAndSendsNothingWithout) {
  test::TempDir dir;
  dir.Write("image.bin", std::string(600, 'x'));
  dir.Write("fw.hex", ":0400000001020304F2\n:00000001FF\n");
  dir.Write("bsl.txt", "0102\n");
  dir.Write("boot.txt", "0304\n");
  const std::vector<std::vector<std::string>> changes = {
      {"outputs", "01"}, {"params", "01"}, {"opmode", "2"}, {"address", "9"}, {"reset"}, {"fbi", "start"},
      {"fbi", "reset"}, {"leds", "1"}, {"service-baud", "19200"}, {"privileged", "enter", "me"},
      {"service", "0x101"}, {"block", "write", "AA"}, {"tr", "clear"}, {"stream", "position", "1", "2"},
      {"stream", "write", "1", "2", "03"}, {"dnet", "set", "01 01 07 41"}, {"monitor", "start"},
      {"image", dir.File("image.bin")}, {"image", "--cancel"}, {"firmware", dir.File("fw.hex")},
      {"boot", dir.File("bsl.txt"), "-", dir.File("boot.txt"), dir.File("fw.hex")}, {"demo"}};
  Gateway gateway;
  for (const auto& change : changes) {
    const auto args = Join(gateway.Link(), change);
    const RunResult run = Tool(args);
    SCOPED_TRACE(test::Describe(args, run));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err.rfind("tamrik: would ", 0), 0u);
    EXPECT_NE(run.err.find("nothing was sent"), std::string::npos);
    EXPECT_NE(run.err.find("--yes"), std::string::npos);
  }
  // Not one request, not even a connection.
  EXPECT_EQ(gateway.sim.Requests().size(), 0u);
  EXPECT_EQ(gateway.sim.TcpConnectionsAccepted(), 0u);
  // The address goes out with the operation-mode service code, and the refusal says so.
  const RunResult address = Tool(Join(gateway.Link(), {"address", "9"}));
  EXPECT_NE(address.err.find("operation-mode service code 262"), std::string::npos) << address.err;

  // With --yes the change is made; reading needs no --yes.
  const std::vector<uint8_t> before = gateway.sim.OutputImage();
  Json doc = ToolJson(Join(gateway.Link(), {"--yes", "outputs", "A5"}));
  EXPECT_TRUE(Flag(doc, "ok"));
  EXPECT_EQ(gateway.sim.OutputImage()[0], 0xA5);
  EXPECT_EQ(gateway.sim.OutputImage().size(), before.size());
  doc = ToolJson(Join(gateway.Link(), {"-y", "opmode", "2"}));
  EXPECT_EQ(Int(doc, "operation_mode"), 2);
  doc = ToolJson(Join(gateway.Link(), {"inputs"}));
  EXPECT_TRUE(Flag(doc, "ok"));

  // The tour on a real link writes outputs and an image: with --yes it runs and leaves the
  // outputs as they were.
  const std::vector<uint8_t> outputs = gateway.sim.OutputImage();
  const RunResult tour = Tool(Join(gateway.Link(), {"--yes", "demo"}));
  EXPECT_EQ(tour.status, 0) << tour.out << tour.err;
  EXPECT_EQ(gateway.sim.OutputImage(), outputs);
  ASSERT_TRUE(gateway.sim.CompletedImage().has_value());
  EXPECT_EQ(gateway.sim.CompletedImage()->data.size(), 64u * 1024);
}

TEST(Safety, InputsAreCheckedBeforeAnythingIsSent) {
  test::TempDir dir;
  Gateway gateway;
  dir.Write("empty.bin", "");
  const std::string good = ":0400000001020304F2\n:00000001FF\n";
  struct Case {
    std::string name, content;
    std::string message;  // after "FILE:"
  };
  const std::vector<Case> firmware = {
      {"lower.hex", ":04000000010203f4F2\n", "1: lower-case digit 'f' at column 16"},
      {"sum.hex", good + ":0400000001020304F3\n", "3: check byte 0xF3, the record's bytes need 0xF2"},
      {"count.hex", ":0500000001020304F1\n", "1: the count byte says 5 data bytes, the record holds 4"},
      {"odd.hex", "comment line\n:0400000001020304F\n", "2: odd number of hexadecimal digits"},
      {"text.hex", "x:00000001FF\n", "1: text before the record's ':'"},
      {"none.hex", "no records here\n", " no records"},
  };
  for (const Case& c : firmware) {
    dir.Write(c.name, c.content);
    const auto args = Join(gateway.Link(), {"--yes", "firmware", dir.File(c.name)});
    const RunResult run = Tool(args);
    SCOPED_TRACE(test::Describe(args, run));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("tamrik: " + dir.File(c.name) + ":" + c.message), std::string::npos);
  }
  dir.Write("fw.hex", good);
  dir.Write("bsl.txt", "0102\n");
  dir.Write("boot-gap.txt", "0304\n0506\n");
  dir.Write("boot-big.txt", std::string(10002, '1'));
  const std::vector<std::pair<std::vector<std::string>, std::string>> others = {
      {{"image", dir.File("empty.bin")}, dir.File("empty.bin") + " is empty"},
      {{"boot", dir.File("bsl.txt"), "-", dir.File("boot-gap.txt"), dir.File("fw.hex")},
       dir.File("boot-gap.txt") + ":2: Boot file: digits after the white space"},
      {{"boot", dir.File("bsl.txt"), "-", dir.File("boot-big.txt"), dir.File("fw.hex")},
       "Boot file holds more than 5000 bytes"},
      {{"boot", dir.File("bsl.txt"), "-", dir.File("fw.hex"), dir.File("fw.hex")}, "Boot file: ':'"},
  };
  for (const auto& [command, message] : others) {
    const auto args = Join(Join(gateway.Link(), {"--yes"}), command);
    const RunResult run = Tool(args);
    SCOPED_TRACE(test::Describe(args, run));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(message), std::string::npos);
  }
  EXPECT_EQ(gateway.sim.TcpConnectionsAccepted(), 0u);

  // A bit table that is no permutation of 0 to 31 is a usage mistake.
  std::string twice = "0";
  for (int i = 0; i < 31; ++i) twice += "," + std::to_string(i);
  for (const std::string& bits : {twice, std::string("1,2,3"), std::string("0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,"
                                                                          "18,19,20,21,22,23,24,25,26,27,28,29,30,32")}) {
    const RunResult run = Tool({"--privileged-bits", bits, "privileged", "channel"});
    EXPECT_EQ(run.status, 2) << bits << run.err;
    EXPECT_NE(run.err.find("--privileged-bits"), std::string::npos) << run.err;
  }

  // More output bytes than the station's output image holds: refused with the image's size,
  // the outputs untouched.
  const std::vector<uint8_t> outputs = gateway.sim.OutputImage();
  RunResult run;
  const Json doc = ToolJson(Join(gateway.Link(), {"--yes", "outputs", std::string(2 * (outputs.size() + 1), '7')}), &run);
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(Text(doc.at("error"), "text").find("holds " + std::to_string(outputs.size()) + " bytes"),
            std::string::npos);
  EXPECT_EQ(gateway.sim.OutputImage(), outputs);
}

TEST(Safety, InfoShowsWhatItReadAndMarksEachFailedPart) {
  const std::vector<std::string> args = {"--sim-refuse", "0x101", "--sim-refuse", "0x10F:0xC000:7", "info"};
  const RunResult run = Tool(args);
  SCOPED_TRACE(test::Describe(args, run));
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.out.find("identity         TAMRIK-SIM GW-1"), std::string::npos);
  EXPECT_NE(run.out.find("FAILED 0x28101 Refused"), std::string::npos);
  EXPECT_NE(run.err.find("tamrik: kaVGetGatewayVersion failed: 0x28101 Refused:"), std::string::npos);

  RunResult jsonRun;
  const Json doc = ToolJson(args, &jsonRun);
  EXPECT_EQ(jsonRun.status, 1);
  EXPECT_FALSE(Flag(doc, "ok"));
  EXPECT_EQ(Text(doc, "identity"), "TAMRIK-SIM GW-1");
  EXPECT_EQ(Int(doc, "gateway_id"), 0x12345678);
  ASSERT_TRUE(doc.contains("version") && doc.at("version").contains("error")) << doc.dump();
  const Json& error = doc.at("version").at("error");
  EXPECT_EQ(Int(error, "code"), 0x28101);
  EXPECT_EQ(Text(error, "name"), "Refused");
  EXPECT_FALSE(Text(error, "text").empty());
  // The whole document's error is the first failure.
  EXPECT_EQ(Int(doc.at("error"), "code"), 0x28101);
}

TEST(Safety, FailuresOfTheLinkSayWhatHappened) {
  const uint16_t port = test::ClosedLoopbackPort();
  const std::string peer = "127.0.0.1:" + std::to_string(port);
  const RunResult run = Tool({"--tcp", peer, "inputs"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("tamrik: " + peer + " refused the connection"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("0x3D304D ConnectFailed"), std::string::npos) << run.err;  // 4000000 + 10061
  RunResult jsonRun;
  const Json doc = ToolJson({"--tcp", peer, "inputs"}, &jsonRun);
  EXPECT_EQ(Int(doc.at("error"), "code"), 4010061);
  EXPECT_EQ(Text(doc.at("error"), "name"), "ConnectFailed");

  // --timeout is the socket answer bound: a gateway that answers after 300 ms is too slow for
  // the default and in time for 1000 ms.
  Gateway slow;
  slow.sim.SetAnswerDelay(300);
  const RunResult late = Tool(Join(slow.Link(), {"switches"}));
  EXPECT_EQ(late.status, 1) << late.out << late.err;
  const RunResult patient = Tool(Join(slow.Link(), {"--timeout", "1000", "switches"}));
  EXPECT_EQ(patient.status, 0) << patient.out << patient.err;
  EXPECT_NE(patient.out.find("0x0003"), std::string::npos);
}

TEST(Safety, SignalsCancelAnImageAndEndAWatchWithItsSummary) {
  test::TempDir dir;
  Gateway gateway;
  gateway.sim.SetAnswerDelay(20);
  dir.Write("image.bin", std::string(256 * 200, 'i'));
  for (int signal : {SIGINT, SIGTERM}) {
    const size_t cancels = gateway.sim.GetEngineState().imageCancels;
    Process tool(Join({TAMRIK_TOOL}, Join(gateway.Link(), {"--yes", "image", dir.File("image.bin")})));
    // Well into the download, but far from its end.
    ASSERT_TRUE(gateway.sim.WaitForRequests(gateway.sim.Requests().size() + 10, 5000));
    kill(tool.pid(), signal);
    const RunResult run = tool.Finish(10000);
    SCOPED_TRACE(run.out + run.err);
    EXPECT_EQ(run.status, 130);
    EXPECT_NE(run.err.find("tamrik: image download interrupted after"), std::string::npos);
    EXPECT_NE(run.err.find("the cancel was sent to the gateway"), std::string::npos);
    EXPECT_EQ(gateway.sim.GetEngineState().imageCancels, cancels + 1);
    EXPECT_FALSE(gateway.sim.CompletedImage().has_value());
  }

  Process watch({TAMRIK_TOOL, "watch", "-n", "0", "-i", "20"});
  ASSERT_TRUE(watch.WaitForOutput("#3 ", 10000)) << watch.out() << watch.err();
  const RunResult run = watch.Stop(10000);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(std::regex_search(run.out, std::regex(R"(\n\d+ reads, 0 failures, 0 reconnects, \d+ bytes changed; )"
                                                    R"(exchange time mean \d+\.\d ms, worst \d+\.\d ms\n$)")))
      << run.out;
}

TEST(Safety, WatchWritesCsvAndReconnectsAfterADroppedLink) {
  Gateway gateway;
  // The second answer is never sent: the connection closes instead.
  gateway.sim.FaultNextAnswer(sim::AnswerFault());
  gateway.sim.FaultNextAnswer(sim::AnswerFault().Drop());
  const auto args = Join(gateway.Link(), {"watch", "-n", "6", "-i", "20", "--csv", "--reconnect"});
  const RunResult run = Tool(args);
  SCOPED_TRACE(test::Describe(args, run));
  EXPECT_EQ(run.status, 0);
  std::istringstream lines(run.out);
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line, "time,read,ms,exchange_ms,inputs,changed,error");
  const std::regex row(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z,(\d+),\d+,\d+\.\d{3},([0-9A-F ]*),\d+,(\w*))");
  int rows = 0, failed = 0;
  while (std::getline(lines, line)) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, row)) << line;
    EXPECT_EQ(match[1].str(), std::to_string(++rows));
    if (!match[3].str().empty()) ++failed;
  }
  EXPECT_EQ(rows, 6);
  EXPECT_EQ(failed, 1);
  EXPECT_NE(run.err.find("6 reads, 1 failures ("), std::string::npos);
  EXPECT_NE(run.err.find("1 reconnects"), std::string::npos);
  EXPECT_EQ(gateway.sim.TcpConnectionsAccepted(), 2u);

  // The same summary under --json, from the driver object's counters.
  gateway.sim.FaultNextAnswer(sim::AnswerFault().Drop());
  RunResult jsonRun;
  const Json doc = ToolJson(Join(gateway.Link(), {"watch", "-n", "4", "-i", "20", "--reconnect"}), &jsonRun);
  EXPECT_EQ(Int(doc, "count"), 4);
  EXPECT_EQ(Int(doc, "failures"), 1);
  EXPECT_EQ(Int(doc, "reconnects"), 1);
  EXPECT_EQ(doc.at("failures_by_name").size(), 1u);
  EXPECT_GT(Int(doc, "exchanges"), 3);

  // Without --reconnect a failure ends the watch, with the summary and status 1.
  gateway.sim.FaultNextAnswer(sim::AnswerFault().Drop());
  const RunResult once = Tool(Join(gateway.Link(), {"watch", "-n", "4", "-i", "20"}));
  EXPECT_EQ(once.status, 1);
  EXPECT_NE(once.out.find("1 reads, 1 failures"), std::string::npos) << once.out;
}

TEST(Safety, NoTemporaryFileIsLeftOnAnyPath) {
  test::TempDir tmp;
  test::TempDir dir;
  const char* old = std::getenv("TMPDIR");
  const std::string saved = old != nullptr ? old : "";
  setenv("TMPDIR", tmp.path().c_str(), 1);
  dir.Write("kaVdmo.ini", "[Station]\nModNum=1\nModId1=0A1234\nGWIdString=Mine\nGatewayId=0000ABCD\n"
                          "[ProcessData]\nMode=1\nModi1=1100000010000000\nModo1=00000000\n");
  dir.Write("fw.hex", ":0400000001020304F2\n:00000001FF\n");
  dir.Write("bsl.txt", "0102\n");
  dir.Write("boot.txt", "0304\n");
  dir.Write("kaVBoot.ini", "[BSL-Files]\nBSL_File=" + dir.File("bsl.txt") + "\nBoot_File=" + dir.File("boot.txt") +
                               "\nBoot_Firmware=" + dir.File("fw.hex") + "\n");
  const std::vector<std::vector<std::string>> runs = {
      {"demo"}, {"--demo", dir.File("kaVdmo.ini"), "outputs", "05"}, {"--demo", dir.File("kaVdmo.ini"), "demo"},
      {"firmware", dir.File("fw.hex")}, {"boot", "--ini", dir.File("kaVBoot.ini")}, {"--sim-refuse", "0x120", "demo"},
      {"--tcp", "127.0.0.1:" + std::to_string(test::ClosedLoopbackPort()), "info"}, {"outputs", "zz"}};
  for (const auto& args : runs) {
    const RunResult run = Tool(args);
    EXPECT_NE(run.status, -1) << test::Describe(args, run);
  }
  Process tour({TAMRIK_TOOL, "watch", "-n", "0", "-i", "10"});
  EXPECT_TRUE(tour.WaitForOutput("#2 ", 10000));
  EXPECT_EQ(tour.Stop(10000).status, 0);
  if (old != nullptr) setenv("TMPDIR", saved.c_str(), 1);
  else unsetenv("TMPDIR");
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(tmp.path())) left.push_back(entry.path().string());
  EXPECT_TRUE(left.empty()) << left.front();
  std::vector<std::string> mine;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) mine.push_back(entry.path().filename());
  EXPECT_EQ(mine.size(), 5u);
}

}  // namespace
}  // namespace tamrik

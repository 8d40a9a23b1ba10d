#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "SimEngine.h"
#include "SimTestSupport.h"
#include "protocol/Codec.h"
#include "protocol/ServiceTable.h"

namespace tamrik::sim::test {
namespace {

// The answer to one request; a missing answer shows as code 0.
Answer Ask(ServiceEngine& e, uint16_t code, const Bytes& data = {}) {
  return e.Respond(code, data).value_or(Answer{});
}

Bytes Le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

TEST(SimEngine, AnswersLiteralFramesByteForByte) {
  ServiceEngine e;
  EXPECT_EQ(ToHex(e.Serve(HexBytes("AA 01 01 00 00 83 D0"))), "AA 01 41 02 00 02 01 44 AA");
  // Input image of the default station: a digital module of 2 bytes, an analogue one of 4.
  EXPECT_EQ(ToHex(e.Serve(HexBytes("AA 03 00 00 00 29 B3"))), "AA 03 40 06 00 01 01 01 01 01 01 D0 59");
  // A request with a wrong check value gets no answer at all.
  EXPECT_TRUE(e.Serve(HexBytes("AA 01 01 00 00 83 D1")).empty());
}

TEST(SimEngine, IdentityAndSettingsComeFromTheStation) {
  Station s = DefaultStation();
  s.identity = "GW";
  s.bootId = "BOOT";
  s.versionString = "V1";
  s.bootVersion = 0x0304;
  s.gatewayId = 0xA1B2C3D4;
  s.stationAddress = 7;
  s.switches = 0x8001;
  s.bootHwInfo = {0x0001, 0x1234};
  s.privilegedChannel = 0x00010203;
  s.privilegedName = "PN";
  s.dnetSerial = 0x01020304;
  s.toolIdent = "TI";
  ServiceEngine e(s);
  const std::vector<std::pair<uint16_t, Bytes>> expected = {
      {256, {'G', 'W'}},      {258, {'B', 'O', 'O', 'T'}}, {259, HexBytes("04 03")},
      {265, {'V', '1'}},      {267, HexBytes("D4 C3 B2 A1")}, {268, {7}},
      {274, HexBytes("01 80")}, {276, HexBytes("01 00 34 12")}, {305, HexBytes("03 02 01 00")},
      {306, {'P', 'N'}},      {2306, HexBytes("04 03 02 01")}, {2308, {'T', 'I'}},
  };
  for (const auto& [code, data] : expected) {
    const Answer a = Ask(e, code);
    EXPECT_EQ(a.code, code + 0x4000) << code;
    EXPECT_EQ(ToHex(a.data), ToHex(data)) << code;
  }
}

TEST(SimEngine, ModuleListsCarryStatusThenIdentifier) {
  ServiceEngine e;
  EXPECT_EQ(ToHex(Ask(e, 1).data), "01 01 11 02 01 03 52 04 01 04 30 01");
  EXPECT_EQ(ToHex(Ask(e, 15).data), "00 10 00");  // stream sizes
  EXPECT_EQ(ToHex(Ask(e, 18).data), "10 10 10");  // software revisions
  EXPECT_EQ(ToHex(Ask(e, 19).data), "01 02 01");  // type codes: digital, analogue, digital
}

TEST(SimEngine, InputsMoveOneStepPerRead) {
  ServiceEngine e;
  // Digital bytes show a walking bit with one empty step after bit 7, analogue bytes a
  // counter; every byte of a module shows the same value.
  const uint8_t bits[] = {1, 2, 4, 8, 16, 32, 64, 128, 0, 1};
  for (int read = 1; read <= 10; ++read) {
    const Bytes in = Ask(e, 3).data;
    ASSERT_EQ(in.size(), 6u);
    const uint8_t bit = bits[read - 1];
    EXPECT_EQ(ToHex(in), ToHex({bit, bit, uint8_t(read), uint8_t(read), uint8_t(read), uint8_t(read)})) << read;
  }
  // The counter wraps after 255.
  for (int read = 11; read <= 256; ++read) Ask(e, 3);
  EXPECT_EQ(Ask(e, 3).data[2], 1);

  // Without animation each module shows its own bytes, read after read.
  Station s = DefaultStation();
  s.animateInputs = false;
  s.modules[0].inputs = {0x5A, 0x01};
  s.modules[1].inputs = {1, 2, 3, 4};
  ServiceEngine still(s);
  EXPECT_EQ(ToHex(Ask(still, 3).data), "5A 01 01 02 03 04");
  EXPECT_EQ(ToHex(Ask(still, 3).data), "5A 01 01 02 03 04");
}

TEST(SimEngine, OutputsAndParametersKeepWhatTheHostWrites) {
  ServiceEngine e;  // outputs: 2 + 0 + 1 bytes; parameters: 1 + 4 + 0 bytes
  EXPECT_EQ(ToHex(Ask(e, 4).data), "00 00 00");
  Answer a = Ask(e, 5, HexBytes("11 22 33"));
  EXPECT_EQ(a.code, 0x4005);
  EXPECT_EQ(ToHex(a.data), "11 22 33");  // echo
  EXPECT_EQ(ToHex(Ask(e, 4).data), "11 22 33");
  EXPECT_EQ(ToHex(e.station().modules[2].outputs), "33");  // laid out by module
  // A shorter write changes only the front; a longer one is echoed but the image keeps
  // its size.
  Ask(e, 5, HexBytes("AA"));
  EXPECT_EQ(ToHex(Ask(e, 4).data), "AA 22 33");
  EXPECT_EQ(ToHex(Ask(e, 5, HexBytes("01 02 03 04")).data), "01 02 03 04");
  EXPECT_EQ(ToHex(Ask(e, 4).data), "01 02 03");

  EXPECT_EQ(ToHex(Ask(e, 7, HexBytes("09 08 07 06 05")).data), "09 08 07 06 05");
  EXPECT_EQ(ToHex(Ask(e, 6).data), "09 08 07 06 05");

  // A hardware reset clears the outputs but not the parameters.
  EXPECT_EQ(Ask(e, 266).code, 0x410A);
  EXPECT_EQ(ToHex(Ask(e, 4).data), "00 00 00");
  EXPECT_EQ(ToHex(Ask(e, 6).data), "09 08 07 06 05");
  EXPECT_EQ(e.state().hardwareResets, 1u);
}

TEST(SimEngine, DiagnosisIsGatewayBytesThenEachModulesBytes) {
  Station s = DefaultStation();
  s.gatewayDiagnosis = {0xE1, 0xE2};
  s.modules[0].diagnosis = {0x10};
  s.modules[1].diagnosis = {0x20, 0x21};
  ServiceEngine e(s);
  EXPECT_EQ(ToHex(Ask(e, 8).data), "E1 E2 10 20 21 00");
  // Default sizes follow bits 12 to 15 of each identifier: 1, 2 and 1 bytes.
  EXPECT_EQ(DiagLengthForId(0x021101), 1);
  EXPECT_EQ(DiagLengthForId(0x045203), 2);
  EXPECT_EQ(DiagLengthForId(0x00E000), 64);
  ServiceEngine defaults;
  EXPECT_EQ(Ask(defaults, 8).data.size(), 2u + 1 + 2 + 1);
}

TEST(SimEngine, ErrorListEntriesAreLengthCodeDurationExtra) {
  ServiceEngine e;
  EXPECT_EQ(ToHex(Ask(e, 260).data), "06 11 E8 03 00 00 08 22 10 27 00 00 AA BB");
  e.station().errors.clear();
  const Answer empty = Ask(e, 260);
  EXPECT_EQ(empty.code, 0x4104);
  EXPECT_TRUE(empty.data.empty());
}

TEST(SimEngine, ControlRequestsChangeStateAndMalformedOnesAreRefused) {
  ServiceEngine e;
  EXPECT_EQ(ToHex(Ask(e, 261).data), "01");
  EXPECT_EQ(ToHex(Ask(e, 262, {2}).data), "02");
  EXPECT_EQ(ToHex(Ask(e, 261).data), "02");
  EXPECT_TRUE(Ask(e, 275, HexBytes("02 01")).data.empty());
  EXPECT_EQ(e.station().leds, 0x0102);
  Ask(e, 272, {4});
  EXPECT_EQ(e.station().serviceBaudIndex, 4);
  Ask(e, 13);
  EXPECT_FALSE(e.state().fbiRunning);
  Ask(e, 14);
  EXPECT_TRUE(e.state().fbiRunning);
  Ask(e, 263);
  EXPECT_EQ(e.state().firmwareDownloadStarts, 1u);

  // Wrong data lengths: refusal with one data byte, state unchanged.
  for (const auto& [code, data] : std::vector<std::pair<uint16_t, Bytes>>{
           {262, {}}, {262, {1, 2}}, {275, {1}}, {272, {}}, {3, {0}}, {257, {1}}, {17, {1}}}) {
    const Answer a = Ask(e, code, data);
    EXPECT_EQ(a.code, code + 0x8000) << code;
    EXPECT_EQ(ToHex(a.data), "01") << code;
  }
  EXPECT_EQ(e.station().operationMode, 2);
}

TEST(SimEngine, ClockCountsFromStartOrStandsStill) {
  ServiceEngine running;
  const uint32_t t0 = running.ClockMs();
  const Answer a = Ask(running, 271);
  EXPECT_EQ(a.code, 0x410F);
  ASSERT_EQ(a.data.size(), 4u);
  const uint32_t reported = a.data[0] | a.data[1] << 8 | a.data[2] << 16 | uint32_t(a.data[3]) << 24;
  EXPECT_GE(reported, t0);
  EXPECT_LT(reported, t0 + 1000);

  Station s = DefaultStation();
  s.fixedClockMs = 90061001;
  ServiceEngine fixed(s);
  EXPECT_EQ(Ask(fixed, 271).data, Le32(90061001));
}

TEST(SimEngine, PrivilegedResponseIsGrayOfGatheredChallenge) {
  std::array<uint8_t, 32> identity{}, reversed{};
  for (uint8_t i = 0; i < 32; ++i) {
    identity[i] = i;
    reversed[i] = uint8_t(31 - i);
  }
  EXPECT_EQ(PrivilegedResponse(1, identity), 1u);
  EXPECT_EQ(PrivilegedResponse(2, identity), 3u);
  EXPECT_EQ(PrivilegedResponse(0xFFFFFFFF, identity), 0x80000000u);
  // Bit 0 of the challenge feeds output bit 31.
  EXPECT_EQ(PrivilegedResponse(1, reversed), 0xC0000000u);
}

TEST(SimEngine, PrivilegedCheckAcceptsOnlyTheRightResponseOnce) {
  Station s = DefaultStation();
  s.fixedClockMs = 2;
  ServiceEngine e(s);
  const auto stream = [](const std::string& who, uint32_t response) {
    Bytes b(who.begin(), who.end());
    b.push_back(0);
    const Bytes r = Le32(response);
    b.insert(b.end(), r.begin(), r.end());
    return b;
  };
  // No challenge handed out yet.
  EXPECT_EQ(Ask(e, 304, stream("host", 3)).code, 0x8130);

  EXPECT_EQ(ToHex(Ask(e, 271).data), "02 00 00 00");
  const Answer ok = Ask(e, 304, stream("host", 3));
  EXPECT_EQ(ok.code, 0x4130);
  EXPECT_TRUE(ok.data.empty());
  EXPECT_EQ(e.state().privilegedClient, "host");
  // The challenge was used up: the same response again is refused.
  EXPECT_EQ(Ask(e, 304, stream("host", 3)).code, 0x8130);

  Ask(e, 271);
  const Answer wrong = Ask(e, 304, stream("", 2));
  EXPECT_EQ(wrong.code, 0x8130);
  EXPECT_TRUE(wrong.data.empty());

  e.station().privilegedRefusalBase = 0xC000;
  Ask(e, 271);
  EXPECT_EQ(Ask(e, 304, HexBytes("68 01 03 00 00 00")).code, 0xC130);  // no 0x00 before the response
  Ask(e, 271);
  EXPECT_EQ(Ask(e, 304, stream("", 3)).code, 0x4130);  // empty description
  EXPECT_EQ(e.state().privilegedRefusals, 4u);
}

TEST(SimEngine, ImageSinkAssemblesAnnouncedBlocks) {
  const std::string path = TempPath("tamrik_sim_image.bin");
  std::remove(path.c_str());
  Station s = DefaultStation();
  s.imageFile = path;
  ServiceEngine e(s);

  Bytes image(600);
  for (size_t i = 0; i < image.size(); ++i) image[i] = uint8_t(i * 7);
  Bytes announce = Le32(600);
  const Bytes address = Le32(0x08004000);
  announce.insert(announce.end(), address.begin(), address.end());
  EXPECT_EQ(Ask(e, 288, announce).code, 0x4120);
  for (size_t off = 0; off < image.size(); off += 256) {
    const Bytes block(image.begin() + off, image.begin() + std::min<size_t>(off + 256, image.size()));
    EXPECT_EQ(Ask(e, 289, block).code, 0x4121);
  }
  EXPECT_FALSE(e.state().completedImage);
  EXPECT_EQ(Ask(e, 290).code, 0x4122);
  const auto& done = e.state().completedImage;
  ASSERT_TRUE(done);
  EXPECT_EQ(done->data, image);
  EXPECT_EQ(done->blocks, 3u);
  EXPECT_EQ(done->startAddress, 0x08004000u);
  EXPECT_TRUE(e.state().imageFileWritten);
  std::ifstream f(path, std::ios::binary);
  EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(f), {}), image);
  std::remove(path.c_str());

  // Announcing length 0 abandons a download; its blocks and end are taken and ignored.
  EXPECT_EQ(Ask(e, 288, Le32(10)).code, 0x4120);
  Ask(e, 289, Bytes(4, 1));
  EXPECT_EQ(Ask(e, 288, Le32(0)).code, 0x4120);
  EXPECT_EQ(e.state().imageCancels, 1u);
  EXPECT_EQ(Ask(e, 289, {}).code, 0x4121);
  EXPECT_EQ(Ask(e, 290).code, 0x4122);
  EXPECT_EQ(e.state().completedImage->data, image);  // still the earlier image

  // Fewer bytes than announced: the end is refused and nothing completes.
  Ask(e, 288, Le32(5));
  Ask(e, 289, Bytes(4, 2));
  EXPECT_EQ(Ask(e, 290).code, 0x8122);
  EXPECT_EQ(e.state().completedImage->data, image);
  EXPECT_EQ(Ask(e, 288, Bytes(3)).code, 0x8120);
}

TEST(SimEngine, DeviceNetAttributesAreKeptByTheirAddress) {
  ServiceEngine e;
  EXPECT_EQ(ToHex(Ask(e, 2322, HexBytes("01 01 07")).data), "53 49 4D");
  EXPECT_EQ(Ask(e, 2323, HexBytes("05 01 02 41 42")).code, 0x4913);
  EXPECT_EQ(ToHex(Ask(e, 2322, HexBytes("05 01 02")).data), "41 42");
  const Answer unknown = Ask(e, 2322, HexBytes("05 01 03"));
  EXPECT_EQ(unknown.code, 0x8912);
  EXPECT_EQ(ToHex(unknown.data), "14");
  const Answer shortReq = Ask(e, 2323, HexBytes("05 01"));
  EXPECT_EQ(shortReq.code, 0x8913);
  EXPECT_EQ(ToHex(shortReq.data), "13");
}

TEST(SimEngine, MonitorRecordsRequestsWhileRunning) {
  ServiceEngine e;
  EXPECT_TRUE(Ask(e, 26).data.empty());  // nothing recorded
  Ask(e, 24);
  Ask(e, 257);
  Ask(e, 5, {0x42});
  Ask(e, 25);
  Ask(e, 3);  // after the stop: not recorded
  EXPECT_EQ(ToHex(Ask(e, 26, {0, 0}).data), ToHex(Request(257)));
  EXPECT_EQ(ToHex(Ask(e, 27).data), ToHex(Request(5, {0x42})));
  EXPECT_TRUE(Ask(e, 27).data.empty());
  EXPECT_EQ(ToHex(Ask(e, 26).data), ToHex(Request(257)));  // first again
  Ask(e, 23);
  EXPECT_TRUE(Ask(e, 26).data.empty());
}

TEST(SimEngine, StreamAndTrBufferServices) {
  Station s = DefaultStation();
  s.trBuffer = {1, 2, 3};
  ServiceEngine e(s);
  Ask(e, 16, HexBytes("21 D0 D1 D2 D3"));
  Ask(e, 16, HexBytes("21 D4"));
  EXPECT_EQ(ToHex(e.state().streamData), "D0 D1 D2 D3 D4");
  EXPECT_EQ(ToHex(e.state().streamHeaders), "21 21");
  EXPECT_EQ(Ask(e, 16).code, 0x8010);
  EXPECT_EQ(ToHex(Ask(e, 17, HexBytes("34 56")).data), "34 56");
  EXPECT_EQ(ToHex(Ask(e, 22).data), "01 02 03");
  Ask(e, 21);
  EXPECT_TRUE(Ask(e, 22).data.empty());
}

// Every service of the table whose request carries no data: the engine answers it, the
// answer decodes whole by the table's answer rule, and the request with a data byte is refused.
TEST(SimEngine, ServicesWithoutRequestDataAnswerAsTheTableSays) {
  const uint16_t codes[] = {
#define TAMRIK_CODE(code, Name, request, answer, refusable) code,
      TAMRIK_SERVICE_TABLE(TAMRIK_CODE)
#undef TAMRIK_CODE
  };
  size_t checked = 0;
  for (const uint16_t code : codes) {
    if (protocol::RequestRuleFor(code) != protocol::RequestRule::Empty) continue;
    SCOPED_TRACE(protocol::ServiceName(code));
    ++checked;
    ServiceEngine e;
    const Bytes frame = e.Serve(Request(code));
    ASSERT_GE(frame.size(), protocol::kFrameOverhead);
    const size_t dataBytes = frame.size() - protocol::kFrameOverhead;
    std::vector<int32_t> values(protocol::AnswerValuesNeeded(code, frame.data(), frame.size()) + 1);
    int32_t count = -1;
    EXPECT_EQ(protocol::DecodeAnswer(code, frame.data(), frame.size(), values.data(), values.size(), &count), 0u);
    EXPECT_EQ(protocol::ParseHeader(frame.data() + 1).code, code + 0x4000);
    // An answer with data that delivers nothing is shorter than its rule wants.
    EXPECT_TRUE(count > 0 || dataBytes == 0) << count;

    const Answer refused = Ask(e, code, {0});
    EXPECT_EQ(refused.code, code + 0x8000);
    EXPECT_EQ(ToHex(refused.data), "01");
  }
  EXPECT_GT(checked, 30u);  // the loop did walk the table
}

TEST(SimEngine, UnknownCodesAreRefusedAsConfigured) {
  ServiceEngine e;
  for (uint16_t code : {0, 2, 20, 273, 277, 0x4003}) {
    const Answer a = Ask(e, code);
    EXPECT_EQ(a.code, uint16_t(code + 0x8000)) << code;
    EXPECT_TRUE(a.data.empty());
  }
  e.station().unknownService = Refusal{0xC000, 0x05};
  EXPECT_EQ(ToHex(e.Serve(Request(2))), ToHex(BuildFrame(0xC002, HexBytes("05"))));
  e.station().unknownService.reset();
  EXPECT_FALSE(e.Respond(2, {}));
  EXPECT_TRUE(e.Serve(Request(2)).empty());
}

}  // namespace
}  // namespace tamrik::sim::test

// A gateway that answers with more data than the host asked room for never makes the driver
// write past the host's array: every function of the C interface that receives into an
// array takes the count on entry as its capacity, fails such an answer with 0x10053, reads
// it to its end, and the next call on the same link works.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ReliabilitySupport.h"
#include "Simulator.h"
#include "tamrik.h"

namespace tamrik {
namespace {

using test::Link;

constexpr int32_t kGuard = 0x5A5A5A5A;
constexpr size_t kGuardValues = 16;
// The UDP link stages one datagram in 1000 bytes; the largest answer it takes whole.
constexpr size_t kLargestUdpData = 1000 - 7;

// A driver object of the C interface, made without a file, linked to its own simulator.
class HostileLink {
 public:
  explicit HostileLink(Link link) : link_(link) {
    tamrik_config config;
    tamrik_config_defaults(&config);
    config.baudrate = 115200;
    std::string ptyPath;
    tamrik_port ptyPort{test::kPtyComPort, nullptr};
    if (link == Link::Pty) {
      ptyPath = sim_.StartPty();
      ptyPort.device = ptyPath.c_str();
      config.ports = &ptyPort;
      config.port_count = 1;
    }
    com_ = tamrik_create_with(&config);
    int32_t error = -1;
    if (link == Link::Pty) tamrik_kaVOpenComPort(com_, test::kPtyComPort, &error);
    const std::string port = std::to_string(link == Link::Tcp ? sim_.StartTcp() : sim_.StartUdp());
    if (link == Link::Tcp) tamrik_kaVOpenEthernet(com_, port.c_str(), "127.0.0.1", &error);
    if (link == Link::Udp) tamrik_kaVOpenEthernet(com_, (port + ",UDP").c_str(), "127.0.0.1", &error);
    openError_ = error;
  }
  ~HostileLink() { tamrik_release(com_); }
  HostileLink(const HostileLink&) = delete;
  HostileLink& operator=(const HostileLink&) = delete;

  tamrik_com* com() const { return com_; }
  sim::Simulator& sim() { return sim_; }
  int32_t openError() const { return openError_; }
  size_t LargestAnswer() const { return link_ == Link::Udp ? kLargestUdpData : 65535; }

 private:
  Link link_;
  sim::Simulator sim_;
  tamrik_com* com_ = nullptr;
  int32_t openError_ = -1;
};

// A receiving function of the C interface over an array of values (texts are widened into
// it by the caller of Call below).
using Receive = std::function<uint32_t(tamrik_com*, int32_t* values, int32_t* count, int32_t* error)>;

struct Method {
  const char* name;
  uint16_t service;
  size_t (*needed)(size_t dataBytes);  // values the answer fills
  Receive call;
};

size_t BytePerValue(size_t n) { return n; }
size_t Packed(size_t n) { return (n + 3) / 4; }
size_t Words(size_t n) { return (n + 1) / 2; }
size_t Text(size_t n) { return std::min<size_t>(n, 200); }  // texts are never longer than 200

Receive Values(uint32_t (*f)(tamrik_com*, int32_t*, int32_t*, int32_t*)) { return f; }

Receive Chars(uint32_t (*f)(tamrik_com*, char*, int32_t*, int32_t*)) {
  return [f](tamrik_com* com, int32_t* values, int32_t* count, int32_t* error) {
    // The characters land in the same memory, so the guard after it watches them too.
    return f(com, reinterpret_cast<char*>(values), count, error);
  };
}

const std::vector<Method>& ReceivingMethods() {
  static const std::vector<Method> methods = {
      {"kaVGetProcessInData", 0x003, BytePerValue, Values(tamrik_kaVGetProcessInData)},
      {"kaVGetProcessOutData", 0x004, BytePerValue, Values(tamrik_kaVGetProcessOutData)},
      {"kaVSetProcessOutData", 0x005, BytePerValue, Values(tamrik_kaVSetProcessOutData)},
      {"kaVGetParameterData", 0x006, BytePerValue, Values(tamrik_kaVGetParameterData)},
      {"kaVSetParameterData", 0x007, BytePerValue, Values(tamrik_kaVSetParameterData)},
      {"kaVGetDiagData", 0x008, BytePerValue, Values(tamrik_kaVGetDiagData)},
      {"kaVGetModuleList", 0x001, Packed, Values(tamrik_kaVGetModuleList)},
      {"kaVGetModulIdStatusList", 0x001, Packed, Values(tamrik_kaVGetModulIdStatusList)},
      {"kaVGetModuleStreamDataSizeList", 0x00F, BytePerValue, Values(tamrik_kaVGetModuleStreamDataSizeList)},
      {"kaVGetModuleSWRev", 0x012, BytePerValue, Values(tamrik_kaVGetModuleSWRev)},
      {"kaVGetModuleTyp", 0x013, BytePerValue, Values(tamrik_kaVGetModuleTyp)},
      {"kaVGetTRBuffer", 0x016, BytePerValue, Values(tamrik_kaVGetTRBuffer)},
      {"kaVSrvGetFirstDataFrame", 0x01A, BytePerValue, Values(tamrik_kaVSrvGetFirstDataFrame)},
      {"kaVSrvGetNextDataFrame", 0x01B, BytePerValue, Values(tamrik_kaVSrvGetNextDataFrame)},
      {"kaVSrvDNetGetClassInstAttr", 0x912, BytePerValue, Values(tamrik_kaVSrvDNetGetClassInstAttr)},
      {"kaVSrvDNetSetClassInstAttr", 0x913, BytePerValue, Values(tamrik_kaVSrvDNetSetClassInstAttr)},
      {"kavGetBootFctsHwInfo", 0x114, Words, Values(tamrik_kavGetBootFctsHwInfo)},
      {"kaVGetGatewayIdSring", 0x100, Text, Chars(tamrik_kaVGetGatewayIdSring)},
      {"kaVGetGatewayBootFunctionIdString", 0x102, Text, Chars(tamrik_kaVGetGatewayBootFunctionIdString)},
      {"kaVGetGatewayVersionString", 0x109, Text, Chars(tamrik_kaVGetGatewayVersionString)},
      {"kaVSrvDNetGetEEPToolIdent", 0x904, Text, Chars(tamrik_kaVSrvDNetGetEEPToolIdent)},
      {"kavGetPrivilegedName", 0x132, Text, Chars(tamrik_kavGetPrivilegedName)},
  };
  return methods;
}

// One call with `capacity` values of room and guard values after them; the guards must stay.
struct Outcome {
  uint32_t status;
  uint32_t error;
  int32_t count;
};

Outcome CallGuarded(const Method& method, tamrik_com* com, size_t capacity) {
  std::vector<int32_t> values(capacity + kGuardValues, kGuard);
  // The set methods send what they are given; small values keep the request well formed.
  for (size_t i = 0; i < capacity; ++i) values[i] = int32_t(i & 0x7F);
  int32_t count = int32_t(capacity);
  int32_t error = -1;
  const uint32_t status = method.call(com, values.data(), &count, &error);
  for (size_t i = capacity; i < values.size(); ++i) {
    EXPECT_EQ(values[i], kGuard) << method.name << ": value " << i << " past a capacity of " << capacity;
  }
  return {status, uint32_t(error), count};
}

class HostileGateway : public ::testing::TestWithParam<Link> {};

TEST_P(HostileGateway, AnswersLongerThanTheCallersArrayFailAndTheLinkStaysInStep) {
  HostileLink link(GetParam());
  ASSERT_EQ(link.openError(), 0);
  constexpr size_t kCapacity = 12;
  for (const Method& method : ReceivingMethods()) {
    // Answers of exactly the room, of one value more, and of the largest frame the link carries.
    const size_t fits = method.needed == Packed ? 4 * kCapacity : method.needed == Words ? 2 * kCapacity : kCapacity;
    for (const size_t length : {fits, fits + 1, link.LargestAnswer()}) {
      SCOPED_TRACE(std::string(method.name) + " answered with " + std::to_string(length) + " data bytes");
      link.sim().SetAnswerOverride(method.service, std::vector<uint8_t>(length, 0x41));
      const size_t needed = method.needed(length);
      const Outcome small = CallGuarded(method, link.com(), kCapacity);
      if (needed <= kCapacity) {
        EXPECT_EQ(small.status, 0u);
        EXPECT_EQ(small.error, 0u);
        continue;
      }
      EXPECT_EQ(small.status, 0x10050u);
      EXPECT_EQ(small.error, 0x10053u);
      EXPECT_EQ(small.count, int32_t(needed));
      // The whole answer was read: the same call with room for it gets it, not a remainder.
      const Outcome whole = CallGuarded(method, link.com(), needed);
      EXPECT_EQ(whole.status, 0u);
      EXPECT_EQ(whole.error, 0u);
      // Words report their count in bytes, packed answers in whole values.
      const size_t delivered = method.needed == Words ? length : method.needed == Packed ? length / 4 : needed;
      EXPECT_EQ(whole.count, int32_t(delivered));
    }
    link.sim().ClearAnswerOverride(method.service);
  }
  EXPECT_EQ(link.sim().GetCounters().requests, link.sim().GetCounters().answers);
}

TEST_P(HostileGateway, ErrorListsAndRawServicesAreBoundedByTheirOwnCapacities) {
  HostileLink link(GetParam());
  ASSERT_EQ(link.openError(), 0);
  // Three entries of six bytes: three records of seven values.
  std::vector<uint8_t> list;
  for (uint8_t code : {0x11, 0x22, 0x33}) list.insert(list.end(), {6, code, 0xE8, 0x03, 0x00, 0x00});
  link.sim().SetAnswerOverride(0x104, list);
  std::vector<int32_t> records(14 + kGuardValues, kGuard);
  int32_t entries = -1, room = 14, error = -1;
  EXPECT_EQ(tamrik_kaVGetGatewayErrorList(link.com(), &entries, records.data(), &room, &error), 0x10050u);
  EXPECT_EQ(uint32_t(error), 0x10053u);
  EXPECT_EQ(room, 21);
  for (size_t i = 14; i < records.size(); ++i) EXPECT_EQ(records[i], kGuard) << i;
  records.assign(21 + kGuardValues, kGuard);
  EXPECT_EQ(tamrik_kaVGetGatewayErrorList(link.com(), &entries, records.data(), &room, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(entries, 3);
  EXPECT_EQ(records[14 + 1], 0x33);
  EXPECT_EQ(records[21], kGuard);

  // Any service: the receive count is the capacity in bytes.
  const size_t length = link.LargestAnswer();
  link.sim().SetAnswerOverride(0x777, std::vector<uint8_t>(length, 0x5E));
  std::vector<uint8_t> bytes(8 + 64, 0xC3);
  int32_t service = 0x777, sent = 0, received = 8;
  EXPECT_EQ(tamrik_kaVDoService(link.com(), &service, bytes.data(), &sent, &received, &error), 0x10050u);
  EXPECT_EQ(uint32_t(error), 0x10053u);
  EXPECT_EQ(received, int32_t(length));
  for (size_t i = 8; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], 0xC3) << i;
  bytes.assign(length, 0);
  service = 0x777;
  received = int32_t(length);
  EXPECT_EQ(tamrik_kaVDoService(link.com(), &service, bytes.data(), &sent, &received, &error), 0u);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(service, 0x4777);
  EXPECT_EQ(received, int32_t(length));
  EXPECT_EQ(bytes.back(), 0x5E);

  // A negative count is refused before anything is sent.
  const uint64_t before = link.sim().GetCounters().requests;
  for (const Method& method : ReceivingMethods()) {
    int32_t values[4] = {}, count = -1;
    error = -1;
    EXPECT_EQ(method.call(link.com(), values, &count, &error), 0x10060u) << method.name;
    EXPECT_EQ(uint32_t(error), 0x10060u) << method.name;
  }
  EXPECT_EQ(link.sim().GetCounters().requests, before);
}

INSTANTIATE_TEST_SUITE_P(Links, HostileGateway, ::testing::Values(Link::Pty, Link::Tcp, Link::Udp),
                         [](const auto& info) { return test::LinkLabel(info.param); });

}  // namespace
}  // namespace tamrik

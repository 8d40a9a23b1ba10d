// Ccom: the driver object. One object stands for one link to one gateway; it reads its
// configuration at construction, owns the port object, and runs every method of the
// interface in one common frame.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "ComPort2.h"
#include "FunctionRef.h"
#include "MethodTable.h"
#include "ResultCodes.h"

namespace tamrik {

// Interface identifier of Icom, for InterfaceSupportsErrorInfo.
struct Guid {
  uint32_t data1;
  uint16_t data2;
  uint16_t data3;
  uint8_t data4[8];
  bool operator==(const Guid&) const = default;
};
inline constexpr Guid kIidIcom = {0x5A1E7D30, 0x4C2B, 0x11D2,
                                  {0xA3, 0xF1, 0x00, 0x60, 0xB7, 0xC2, 0x5E, 0x90}};

inline constexpr uint32_t kSOk = 0;
inline constexpr uint32_t kSFalse = 1;

// File names of the profile files beside the module.
inline constexpr const char* kConfigFileName = "kaVcnf.ini";
inline constexpr const char* kDemoFileName = "kaVdmo.ini";
inline constexpr const char* kBootFileName = "kaVBoot.ini";

// Everything a driver object otherwise reads from its configuration file, for an object made
// without one (the C interface's tamrik_create_with). The defaults are those the driver writes
// into a file that lacks a key.
struct DriverConfig {
  int32_t version = 0;
  int32_t logfile = 0;
  int32_t comPort = 1;
  int32_t baudrate = 9600;
  // The serial time-outs default to the port's own.
  int32_t readInterval = int32_t(PortTimings{}.readInterval);
  int32_t readTotalMultiplier = int32_t(PortTimings{}.readTotalMultiplier);
  int32_t readTotalConstant = int32_t(PortTimings{}.readTotalConstant);
  int32_t readTotalConstantFW = int32_t(PortTimings{}.readTotalConstantFW);
  int32_t streamSegmentSleepTime = 255;  // the value a missing key reads as
  int32_t socketAnswerMs = int32_t(kDefaultSocketAnswerMs);
  std::map<int32_t, std::string> ports;  // COM port number -> device
  std::array<uint8_t, 32> privilegedBits = IdentityBits();
  std::string demoFile;
  std::string bootFile;

  static constexpr std::array<uint8_t, 32> IdentityBits() {
    std::array<uint8_t, 32> bits{};
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = uint8_t(i);
    return bits;
  }
};

class CcomTestPeer;

class Ccom {
 public:
  // Profile files beside the loaded driver module.
  Ccom();
  // Profile files in directory (a trailing separator is added when missing; an empty text
  // stands for a module path that could not be obtained).
  explicit Ccom(const std::string& directory);
  // Configured by config; no configuration file is read or written.
  explicit Ccom(const DriverConfig& config);
  virtual ~Ccom();
  Ccom(const Ccom&) = delete;
  Ccom& operator=(const Ccom&) = delete;

  uint32_t InterfaceSupportsErrorInfo(const Guid& iid) const {
    return iid == kIidIcom ? kSOk : kSFalse;
  }

#define TAMRIK_DECLARE_METHOD(dispid, name, params, args) uint32_t name params;
  TAMRIK_METHOD_TABLE(TAMRIK_DECLARE_METHOD)
#undef TAMRIK_DECLARE_METHOD

  // Hosts of the C interface tell the capacity of every array they hand in through its count
  // on entry; an answer that needs more fails with 0x10053. Hosts of the automation interface
  // promise room for the largest answer instead, and answers are only cut to the driver's own
  // limits.
  void SetCountIsCapacity(bool on) { countIsCapacity_ = on; }

  // The counters of the link, since the object was made.
  const LinkStats& Stats() const { return port_->Stats(); }

  // SetPort and GetPort copy only within this area: their address is an offset into it.
  static constexpr int32_t kPortAreaSize = 0x10000;

 private:
  friend class CcomTestPeer;

  void Construct(const std::string& directory);
  void ApplyTimings(int32_t interval, int32_t multiplier, int32_t constant, int32_t constantFW);
  void WriteConfigInt(const char* key, int32_t value);

  // --- the method frame (com_frame.cpp) ----------------------------------------------------
  // What a method returns when its request could not be written: 0 for most methods, the
  // request's own code for the busy-guarded ones and a few others.
  enum class RequestFailure { ReturnZero, ReturnCode };

  // A step of a method that may end it early: nothing to go on, or the value the method
  // returns at once (with the out-value set by the step).
  using Step = FunctionRef<std::optional<uint32_t>()>;

  // A capacity that stands for the caller's array: the count on entry under the C interface,
  // unbounded under the automation interface.
  static constexpr size_t kCallerCapacity = SIZE_MAX;

  // One method whose live behaviour is one exchange. Fields that are not named keep these
  // values: no request data, the answer into a scratch value, no demonstration step.
  struct ExchangeMethod {
    const char* name;                     // traced as "<name>-->" and "<name><--"
    const char* entryTrace = nullptr;     // a different entry line, where the trace has one
    uint32_t service = 0;
    const void* request = nullptr;        // 32-bit values or bytes, as the service's rule says
    const int32_t* requestCount = nullptr;
    int32_t* values = nullptr;            // the answer's values
    int32_t* count = nullptr;             // and their number
    size_t capacity = 0;                  // room in values, or kCallerCapacity
    int32_t* error = nullptr;             // the out-value
    RequestFailure onRequestFailure = RequestFailure::ReturnZero;
    bool busyGuarded = false;             // one such method at a time per object (0x999999)
    Step demo = {};                       // demonstration mode (Version=1) instead of the exchange
    Step afterAnswer = {};                // unpacks the answer into the method's out-values
  };
  uint32_t RunExchange(const ExchangeMethod& method);

  // One exchange: the request, then its answer. On failure *error holds the code, *methodReturn
  // what the method returns (0 or the request's code by onRequestFailure; 0x10050 when the
  // answer failed).
  bool Exchange(uint32_t serviceCode, const void* requestData, const int32_t* requestCount, int32_t* values,
                int32_t* count, size_t capacity, int32_t* error, RequestFailure onRequestFailure,
                uint32_t* methodReturn, AnswerOverflow overflow = AnswerOverflow::Truncate);

  // A method that sends the caller's array and receives its answer into it: the count on
  // entry is both the request's length and the room.
  uint32_t ArrayExchange(const char* name, uint32_t serviceCode, int32_t* plData, int32_t* plSizeOfData,
                         int32_t* error);

  // An image announcement (length, and the start address when there is one) whose answer
  // carries nothing the driver uses.
  uint32_t AnnounceImage(const char* name, const int32_t* announcement, int32_t count, int32_t* error);

  // Text answers (one character per data byte, at most 200) copied without a terminating
  // zero; with a demoKey, demonstration mode reads that key of section "Station".
  uint32_t StringMethod(const char* name, uint32_t serviceCode, const char* demoKey, char* text, int32_t* size,
                        int32_t* error);

  // The busy guard: false when another busy-guarded method of this object runs.
  bool EnterBusy();
  void LeaveBusy() { busy_.store(0, std::memory_order_release); }

  void TraceMethod(const char* text);
  void TraceMethodFormat(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;

  // The room a caller's array offers: its count on entry when the caller states capacities,
  // else unbounded. False (with *error set) for a negative count.
  bool CallerRoom(const int32_t* count, int32_t* error, size_t* room) const;
  // Whether an answer that needs more than the room fails (C interface) or is cut.
  AnswerOverflow Overflow() const {
    return countIsCapacity_ ? AnswerOverflow::Fail : AnswerOverflow::Truncate;
  }

  // --- data methods (com_data.cpp) ---------------------------------------------------------
  // The frame of the process, parameter and diagnosis methods (busy guard, the caller's
  // buffer sent when sendsData, the answer into it).
  uint32_t DataMethod(const char* name, uint32_t serviceCode, bool sendsData, int32_t* plData,
                      int32_t* plSizeOfData, int32_t* plError, Step demo, Step afterAnswer = {});

  // Hexadecimal digits from the start of a demonstration value (module and gateway
  // identifiers), as "0x" followed by the text would read.
  static uint32_t LeadingHex(const char* text);

  // Demonstration file access (integers default to 255, texts to "Fehler").
  int32_t DemoInt(const char* section, const char* key) const;
  std::string DemoText(const char* section, const char* key, uint32_t bufferSize) const;
  void DemoWrite(const char* section, const char* key, const std::string& value) const;

  // Module identifiers of the demonstration station into plData; false when the file is
  // incomplete, after *plError and (for a bad identifier) the count have been set.
  bool DemoModuleList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) const;
  // The same as the demonstration step of the two module-list methods.
  std::optional<uint32_t> DemoModuleStep(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) const {
    if (!DemoModuleList(plData, plSizeOfData, plError)) return DemoFailureReturn(plError);
    return std::nullopt;
  }
  // What a method returns when its demonstration step failed: 0, or 0x10050 when the data
  // did not fit the caller's array, as a live answer that does not fit.
  static uint32_t DemoFailureReturn(const int32_t* plError) {
    return uint32_t(*plError) == rc::kAnswerTooLong ? rc::kAnswerFailed : 0;
  }
  // Demonstration bytes into the caller's array; false (with *error set to 0x10053 and the
  // count to n) when the caller stated a smaller capacity.
  bool DeliverDemo(const uint8_t* result, int32_t n, int32_t* plData, int32_t* plSizeOfData, int32_t* error) const;

  // Bit strings of the demonstration file packed into bytes (at most kDemoResultSize), and
  // the caller's bytes written back into them.
  static constexpr int32_t kDemoResultSize = 200;
  int32_t DemoReadBits(const char* keyFormat, int32_t first, int32_t last, bool dashSkips,
                       uint8_t* result) const;
  int32_t DemoAnimatedInputs(uint8_t* result);
  void DemoWriteBits(const char* keyFormat, int32_t first, int32_t last, bool dashSkips,
                     const int32_t* data, int32_t count) const;

  // Section "DiagList" of the configuration file: the module layout of the last live module
  // list, and the last live diagnosis split by it.
  void RecordModuleLayout(const int32_t* identifiers, int32_t count);
  void RecordDiagnosis(const int32_t* bytes, int32_t count);

  // --- downloads (com_download.cpp) --------------------------------------------------------
  // Stages 1 to 3, then the firmware records; the line is closed only after success.
  uint32_t RunBootChain(const char* bsl, const char* setCtx, bool setCtxAlways, const char* boot,
                        const char* firmware, int32_t* plError);

  // --- state -------------------------------------------------------------------------------
  int32_t nComPort = 0;
  int32_t nBaudrate = 0;
  int32_t nDemo = 0;
  int32_t nLog = 0;
  std::string szConfigFile;
  std::string szDemoFile;
  std::string szBootFile;
  uint32_t nDemoBit = 0;
  uint32_t nDemoCount = 0;
  std::atomic<uint8_t> busy_{0};
  std::unique_ptr<CComPort> port_ = std::make_unique<CComPort>();
  bool countIsCapacity_ = false;
  // Set for an object made from a DriverConfig: the values that a file would otherwise give at
  // every call (the pause between stream segments).
  std::optional<int32_t> segmentSleepWithoutFile_;

  // Permutation of the challenge bits for the privileged response (section "Privileged",
  // key "Bits" of the configuration file; the identity when missing or malformed).
  uint8_t abyPrivilegedBits[32] = {};

  // Set: the next kavEnterPrivilegedMode starts a new exchange; clear: its response was sent
  // and the answer is still awaited. One flag for the whole process.
  static std::atomic<bool> bNewPrivilegedExchange;

  std::unique_ptr<uint8_t[]> pPortArea = std::make_unique<uint8_t[]>(kPortAreaSize);
};

}  // namespace tamrik

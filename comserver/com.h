// Ccom: the driver object. One object stands for one link to one gateway; it reads its
// configuration at construction, owns the port object, and runs every method of the
// interface in one common frame.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "ComPort2.h"
#include "MethodTable.h"

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

class Ccom {
 public:
  // Profile files beside the loaded driver module.
  Ccom();
  // Profile files in directory (a trailing separator is added when missing; an empty text
  // stands for a module path that could not be obtained).
  explicit Ccom(const std::string& directory);
  virtual ~Ccom();
  Ccom(const Ccom&) = delete;
  Ccom& operator=(const Ccom&) = delete;

  uint32_t InterfaceSupportsErrorInfo(const Guid& iid) const {
    return iid == kIidIcom ? kSOk : kSFalse;
  }

#define TAMRIK_DECLARE_METHOD(dispid, name, params, args) uint32_t name params;
  TAMRIK_METHOD_TABLE(TAMRIK_DECLARE_METHOD)
#undef TAMRIK_DECLARE_METHOD

  // --- fields ----------------------------------------------------------------------------
  int32_t nComPort = 0;
  int32_t nBaudrate = 0;
  int32_t nDemo = 0;
  int32_t nLog = 0;
  std::string szConfigFile;
  std::string szDemoFile;
  std::string szBootFile;
  uint32_t nDemoBit = 0;
  uint32_t nDemoCount = 0;
  std::atomic<uint8_t> bBusy{0};
  CComPort* pComPort = nullptr;

  // Permutation of the challenge bits for the privileged response (section "Privileged",
  // key "Bits" of the configuration file; the identity when missing or malformed).
  uint8_t abyPrivilegedBits[32] = {};

 private:
  void Construct(const std::string& directory);

  // The method frame: busy guard, entry and exit traces.
  bool EnterBusy();  // false when another busy-guarded method runs
  void LeaveBusy() { bBusy.store(0, std::memory_order_release); }
  void TraceMethod(const char* text);
  void TraceMethodFormat(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;

  // What a method returns when its request could not be written: 0 for most methods, the
  // request's own code for the busy-guarded ones and a few others.
  enum class RequestFailure { ReturnZero, ReturnCode };

  // One exchange: the request with serviceCode, then its answer into values (room for
  // `capacity` values). On failure *error holds the code, *methodReturn what the method
  // returns (0 or the request's code by onRequestFailure; 0x10050 when the answer failed).
  bool Exchange(uint32_t serviceCode, const void* requestData, const int32_t* requestCount,
                int32_t* values, int32_t* count, size_t capacity, int32_t* error,
                RequestFailure onRequestFailure, uint32_t* methodReturn);

  void WriteConfigInt(const char* key, int32_t value);
};

}  // namespace tamrik

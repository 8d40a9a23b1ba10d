// Request building, answer decoding, the millisecond split and dotted IPv4 text.
//
// Everything here works on caller-owned buffers: no allocation, no I/O, no state. A request
// and its answer go through here once per exchange, so the rule lookups are plain switches
// that the compiler turns into jump tables, and the copies are single loops.
#include <bit>
#include <cstring>
#include <optional>

#include "ResultCodes.h"
#include "protocol/Codec.h"
#include "protocol/ServiceTable.h"

namespace tamrik::protocol {

// The packed rule hands the host the answer's bytes in the memory of its 32-bit values and
// promises little-endian values at the same time; both hold only on a little-endian host,
// which every platform the driver is built for is.
static_assert(std::endian::native == std::endian::little,
              "the packed answer rule needs a little-endian host");

namespace {

constexpr uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

// The low byte of the i-th 32-bit value of the caller's array, read without assuming that the
// array is aligned (the interface hands it over as an untyped pointer).
inline uint8_t LowByteOfValue(const void* values, size_t i) {
  uint32_t v;
  std::memcpy(&v, static_cast<const uint8_t*>(values) + 4 * i, sizeof v);
  return uint8_t(v);
}

inline size_t Min(size_t a, size_t b) { return a < b ? a : b; }

// Service codes that a gateway refuses with 0x8000 or 0xC000 added. Every one is below
// 0x4000, so the refusal's low 14 bits are the refused code.
constexpr bool IsRefusableService(uint32_t code) {
  switch (code) {
#define TAMRIK_REFUSABLE_CASE(code, Name, request, answer, refusable) \
  case code:                                                           \
    return refusable;
    TAMRIK_SERVICE_TABLE(TAMRIK_REFUSABLE_CASE)  // NOLINT(bugprone-branch-clone): a case per row of the table
#undef TAMRIK_REFUSABLE_CASE
    default:
      return false;
  }
}

// The error list is walked twice: once to prove that every entry lies inside the data (so that
// the second pass can write without checks), once to emit the records.
inline constexpr size_t kMaxErrorEntries = 30;
inline constexpr size_t kErrorEntryHeader = 6;  // length byte, error code, 4-byte duration

uint32_t DecodeErrorList(const uint8_t* data, size_t n, int32_t* values, size_t capacity,
                         int32_t* count) {
  size_t entries = 0;
  for (size_t pos = 0; pos < n;) {
    const size_t length = data[pos];
    ++entries;
    if (length < kErrorEntryHeader || length > n - pos || entries > kMaxErrorEntries) {
      *count = 0;
      return rc::kAnswerMalformed;
    }
    pos += length;
  }

  // A record that does not fit whole is not started: the host walks records by their first
  // value, and a cut record would send it past what was delivered.
  size_t delivered = 0;
  size_t out = 0;
  for (size_t pos = 0; pos < n; ++delivered) {
    const uint8_t* entry = data + pos;
    const size_t length = entry[0];
    const size_t recordSize = length + 1;
    if (recordSize > capacity - out) break;
    const MillisecondParts d = MillisecondSplit(Le32(entry + 2));
    int32_t* record = values + out;
    record[0] = int32_t(recordSize);
    record[1] = entry[1];
    record[2] = int32_t(d.days);
    record[3] = int32_t(d.hours);
    record[4] = int32_t(d.minutes);
    record[5] = int32_t(d.seconds);
    record[6] = int32_t(d.milliseconds);
    for (size_t i = kErrorEntryHeader; i < length; ++i) record[i + 1] = entry[i];
    out += recordSize;
    pos += length;
  }
  *count = int32_t(delivered);
  return rc::kOk;
}

// The header of a whole frame; nothing when fewer bytes were handed in than the frame's own
// length field gives, since the rules would then read past them.
std::optional<AnswerHeader> WholeFrameHeader(const uint8_t* frame, size_t frameLen) {
  if (frame == nullptr || frameLen < kFrameOverhead) return std::nullopt;
  const AnswerHeader h = ParseHeader(frame + 1);
  if (frameLen < h.FrameLength()) return std::nullopt;
  return h;
}

}  // namespace

// --- requests ----------------------------------------------------------------------------

RequestRule RequestRuleFor(uint32_t serviceCode) {
  if (serviceCode >= kRawServiceBase) return RequestRule::RawBytes;
  switch (serviceCode) {
#define TAMRIK_REQUEST_CASE(code, Name, request, answer, refusable) \
  case code:                                                         \
    return RequestRule::request;
    TAMRIK_SERVICE_TABLE(TAMRIK_REQUEST_CASE)  // NOLINT(bugprone-branch-clone): a case per row of the table
#undef TAMRIK_REQUEST_CASE
    default:
      return RequestRule::Unassigned;
  }
}

size_t BuildRequest(uint32_t serviceCode, const void* data, const int32_t* count, uint8_t* out,
                    size_t capacity) {
  const RequestRule rule = RequestRuleFor(serviceCode);
  size_t n = 0;
  switch (rule) {
    case RequestRule::Unassigned:
      return 0;
    case RequestRule::Empty:
      break;
    case RequestRule::OneByte:
      if (data == nullptr) return 0;
      n = 1;
      break;
    case RequestRule::Word16:
      if (data == nullptr) return 0;
      n = 2;
      break;
    case RequestRule::BytePerValue:
    case RequestRule::RawBytes:
      if (count == nullptr || *count < 0 || size_t(*count) > kMaxData) return 0;
      n = size_t(*count);
      if (n > 0 && data == nullptr) return 0;
      break;
  }
  const size_t frameLen = n + kFrameOverhead;
  if (out == nullptr || capacity < frameLen) return 0;

  out[0] = kStartByte;
  out[1] = uint8_t(serviceCode);
  out[2] = uint8_t(serviceCode >> 8);
  out[3] = uint8_t(n);
  out[4] = uint8_t(n >> 8);
  uint8_t* body = out + kHeaderSize;
  switch (rule) {
    case RequestRule::OneByte:
      body[0] = LowByteOfValue(data, 0);
      break;
    case RequestRule::Word16: {
      uint32_t v;
      std::memcpy(&v, data, sizeof v);
      body[0] = uint8_t(v);
      body[1] = uint8_t(v >> 8);
      break;
    }
    case RequestRule::BytePerValue:
      for (size_t i = 0; i < n; ++i) body[i] = LowByteOfValue(data, i);
      break;
    case RequestRule::RawBytes:
      if (n > 0) std::memcpy(body, data, n);
      break;
    default:
      break;
  }
  ComputeCheckValue(out, frameLen);
  return frameLen;
}

// --- answers -----------------------------------------------------------------------------

AnswerRule AnswerRuleFor(uint16_t answerCode) {
  switch (answerCode) {
#define TAMRIK_ANSWER_CASE(code, Name, request, answer, refusable) \
  case code + kAnswerBit:                                           \
    return AnswerRule::answer;
    TAMRIK_SERVICE_TABLE(TAMRIK_ANSWER_CASE)  // NOLINT(bugprone-branch-clone): a case per row of the table
#undef TAMRIK_ANSWER_CASE
    default:
      break;
  }
  if ((answerCode & kRefusalBit) != 0 && IsRefusableService(answerCode & 0x3FFFu)) {
    return AnswerRule::Refusal;
  }
  return AnswerRule::NotRecognised;
}

namespace {

// One data byte per value, as many as the room takes.
void CopyBytes(const uint8_t* data, size_t n, int32_t* values, size_t capacity, int32_t* count) {
  const size_t copied = Min(n, capacity);
  for (size_t i = 0; i < copied; ++i) values[i] = data[i];
  *count = int32_t(copied);
}

// The data bytes in the values' memory, four per value; whole values are counted.
void CopyPacked(const uint8_t* data, size_t n, int32_t* values, size_t capacity, int32_t* count) {
  // capacity may be near SIZE_MAX / 16 (unbounded); compare in values, not in bytes.
  const size_t bytes = capacity >= (n + 3) / 4 ? n : capacity * 4;
  // Without values the capacity is 0, and then bytes is 0 as well: (n + 3) / 4 <= 0 only
  // for n = 0. The analyzer cannot follow the division.
  if (bytes > 0) std::memcpy(values, data, bytes);  // NOLINT(clang-analyzer-core.NonNullParamChecker)
  *count = int32_t(bytes / 4);
}

// The rules that fill value 0 (and the clock's three after it): false when the room or the
// data are too short for them.
bool DecodeIntoFirstValues(AnswerRule rule, const uint8_t* data, size_t n, int32_t* values, size_t capacity,
                           int32_t* count) {
  switch (rule) {
    case AnswerRule::OneByte:
      if (capacity < 1 || n < 1) return false;
      values[0] = int32_t((uint32_t(values[0]) & 0xFFFFFF00u) | data[0]);
      *count = 1;
      return true;
    case AnswerRule::TwoBytes:
      if (capacity < 1 || n < 2) return false;
      values[0] = int32_t((uint32_t(values[0]) & 0xFFFF0000u) | data[0] | (uint32_t(data[1]) << 8));
      *count = 1;
      return true;
    case AnswerRule::FourBytes:
      if (capacity < 1 || n < 4) return false;
      values[0] = int32_t(Le32(data));
      *count = 1;
      return true;
    default: {  // AnswerRule::Clock
      // The count stays the data length, as hosts know it, bounded by what the buffer holds.
      if (capacity < 1 || n < 4) return false;
      const MillisecondParts t = MillisecondSplit(Le32(data));
      const uint32_t parts[4] = {t.days, t.hours, t.minutes, t.seconds};
      const size_t written = Min(4, capacity);
      for (size_t i = 0; i < written; ++i) values[i] = int32_t(parts[i]);
      *count = int32_t(Min(n, capacity));
      return true;
    }
  }
}

}  // namespace

uint32_t DecodeAnswer(uint32_t requestCode, const uint8_t* frame, size_t frameLen, int32_t* values,
                      size_t capacity, int32_t* count) {
  int32_t ignoredCount = 0;
  if (count == nullptr) count = &ignoredCount;
  if (values == nullptr) capacity = 0;

  const std::optional<AnswerHeader> header = WholeFrameHeader(frame, frameLen);
  if (!header) {
    *count = 0;
    return rc::kAnswerMalformed;
  }
  const AnswerHeader h = *header;
  const uint8_t* data = frame + kHeaderSize;
  const size_t n = h.length;

  if (IsRawRequest(requestCode)) {
    CopyBytes(data, n, values, capacity, count);
    return rc::kRawAnswerBase + h.code;
  }

  const AnswerRule rule = AnswerRuleFor(h.code);
  switch (rule) {
    case AnswerRule::BytePerValue:
      CopyBytes(data, n, values, capacity, count);
      return rc::kOk;
    case AnswerRule::Packed:
      CopyPacked(data, n, values, capacity, count);
      return rc::kOk;
    case AnswerRule::OneByte:
    case AnswerRule::TwoBytes:
    case AnswerRule::FourBytes:
    case AnswerRule::Clock:
      // A rule that writes value 0 found no room, or fewer data bytes than it takes.
      if (!DecodeIntoFirstValues(rule, data, n, values, capacity, count)) *count = 0;
      return rc::kOk;
    case AnswerRule::Words16: {
      // With an odd N the last word's upper byte is the check value's low byte, which is
      // still inside the frame. The count is in bytes, as the host expects it.
      const size_t words = Min((n + 1) / 2, capacity);
      for (size_t k = 0; k < words; ++k) values[k] = data[2 * k] | (int32_t(data[2 * k + 1]) << 8);
      *count = int32_t(Min(n, 2 * words));
      return rc::kOk;
    }
    case AnswerRule::ErrorList:
      return DecodeErrorList(data, n, values, capacity, count);
    case AnswerRule::Refusal:
      *count = int32_t(n);
      if (n == 0) return rc::kRefusalBase + h.code;
      if (n == 1) return rc::kRefusalDataBase + data[0];
      return rc::kOk;
    case AnswerRule::NotRecognised:
      break;
  }
  *count = int32_t(n);
  return rc::kOk;
}

size_t AnswerValuesNeeded(uint32_t requestCode, const uint8_t* frame, size_t frameLen) {
  const std::optional<AnswerHeader> header = WholeFrameHeader(frame, frameLen);
  if (!header) return 0;
  const size_t n = header->length;
  if (IsRawRequest(requestCode)) return n;
  switch (AnswerRuleFor(header->code)) {
    case AnswerRule::BytePerValue:
      return n;
    case AnswerRule::Packed:
      return (n + 3) / 4;
    case AnswerRule::OneByte:
      return n >= 1 ? 1 : 0;
    case AnswerRule::TwoBytes:
      return n >= 2 ? 1 : 0;
    case AnswerRule::FourBytes:
      return n >= 4 ? 1 : 0;
    case AnswerRule::Words16:
      return (n + 1) / 2;
    case AnswerRule::Clock:
      return n >= 4 ? 4 : 0;
    case AnswerRule::ErrorList: {
      // Every record is its entry's length plus one; a list that cannot be walked is refused
      // by the decoding itself.
      const uint8_t* data = frame + kHeaderSize;
      size_t values = 0;
      for (size_t pos = 0; pos < n;) {
        const size_t length = data[pos];
        if (length < kErrorEntryHeader || length > n - pos) return 0;
        values += length + 1;
        pos += length;
      }
      return values;
    }
    case AnswerRule::Refusal:
    case AnswerRule::NotRecognised:
      break;
  }
  return 0;
}

uint32_t DecodeClockRaw(const uint8_t* frame, size_t frameLen, int32_t* values, size_t capacity,
                        int32_t* count) {
  int32_t ignoredCount = 0;
  if (count == nullptr) count = &ignoredCount;
  if (values == nullptr) capacity = 0;
  const std::optional<AnswerHeader> header = WholeFrameHeader(frame, frameLen);
  if (!header) {
    *count = 0;
    return rc::kAnswerMalformed;
  }
  const AnswerHeader h = *header;
  if (h.code != 0x410F) {
    *count = int32_t(h.length);
    return rc::kOk;
  }
  if (capacity < 1 || h.length < 4) {
    *count = 0;
    return rc::kOk;
  }
  values[0] = int32_t(Le32(frame + kHeaderSize));
  *count = 1;
  return rc::kOk;
}

bool AnswerMatchesRequest(uint32_t requestCode, uint16_t answerCode) {
  const uint16_t code = uint16_t(requestCode);
  return answerCode == uint16_t(code + 0x4000) || answerCode == uint16_t(code + 0x8000) ||
         answerCode == uint16_t(code + 0xC000);
}

// --- station knowledge -------------------------------------------------------------------

uint32_t DiagnosisLength(uint32_t moduleId) {
  static constexpr uint8_t kLengths[16] = {0, 1, 1, 1, 1, 2, 3, 4, 6, 8, 12, 16, 24, 32, 64, 0};
  return kLengths[(moduleId >> 12) & 15];
}

uint32_t PrivilegedResponse(uint32_t challenge, const uint8_t bits[32]) {
  uint32_t response = 0;
  for (uint32_t i = 0; i < 32; ++i) {
    if ((challenge >> (bits[i] % 32)) & 1u) response |= 1u << i;
  }
  return response ^ (response >> 1);
}

// --- service names -----------------------------------------------------------------------

const char* ServiceName(uint32_t code) {
  switch (code & 0x3FFFu) {
#define TAMRIK_NAME_CASE(code, Name, request, answer, refusable) \
  case code:                                                      \
    return #Name;
    TAMRIK_SERVICE_TABLE(TAMRIK_NAME_CASE)
#undef TAMRIK_NAME_CASE
    default:
      return nullptr;
  }
}

// --- millisecond split -------------------------------------------------------------------

MillisecondParts MillisecondSplit(uint32_t ms) {
  MillisecondParts p;
  p.days = ms / 86'400'000u;
  p.hours = (ms / 3'600'000u) % 24u;
  p.minutes = (ms / 60'000u) % 60u;
  p.seconds = (ms / 1'000u) % 60u;
  p.milliseconds = ms % 1'000u;
  return p;
}

// --- dotted IPv4 text --------------------------------------------------------------------

namespace {

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
constexpr int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool ParseIpv4(const char* text, uint32_t* addressNetworkOrder) {
  if (text == nullptr || addressNetworkOrder == nullptr) return false;
  uint32_t parts[4] = {};
  size_t partCount = 0;
  const char* p = text;
  for (;;) {
    if (!IsDigit(*p)) return false;  // also rejects empty text, empty parts and a leading sign
    uint32_t base = 10;
    bool anyDigit = false;
    if (*p == '0') {
      ++p;
      if (*p == 'x' || *p == 'X') {
        base = 16;
        ++p;
      } else {
        base = 8;
        anyDigit = true;  // the 0 itself
      }
    }
    uint64_t value = 0;
    for (;; ++p) {
      const int digit = HexValue(*p);
      // A digit beyond the base ("08", "1a") ends the number and fails as trailing garbage.
      if (digit < 0 || uint32_t(digit) >= base) break;
      value = value * base + uint32_t(digit);
      if (value > 0xFFFFFFFFu) return false;
      anyDigit = true;
    }
    if (!anyDigit) return false;  // a bare 0x
    parts[partCount++] = uint32_t(value);
    if (*p != '.') break;
    if (partCount == 4 || value > 0xFF) return false;
    ++p;
  }
  while (IsSpace(*p)) ++p;
  if (*p != '\0') return false;

  // The last part fills every byte that the earlier parts left.
  const uint32_t last = parts[partCount - 1];
  const uint32_t lastMax = partCount == 1 ? 0xFFFFFFFFu : (0xFFFFFFFFu >> (8 * (partCount - 1)));
  if (last > lastMax) return false;
  uint32_t host = last;
  for (size_t i = 0; i + 1 < partCount; ++i) host |= parts[i] << (24 - 8 * i);

  const uint8_t bytes[4] = {uint8_t(host >> 24), uint8_t(host >> 16), uint8_t(host >> 8),
                            uint8_t(host)};
  std::memcpy(addressNetworkOrder, bytes, sizeof bytes);
  return true;
}

}  // namespace tamrik::protocol

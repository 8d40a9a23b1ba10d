// The gateway service protocol without any I/O: frames, check value, request data rules,
// answer decoding rules and the millisecond split.
//
// Frame (both directions, little-endian): 0xAA, 16-bit service code, 16-bit data length N,
// N data bytes, CRC-16 over everything before it. N + 7 bytes in all.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tamrik::protocol {

inline constexpr uint8_t kStartByte = 0xAA;
inline constexpr size_t kHeaderSize = 5;     // start byte, code, length
inline constexpr size_t kFrameOverhead = 7;  // header and check value
inline constexpr size_t kMaxData = 65535;
inline constexpr size_t kMaxFrame = kMaxData + kFrameOverhead;

// Codes at or above this value ask for a raw request: the frame carries the low 16 bits as
// its service code, the data are bytes taken unchanged, and the answer is not interpreted.
inline constexpr uint32_t kRawServiceBase = 0x10000;

// Answer code offsets: positive answer, and the two refusal forms.
inline constexpr uint16_t kAnswerBit = 0x4000;
inline constexpr uint16_t kRefusalBit = 0x8000;

// A caller's array whose size the interface does not tell (the host promises room for the
// largest answer of the service).
inline constexpr size_t kUnbounded = SIZE_MAX / 16;

// --- check value (CRC-16, reflected polynomial 0x8408, initial value 0xFFFF) -------------

uint16_t Crc16(const uint8_t* data, size_t len, uint16_t crc = 0xFFFF);

// Computes the check value over the first len - 2 bytes and stores it, low byte first, in
// the last two. len must be at least 2.
void ComputeCheckValue(uint8_t* frame, size_t len);

// Running the computation over a whole correct frame, check value included, ends with 0.
bool VerifyCheckValue(const uint8_t* frame, size_t len);

// --- requests --------------------------------------------------------------------------

enum class RequestRule : uint8_t {
  Empty,         // no data; the caller's data and count are not read
  OneByte,       // low byte of the first 32-bit value
  Word16,        // low 16 bits of the first 32-bit value, low byte first
  BytePerValue,  // low byte of each of count 32-bit values
  RawBytes,      // count bytes unchanged
  Unassigned,    // a code below 0x10000 that no method sends
};

RequestRule RequestRuleFor(uint32_t serviceCode);

inline bool IsRawRequest(uint32_t serviceCode) { return serviceCode >= kRawServiceBase; }

// Builds the request frame for serviceCode into out (capacity bytes). data holds 32-bit
// values or bytes as the rule says; count is read only by the rules that need it.
// Returns the frame length, or 0 when no frame can be built: an unassigned code, a count
// that is negative or above 65535, a null pointer the rule would read, or too little room.
size_t BuildRequest(uint32_t serviceCode, const void* data, const int32_t* count, uint8_t* out,
                    size_t capacity);

// --- answers ---------------------------------------------------------------------------

enum class AnswerRule : uint8_t {
  BytePerValue,   // value i := data byte i
  Packed,         // data bytes copied into the values' memory, four per value
  OneByte,        // lowest byte of value 0 := data byte 0, the rest kept
  TwoBytes,       // two lowest bytes of value 0 := data bytes 0 and 1, the rest kept
  FourBytes,      // value 0 := data bytes 0..3
  Words16,        // value k := data byte 2k + 256 * data byte 2k+1
  Clock,          // MillisecondSplit of data bytes 0..3: days, hours, minutes, seconds
  ErrorList,      // one record per entry of the gateway's error list
  Refusal,        // the gateway refused the request
  NotRecognised,  // nothing copied
};

AnswerRule AnswerRuleFor(uint16_t answerCode);

struct AnswerHeader {
  uint16_t code = 0;    // A
  uint16_t length = 0;  // N
  size_t FrameLength() const { return size_t(length) + kFrameOverhead; }
};

// Reads code and length from the four bytes that follow the start byte.
inline AnswerHeader ParseHeader(const uint8_t* fourBytes) {
  AnswerHeader h;
  h.code = uint16_t(fourBytes[0] | (fourBytes[1] << 8));
  h.length = uint16_t(fourBytes[2] | (fourBytes[3] << 8));
  return h;
}

// Decodes a checked answer frame (frameLen = N + 7 bytes, starting with 0xAA) that answers a
// request with requestCode, into values (room for capacity 32-bit values), and sets *count.
// Returns 0, 0x20000 + A or 0x30000 + d for refusals, 0xF0000 + A for raw requests, or
// rc::kAnswerMalformed for an error list that cannot be walked safely or a frameLen shorter
// than the frame's length field says. Nothing is written beyond capacity values; the count
// tells what was delivered. A rule that needs more data bytes than the answer has (one, two,
// four bytes, clock) delivers nothing and sets the count to 0.
uint32_t DecodeAnswer(uint32_t requestCode, const uint8_t* frame, size_t frameLen, int32_t* values,
                      size_t capacity, int32_t* count);

// How many values DecodeAnswer writes for this frame when its room is unbounded: what a
// caller's array must hold for the answer to arrive whole (0 for refusals, answers that
// deliver nothing and frames that cannot be decoded).
size_t AnswerValuesNeeded(uint32_t requestCode, const uint8_t* frame, size_t frameLen);

// The reduced decoding for the privileged challenge: for answer 0x410F the first four data
// bytes land unchanged in values[0] and the count becomes 1; any other answer copies nothing
// and leaves the count at N; 0x410F with fewer than four data bytes or no room copies nothing
// and sets the count to 0. Always 0, except rc::kAnswerMalformed for a frameLen shorter than
// the frame's length field says.
uint32_t DecodeClockRaw(const uint8_t* frame, size_t frameLen, int32_t* values, size_t capacity,
                        int32_t* count);

// Whether answerCode is the positive answer or one of the two refusals of requestCode (its
// low 16 bits plus 0x4000, 0x8000 or 0xC000, in 16-bit arithmetic).
bool AnswerMatchesRequest(uint32_t requestCode, uint16_t answerCode);

// --- station knowledge shared by driver, simulator and tool ---------------------------------

// The diagnosis bytes a module has, by bits 12 to 15 of its identifier.
uint32_t DiagnosisLength(uint32_t moduleId);

// The response to the privileged challenge: bit i of the response is the challenge's bit
// bits[i] (taken modulo 32), and the result is turned into its Gray code.
uint32_t PrivilegedResponse(uint32_t challenge, const uint8_t bits[32]);

// --- millisecond split -----------------------------------------------------------------

struct MillisecondParts {
  uint32_t days = 0;
  uint32_t hours = 0;
  uint32_t minutes = 0;
  uint32_t seconds = 0;
  uint32_t milliseconds = 0;
};

MillisecondParts MillisecondSplit(uint32_t ms);

// --- dotted IPv4 text ------------------------------------------------------------------

// Converts dotted IPv4 text the way inet_addr does (one to four parts, each decimal, octal
// with a leading 0 or hexadecimal with 0x; the last part fills the remaining bytes). Only
// whitespace may follow the address. Gives the address in network byte order; unlike
// inet_addr, 255.255.255.255 is an address, not a failure.
bool ParseIpv4(const char* text, uint32_t* addressNetworkOrder);

}  // namespace tamrik::protocol

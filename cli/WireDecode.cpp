#include "WireDecode.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <regex>
#include <sstream>

#include "Render.h"
#include "WireShown.h"
#include "protocol/Codec.h"
#include "protocol/Text.h"

namespace tamrik::cli::wire {
namespace {

using protocol::kStartByte;

// --- splitting a byte stream into frames ---------------------------------------------------

// Collects the bytes of one direction and hands out each frame once it is whole. Bytes before
// a start byte travel with the frame that follows them.
class Splitter {
 public:
  explicit Splitter(Direction direction) : direction_(direction) {}

  void Add(const std::vector<uint8_t>& bytes) { pending_.insert(pending_.end(), bytes.begin(), bytes.end()); }

  // Every whole frame now pending, into out.
  void TakeFrames(std::vector<Piece>& out, const std::string& method, size_t line) {
    for (;;) {
      const auto start = std::find(pending_.begin(), pending_.end(), kStartByte);
      const size_t at = size_t(start - pending_.begin());
      if (pending_.size() - at < protocol::kHeaderSize) return;
      const size_t length = protocol::ParseHeader(&pending_[at + 1]).FrameLength();
      if (pending_.size() - at < length) return;
      Piece piece = Make(method, line);
      piece.noise.assign(pending_.begin(), start);
      piece.bytes.assign(start, start + std::ptrdiff_t(length));
      piece.frame = piece.complete = true;
      out.push_back(std::move(piece));
      pending_.erase(pending_.begin(), start + std::ptrdiff_t(length));
    }
  }

  // What is left, which no further byte will complete: a frame cut short, or bytes outside frames.
  void Flush(std::vector<Piece>& out, const std::string& method, size_t line) {
    if (pending_.empty()) return;
    Piece piece = Make(method, line);
    const auto start = std::find(pending_.begin(), pending_.end(), kStartByte);
    piece.frame = start != pending_.end();
    if (piece.frame) piece.noise.assign(pending_.begin(), start);
    piece.bytes.assign(piece.frame ? start : pending_.begin(), pending_.end());
    out.push_back(std::move(piece));
    pending_.clear();
  }

 private:
  Piece Make(const std::string& method, size_t line) const {
    Piece piece;
    piece.direction = direction_;
    piece.method = method;
    piece.line = line;
    return piece;
  }

  Direction direction_;
  std::vector<uint8_t> pending_;
};

// The driver writes each transfer as "Write Stream (len:LLLL): HEX" or "Read Stream (len:LLLL):
// HEX", the length in hexadecimal; whatever a receiver put before it (a "trace: " prefix, a
// logger's fields) does not matter.
const std::regex kStreamLine(R"((Write|Read) Stream \(len:([0-9A-Fa-f]+)\): ([0-9A-Fa-f]*))");
// A method's entry line: "kaVGetGatewayVersion-->", "DL: 2 kaVSetModuleStreamDataPosition-->".
const std::regex kEntryLine(R"(\b(ka[vV]\w+)[^<]*-->)");

std::vector<uint8_t> HexPairs(const std::string& digits) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) bytes.push_back(uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

}  // namespace

bool LooksLikeTrace(const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_search(line, kStreamLine)) return true;
  }
  return false;
}

std::vector<Piece> PiecesOfTrace(const std::string& text) {
  std::vector<Piece> pieces;
  Splitter sent(Direction::Sent), received(Direction::Received);
  std::string method;
  std::istringstream lines(text);
  size_t number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    std::smatch match;
    if (std::regex_search(line, match, kEntryLine)) method = match[1];
    if (!std::regex_search(line, match, kStreamLine)) continue;
    const std::string digits = match[3];
    // A line cut short (a full disk, a receiver that truncates) gives what it has.
    const std::vector<uint8_t> bytes = HexPairs(digits);
    if (match[1] == "Write") {
      // A request begins a new exchange: what was read before it is all its answer will get.
      received.Flush(pieces, method, number);
      sent.Add(bytes);
      sent.TakeFrames(pieces, method, number);
      sent.Flush(pieces, method, number);  // a write is whole
    } else {
      received.Add(bytes);
      received.TakeFrames(pieces, method, number);
    }
  }
  received.Flush(pieces, method, number);
  return pieces;
}

std::vector<Piece> PiecesOfHex(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  Splitter splitter(Direction::Unknown);
  splitter.Add(ParseBytes(words));
  std::vector<Piece> pieces;
  splitter.TakeFrames(pieces, "", 0);
  splitter.Flush(pieces, "", 0);
  return pieces;
}


// --- decoding one frame ----------------------------------------------------------------------

namespace {

enum class FrameKind { Request, Answer, Refusal, NotRecognised };

// The kinds as the codec tells them: an answer is the code + 0x4000; a code with 0x8000 is a
// refusal only for a service that may be refused.
FrameKind KindOf(uint16_t code) {
  if (code < protocol::kAnswerBit) return FrameKind::Request;
  if (protocol::AnswerRuleFor(code) == protocol::AnswerRule::Refusal) return FrameKind::Refusal;
  if ((code & protocol::kRefusalBit) == 0) return FrameKind::Answer;
  return FrameKind::NotRecognised;
}

const char* KindName(FrameKind kind) {
  switch (kind) {
    case FrameKind::Request: return "request";
    case FrameKind::Answer: return "answer";
    case FrameKind::Refusal: return "refusal";
    default: return "not recognised";
  }
}

const char* DirectionName(Direction direction) {
  switch (direction) {
    case Direction::Sent: return "sent";
    case Direction::Received: return "received";
    default: return "";
  }
}

uint32_t Le(const uint8_t* p, size_t n) {
  uint32_t value = 0;
  for (size_t i = 0; i < n; ++i) value |= uint32_t(p[i]) << (8 * i);
  return value;
}

Json DecodeRequest(uint16_t code, const uint8_t* data, size_t n) {
  switch (protocol::RequestRuleFor(code)) {
    case protocol::RequestRule::Empty:
      return Json::object();
    case protocol::RequestRule::OneByte:
      return n >= 1 ? Json{{"value", data[0]}} : Json::object();
    case protocol::RequestRule::Word16:
      return n >= 2 ? Json{{"value", Le(data, 2)}} : Json::object();
    default:
      return Json::object();  // the data bytes say it all
  }
}

Json ErrorRecords(const std::vector<int32_t>& values, int32_t entries) {
  Json list = Json::array();
  size_t at = 0;
  for (int32_t e = 0; e < entries && at + 7 <= values.size(); ++e) {
    const size_t size = size_t(values[at]);
    std::vector<uint8_t> extra;
    for (size_t k = 7; k < size && at + k < values.size(); ++k) extra.push_back(uint8_t(values[at + k]));
    const int64_t ms = int64_t(values[at + 2]) * 86400000 + int64_t(values[at + 3]) * 3600000 +
                       int64_t(values[at + 4]) * 60000 + int64_t(values[at + 5]) * 1000 + values[at + 6];
    list.push_back({{"code", uint32_t(values[at + 1]) & 0xFF},
                    {"duration", FormatDuration(values[at + 2], values[at + 3], values[at + 4], values[at + 5],
                                                values[at + 6])},
                    {"duration_ms", ms},
                    {"extra", extra}});
    at += size;
  }
  return list;
}

// The values DecodeAnswer delivered, as the service shows them.
Json ShowValues(uint32_t service, protocol::AnswerRule rule, const std::vector<int32_t>& values, int32_t count) {
  const size_t n = size_t(std::max(count, 0));
  auto low = [&](uint32_t mask) { return n >= 1 ? Json{{"value", uint32_t(values[0]) & mask}} : Json::object(); };
  switch (ShownAs(service)) {
    case Shown::Text: {
      std::string text;
      for (size_t i = 0; i < n; ++i) text.push_back(char(values[i]));
      return {{"text", protocol::Cp1252ToUtf8(text)}};
    }
    case Shown::Modules: {
      Json modules = Json::array();
      for (size_t i = 0; i < n; ++i)
        modules.push_back({{"id", (uint32_t(values[i]) >> 8) & 0xFFFFFF}, {"status", uint32_t(values[i]) & 0xFF}});
      return {{"modules", modules}};
    }
    case Shown::ByRule:
      break;
  }
  switch (rule) {
    case protocol::AnswerRule::OneByte: return low(0xFF);
    case protocol::AnswerRule::TwoBytes: return low(0xFFFF);
    case protocol::AnswerRule::FourBytes: return low(0xFFFFFFFF);
    case protocol::AnswerRule::Packed: {
      Json list = Json::array();
      for (size_t i = 0; i < n; ++i) list.push_back(uint32_t(values[i]));
      return {{"values", list}};
    }
    case protocol::AnswerRule::Words16: {
      Json words = Json::array();
      for (size_t i = 0; i < (n + 1) / 2; ++i) words.push_back(uint32_t(values[i]) & 0xFFFF);
      return {{"words", words}};
    }
    default:
      return Json::object();  // one byte per value: the data bytes say it all
  }
}

Json DecodeClock(const uint8_t* frame, size_t length) {
  int32_t raw = 0, count = 0;
  protocol::DecodeClockRaw(frame, length, &raw, 1, &count);
  if (count != 1) return Json::object();
  const protocol::MillisecondParts t = protocol::MillisecondSplit(uint32_t(raw));
  return {{"clock", FormatDuration(int32_t(t.days), int32_t(t.hours), int32_t(t.minutes), int32_t(t.seconds),
                                   int32_t(t.milliseconds))},
          {"milliseconds", uint32_t(raw)}};
}

// An answer or refusal through the codec's decoding, as the driver would deliver it.
Json DecodeAnswerFrame(uint16_t code, const uint8_t* frame, size_t length) {
  const uint32_t service = code & 0x3FFFu;
  const protocol::AnswerRule rule = protocol::AnswerRuleFor(code);
  if (rule == protocol::AnswerRule::Clock) return DecodeClock(frame, length);
  const size_t needed = protocol::AnswerValuesNeeded(service, frame, length);
  std::vector<int32_t> values(std::max<size_t>(needed, 1), 0);
  int32_t count = 0;
  const uint32_t result = protocol::DecodeAnswer(service, frame, length, values.data(), needed, &count);
  if (rule == protocol::AnswerRule::Refusal) {
    Json refusal = Json::object();
    if (length == protocol::kFrameOverhead + 1) refusal["reason"] = frame[protocol::kHeaderSize];
    if (result != 0) refusal["result"] = ErrorObject(result);
    return refusal;
  }
  if (result != 0) return {{"result", ErrorObject(result)}};
  if (rule == protocol::AnswerRule::ErrorList) return {{"errors", ErrorRecords(values, count)}};
  return ShowValues(service, rule, values, count);
}

void AddFrameFields(Json& out, const Piece& piece) {
  const uint8_t* frame = piece.bytes.data();
  const size_t length = piece.bytes.size();
  if (length < protocol::kHeaderSize) return;
  const protocol::AnswerHeader header = protocol::ParseHeader(frame + 1);
  const FrameKind kind = KindOf(header.code);
  const char* name = protocol::ServiceName(header.code);
  out["kind"] = KindName(kind);
  out["code"] = header.code;
  out["service"] = header.code & 0x3FFFu;
  out["name"] = name != nullptr ? name : "unknown";
  out["length"] = header.length;
  if (!piece.complete) return;
  const size_t n = header.length;
  out["data"] = std::vector<uint8_t>(frame + protocol::kHeaderSize, frame + protocol::kHeaderSize + n);
  out["check_value"] = Le(frame + length - 2, 2);
  out["check_value_good"] = protocol::VerifyCheckValue(frame, length);
  out["computed_check_value"] = protocol::Crc16(frame, length - 2);
  out["decoded"] = kind == FrameKind::Request ? DecodeRequest(header.code, frame + protocol::kHeaderSize, n)
                                                : DecodeAnswerFrame(header.code, frame, length);
}

}  // namespace

Json Describe(const Piece& piece) {
  Json out = Json::object();
  if (piece.direction != Direction::Unknown) out["direction"] = DirectionName(piece.direction);
  if (!piece.method.empty()) out["method"] = piece.method;
  if (piece.line != 0) out["line"] = piece.line;
  if (!piece.noise.empty()) out["noise"] = piece.noise;
  if (!piece.frame) {
    out["kind"] = "bytes outside frames";
    out["bytes"] = piece.bytes;
    return out;
  }
  out["complete"] = piece.complete;
  out["kind"] = "start byte only";  // until the header says more
  AddFrameFields(out, piece);
  if (!piece.complete) out["bytes"] = piece.bytes;
  return out;
}

// --- one line a piece --------------------------------------------------------------------------

namespace {

std::string Bytes(const Json& list, size_t most = 16) {
  std::vector<uint8_t> bytes;
  for (const Json& b : list) {
    if (bytes.size() == most) break;
    bytes.push_back(b.get<uint8_t>());
  }
  return BytesText(bytes) + (list.size() > most ? " ..." : "");
}

// A value as wide as the bytes it came from (one, two or four).
std::string Hex(const Json& value, size_t bytes) { return HexText(value.get<uint64_t>(), int(2 * std::min<size_t>(bytes, 4))); }

std::string Joined(const Json& list, const std::function<std::string(const Json&)>& text) {
  std::string out;
  for (const Json& item : list) out += (out.empty() ? "" : ", ") + text(item);
  return out;
}

// The decoded data in a few words; the data bytes when the decoding adds nothing to them.
std::string DecodedText(const Json& piece) {
  const Json& d = piece["decoded"];
  if (d.contains("text")) return "\"" + d["text"].get<std::string>() + "\"";
  if (d.contains("value")) return "value " + Hex(d["value"], piece["length"].get<size_t>());
  if (d.contains("clock")) return "clock " + d["clock"].get<std::string>();
  if (d.contains("words")) return "words " + Joined(d["words"], [](const Json& w) { return HexText(w.get<uint64_t>(), 4); });
  if (d.contains("values")) return "values " + Joined(d["values"], [](const Json& v) { return HexText(v.get<uint64_t>(), 8); });
  if (d.contains("modules")) {
    return "modules " + Joined(d["modules"], [](const Json& m) {
             return HexText(m["id"].get<uint64_t>(), 6) + " status " + HexText(m["status"].get<uint64_t>(), 2);
           });
  }
  if (d.contains("errors")) {
    return "errors " + Joined(d["errors"], [](const Json& e) {
             return HexText(e["code"].get<uint64_t>(), 2) + " after " + e["duration"].get<std::string>() +
                    (e["extra"].empty() ? "" : " extra " + Bytes(e["extra"]));
           });
  }
  std::string text;
  if (d.contains("reason")) text = "reason " + Hex(d["reason"], 1);
  if (d.contains("result")) {
    const Json& r = d["result"];
    text += (text.empty() ? "" : ", ") + HexText(r["code"].get<uint64_t>(), 1) + " " + r["name"].get<std::string>();
  }
  if (!text.empty() || piece["data"].empty()) return text;
  return "data " + Bytes(piece["data"]);
}

std::string FrameText(const Json& piece) {
  char head[160];
  std::snprintf(head, sizeof head, "%-8s 0x%04X %-22s len %-5u", piece["kind"].get<std::string>().c_str(),
                piece["code"].get<unsigned>(), piece["name"].get<std::string>().c_str(), piece["length"].get<unsigned>());
  std::string text = head;
  if (!piece["complete"].get<bool>()) {
    return text + " cut short after " + std::to_string(piece["bytes"].size()) + " bytes: " + Bytes(piece["bytes"]);
  }
  text += " check " + HexText(piece["check_value"].get<uint64_t>(), 4);
  text += piece["check_value_good"].get<bool>()
              ? " good"
              : " BAD (computed " + HexText(piece["computed_check_value"].get<uint64_t>(), 4) + ")";
  const std::string decoded = DecodedText(piece);
  return decoded.empty() ? text : text + "  " + decoded;
}

}  // namespace

std::string DescribeLine(const Json& piece) {
  std::string line;
  char head[32];
  if (piece.contains("index")) {
    std::snprintf(head, sizeof head, "%4zu ", piece["index"].get<size_t>());
    line += head;
  }
  if (piece.contains("direction")) {
    std::snprintf(head, sizeof head, "%-8s ", piece["direction"].get<std::string>().c_str());
    line += head;
  }
  if (piece.contains("noise")) line += "[" + std::to_string(piece["noise"].size()) + " bytes before the start byte] ";
  if (piece["kind"] == "bytes outside frames") {
    return line + "bytes outside frames (" + std::to_string(piece["bytes"].size()) + "): " + Bytes(piece["bytes"]);
  }
  if (!piece.contains("code")) return line + "start byte only: " + Bytes(piece["bytes"]);
  line += FrameText(piece);
  if (piece.contains("method")) line += "  [" + piece["method"].get<std::string>() + "]";
  return line;
}

}  // namespace tamrik::cli::wire

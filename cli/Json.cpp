#include "Json.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace tamrik::cli {
namespace {

void Escape(std::string& out, const std::string& text) {
  out += '"';
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c >= 0x7F) {
          // Gateway texts are 8-bit; each byte becomes its Latin-1 character so that the
          // output stays valid UTF-8 whatever the gateway sends.
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
          out += buffer;
        } else {
          out += char(c);
        }
    }
  }
  out += '"';
}

std::string Label(const std::string& key) {
  std::string label = key;
  for (char& c : label) {
    if (c == '_') c = ' ';
  }
  return label;
}

std::string Pad(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

}  // namespace

Json Json::Bytes(const std::vector<uint8_t>& bytes) {
  Json j = Array();
  for (uint8_t b : bytes) j.Push(Hex(b, 2));
  j.bytes_ = true;
  return j;
}

Json::Kind Json::kind() const {
  switch (value_.index()) {
    case 0: return Kind::Null;
    case 1: return Kind::Bool;
    case 2: case 3: return Kind::Number;
    case 4: return Kind::String;
    case 5: return Kind::Array;
    default: return Kind::Object;
  }
}

Json& Json::Set(const std::string& key, Json value) {
  if (kind() != Kind::Object) value_ = Members{};
  auto& members = std::get<Members>(value_);
  for (auto& m : members) {
    if (m.first == key) {
      m.second = std::move(value);
      return m.second;
    }
  }
  members.emplace_back(key, std::move(value));
  return members.back().second;
}

const Json* Json::Find(const std::string& key) const {
  if (kind() != Kind::Object) return nullptr;
  for (const auto& m : std::get<Members>(value_)) {
    if (m.first == key) return &m.second;
  }
  return nullptr;
}

Json& Json::Push(Json value) {
  if (kind() != Kind::Array) value_ = Items{};
  auto& items = std::get<Items>(value_);
  items.push_back(std::move(value));
  return items.back();
}

size_t Json::Size() const {
  if (kind() == Kind::Array) return std::get<Items>(value_).size();
  if (kind() == Kind::Object) return std::get<Members>(value_).size();
  return 0;
}

const Json& Json::operator[](size_t i) const { return std::get<Items>(value_).at(i); }

const std::vector<std::pair<std::string, Json>>& Json::Fields() const {
  static const Members none;
  return kind() == Kind::Object ? std::get<Members>(value_) : none;
}

int64_t Json::AsInt() const {
  if (value_.index() == 2) return std::get<int64_t>(value_);
  if (value_.index() == 3) return int64_t(std::get<double>(value_));
  if (value_.index() == 1) return std::get<bool>(value_) ? 1 : 0;
  return 0;
}

const std::string& Json::AsString() const {
  static const std::string none;
  return kind() == Kind::String ? std::get<std::string>(value_) : none;
}

std::string Json::Dump() const {
  std::string out;
  DumpTo(out, 0);
  return out;
}

void Json::DumpTo(std::string& out, int indent) const {
  const std::string pad(size_t(indent + 2), ' ');
  const std::string close(size_t(indent), ' ');
  switch (value_.index()) {
    case 0: out += "null"; break;
    case 1: out += std::get<bool>(value_) ? "true" : "false"; break;
    case 2: out += std::to_string(std::get<int64_t>(value_)); break;
    case 3: {
      const double d = std::get<double>(value_);
      if (!std::isfinite(d)) {
        out += "null";
      } else {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%.6g", d);
        out += buffer;
      }
      break;
    }
    case 4: Escape(out, std::get<std::string>(value_)); break;
    case 5: {
      const auto& items = std::get<Items>(value_);
      bool flat = true;
      for (const auto& item : items) flat = flat && item.IsScalar();
      if (items.empty()) {
        out += "[]";
      } else if (flat) {
        out += '[';
        for (size_t i = 0; i < items.size(); ++i) {
          if (i) out += ", ";
          items[i].DumpTo(out, indent);
        }
        out += ']';
      } else {
        out += "[\n";
        for (size_t i = 0; i < items.size(); ++i) {
          out += pad;
          items[i].DumpTo(out, indent + 2);
          out += i + 1 < items.size() ? ",\n" : "\n";
        }
        out += close + "]";
      }
      break;
    }
    default: {
      const auto& members = std::get<Members>(value_);
      if (members.empty()) {
        out += "{}";
        break;
      }
      out += "{\n";
      for (size_t i = 0; i < members.size(); ++i) {
        out += pad;
        Escape(out, members[i].first);
        out += ": ";
        members[i].second.DumpTo(out, indent + 2);
        out += i + 1 < members.size() ? ",\n" : "\n";
      }
      out += close + "}";
    }
  }
}

std::string Json::Text() const {
  switch (value_.index()) {
    case 0: return "-";
    case 1: return std::get<bool>(value_) ? "yes" : "no";
    case 2: {
      if (hexDigits_ > 0) {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, bytes_ ? "%0*llX" : "0x%0*llX", hexDigits_,
                      static_cast<unsigned long long>(std::get<int64_t>(value_)));
        return buffer;
      }
      return std::to_string(std::get<int64_t>(value_));
    }
    case 3: {
      char buffer[32];
      std::snprintf(buffer, sizeof buffer, "%.1f", std::get<double>(value_));
      return buffer;
    }
    case 4: return std::get<std::string>(value_);
    case 5: {
      const auto& items = std::get<Items>(value_);
      if (items.empty()) return bytes_ ? "(none)" : "-";
      std::string out;
      for (size_t i = 0; i < items.size(); ++i) {
        if (i) out += ' ';
        if (bytes_) {
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "%02llX", static_cast<unsigned long long>(items[i].AsInt() & 0xFF));
          out += buffer;
        } else {
          out += items[i].Text();
        }
      }
      return out;
    }
    default: return "{...}";
  }
}

std::string Json::Render() const {
  std::string out;
  RenderTo(out, 0);
  return out;
}

void Json::RenderTo(std::string& out, int indent) const {
  const std::string margin(size_t(indent), ' ');
  if (kind() != Kind::Object) {
    out += margin + Text() + "\n";
    return;
  }
  const auto& members = std::get<Members>(value_);
  size_t width = 0;
  for (const auto& m : members) {
    if (m.second.IsScalar() || m.second.kind() == Kind::Array) width = std::max(width, m.first.size());
  }
  for (const auto& [key, value] : members) {
    const bool table = value.kind() == Kind::Array && value.Size() > 0 && value[0].kind() == Kind::Object;
    if (value.kind() == Kind::Object) {
      out += margin + Label(key) + ":\n";
      value.RenderTo(out, indent + 2);
    } else if (table) {
      out += margin + Label(key) + ":\n";
      // Columns from the first row; every row of a result has the same members.
      const auto& first = value[0].Fields();
      std::vector<size_t> widths;
      widths.reserve(first.size());
      for (const auto& column : first) widths.push_back(Label(column.first).size());
      for (size_t r = 0; r < value.Size(); ++r) {
        for (size_t c = 0; c < first.size(); ++c) {
          const Json* cell = value[r].Find(first[c].first);
          widths[c] = std::max(widths[c], cell != nullptr ? cell->Text().size() : 1);
        }
      }
      std::string line = margin + "  ";
      for (size_t c = 0; c < first.size(); ++c) line += Pad(Label(first[c].first), widths[c] + 2);
      while (!line.empty() && line.back() == ' ') line.pop_back();
      out += line + "\n";
      for (size_t r = 0; r < value.Size(); ++r) {
        line = margin + "  ";
        for (size_t c = 0; c < first.size(); ++c) {
          const Json* cell = value[r].Find(first[c].first);
          line += Pad(cell != nullptr ? cell->Text() : "-", widths[c] + 2);
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out += line + "\n";
      }
    } else {
      out += margin + Pad(Label(key), width + 2) + value.Text() + "\n";
    }
  }
}

// --- parser ---------------------------------------------------------------------------------

namespace {

class Parser {
 public:
  explicit Parser(const std::string& text) : s_(text) {}

  Json Document() {
    Json value = Value(0);
    Space();
    if (i_ != s_.size()) Fail("text after the document");
    return value;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what + " at offset " + std::to_string(i_));
  }
  void Space() {
    while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\n' || s_[i_] == '\r' || s_[i_] == '\t')) ++i_;
  }
  bool Take(char c) {
    Space();
    if (i_ < s_.size() && s_[i_] == c) {
      ++i_;
      return true;
    }
    return false;
  }
  void Expect(char c) {
    if (!Take(c)) Fail(std::string("expected '") + c + "'");
  }
  bool Word(const char* word) {
    const std::string w(word);
    if (s_.compare(i_, w.size(), w) == 0) {
      i_ += w.size();
      return true;
    }
    return false;
  }

  Json Value(int depth) {
    if (depth > 64) Fail("nesting too deep");
    Space();
    if (i_ >= s_.size()) Fail("unexpected end");
    const char c = s_[i_];
    if (c == '{') {
      ++i_;
      Json object = Json::Object();
      if (Take('}')) return object;
      do {
        Space();
        std::string key = String();
        Expect(':');
        object.Set(key, Value(depth + 1));
      } while (Take(','));
      Expect('}');
      return object;
    }
    if (c == '[') {
      ++i_;
      Json array = Json::Array();
      if (Take(']')) return array;
      do {
        array.Push(Value(depth + 1));
      } while (Take(','));
      Expect(']');
      return array;
    }
    if (c == '"') return Json(String());
    if (Word("true")) return Json(true);
    if (Word("false")) return Json(false);
    if (Word("null")) return Json(nullptr);
    return Number();
  }

  std::string String() {
    if (i_ >= s_.size() || s_[i_] != '"') Fail("expected a string");
    ++i_;
    std::string out;
    while (true) {
      if (i_ >= s_.size()) Fail("unterminated string");
      const unsigned char c = static_cast<unsigned char>(s_[i_++]);
      if (c == '"') return out;
      if (c < 0x20) Fail("control character in string");
      if (c != '\\') {
        out += char(c);
        continue;
      }
      if (i_ >= s_.size()) Fail("unterminated escape");
      const char e = s_[i_++];
      switch (e) {
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case '/': out += '/'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': {
          if (i_ + 4 > s_.size()) Fail("short \\u escape");
          for (size_t k = 0; k < 4; ++k) {
            if (!std::isxdigit(static_cast<unsigned char>(s_[i_ + k]))) Fail("bad \\u escape");
          }
          const unsigned long code = std::strtoul(s_.substr(i_, 4).c_str(), nullptr, 16);
          i_ += 4;
          out += code < 0x80 ? char(code) : '?';
          break;
        }
        default: Fail("bad escape");
      }
    }
  }

  Json Number() {
    const size_t start = i_;
    if (i_ < s_.size() && s_[i_] == '-') ++i_;
    if (i_ >= s_.size() || !std::isdigit(static_cast<unsigned char>(s_[i_]))) Fail("expected a value");
    if (s_[i_] == '0' && i_ + 1 < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_ + 1])))
      Fail("leading zero");
    while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
    bool real = false;
    if (i_ < s_.size() && s_[i_] == '.') {
      real = true;
      ++i_;
      if (i_ >= s_.size() || !std::isdigit(static_cast<unsigned char>(s_[i_]))) Fail("bad fraction");
      while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
    }
    if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
      real = true;
      ++i_;
      if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-')) ++i_;
      if (i_ >= s_.size() || !std::isdigit(static_cast<unsigned char>(s_[i_]))) Fail("bad exponent");
      while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
    }
    const std::string text = s_.substr(start, i_ - start);
    if (real) return Json(std::strtod(text.c_str(), nullptr));
    return Json(static_cast<long long>(std::strtoll(text.c_str(), nullptr, 10)));
  }

  const std::string& s_;
  size_t i_ = 0;
};

}  // namespace

bool ParseJson(const std::string& text, Json* out, std::string* error) {
  try {
    Json value = Parser(text).Document();
    if (out != nullptr) *out = std::move(value);
    return true;
  } catch (const std::exception& e) {
    if (error != nullptr) *error = e.what();
    return false;
  }
}

}  // namespace tamrik::cli

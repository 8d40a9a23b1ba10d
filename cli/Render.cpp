#include "Render.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace tamrik::cli {
namespace {

// Members shown as 0x and this many hexadecimal digits (at least): identifiers, versions,
// switch and LED patterns, codes, addresses.
struct HexMember {
  std::string_view key;
  int digits;
};
constexpr HexMember kHexMembers[] = {
    {"version", 4},       {"boot_version", 4},  {"boot_hw_info", 4},  {"switches", 4},   {"leds", 4},
    {"service", 4},       {"answer_code", 4},   {"gateway_id", 8},    {"serial_number", 8},
    {"start_address", 8}, {"id", 6},            {"status", 2},        {"sw_revision", 2}, {"type", 2},
    {"code", 2},          {"from", 2},          {"to", 2},
};

// Members whose arrays are bytes: "01 A0 FF".
constexpr std::string_view kByteMembers[] = {
    "inputs", "outputs", "parameters", "written", "diagnosis", "gateway", "bytes", "extra", "tr_buffer",
    "position", "frame", "request", "answer", "sent", "received", "read", "before", "read_back",
};

int HexDigits(const std::string& key) {
  for (const HexMember& member : kHexMembers) {
    if (member.key == key) return member.digits;
  }
  return 0;
}

bool ByteList(const std::string& key, const Json& value) {
  if (!value.is_array() || std::find(std::begin(kByteMembers), std::end(kByteMembers), key) == std::end(kByteMembers))
    return false;
  return std::all_of(value.begin(), value.end(), [](const Json& item) { return item.is_number_integer(); });
}

std::string NumberText(const std::string& key, const Json& value) {
  char text[32];
  if (value.is_number_float()) {
    std::snprintf(text, sizeof text, "%.1f", value.get<double>());
    return text;
  }
  const int digits = HexDigits(key);
  if (digits > 0) return HexText(value.get<uint64_t>(), digits);
  return value.is_number_unsigned() ? std::to_string(value.get<uint64_t>()) : std::to_string(value.get<int64_t>());
}

std::string Label(const std::string& key) {
  std::string label = key;
  std::replace(label.begin(), label.end(), '_', ' ');
  return label;
}

std::string Pad(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string TrimRight(std::string line) {
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

bool IsTable(const Json& value) { return value.is_array() && !value.empty() && value.front().is_object(); }

// Columns from the first row; every row of a result has the same members.
void RenderTable(std::string& out, const Json& rows, const std::string& margin) {
  std::vector<std::string> columns;
  std::vector<size_t> widths;
  for (const auto& [column, ignored] : rows.front().items()) {
    columns.push_back(column);
    widths.push_back(Label(column).size());
  }
  auto cell = [&](const Json& row, size_t c) {
    const auto found = row.find(columns[c]);
    return found != row.end() ? ValueText(columns[c], *found) : std::string("-");
  };
  for (const Json& row : rows) {
    for (size_t c = 0; c < columns.size(); ++c) widths[c] = std::max(widths[c], cell(row, c).size());
  }
  std::string line = margin + "  ";
  for (size_t c = 0; c < columns.size(); ++c) line += Pad(Label(columns[c]), widths[c] + 2);
  out += TrimRight(line) + "\n";
  for (const Json& row : rows) {
    line = margin + "  ";
    for (size_t c = 0; c < columns.size(); ++c) line += Pad(cell(row, c), widths[c] + 2);
    out += TrimRight(line) + "\n";
  }
}

void RenderObject(std::string& out, const Json& object, int indent) {
  const std::string margin(size_t(indent), ' ');
  size_t width = 0;
  for (const auto& [key, value] : object.items()) {
    if (!value.is_object()) width = std::max(width, key.size());
  }
  for (const auto& [key, value] : object.items()) {
    if (value.is_object()) {
      out += margin + Label(key) + ":\n";
      RenderObject(out, value, indent + 2);
    } else if (IsTable(value)) {
      out += margin + Label(key) + ":\n";
      RenderTable(out, value, margin);
    } else {
      out += margin + Pad(Label(key), width + 2) + ValueText(key, value) + "\n";
    }
  }
}

}  // namespace

std::string HexText(uint64_t value, int digits) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%0*llX", digits, static_cast<unsigned long long>(value));
  return text;
}

std::string BytesText(const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) return "(none)";
  std::string out;
  char pair[4];
  for (uint8_t b : bytes) {
    std::snprintf(pair, sizeof pair, "%02X", b);
    out += (out.empty() ? "" : " ") + std::string(pair);
  }
  return out;
}

std::string ValueText(const std::string& key, const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_number()) return NumberText(key, value);
  if (value.is_string()) return value.get<std::string>();
  if (value.is_object()) return "{...}";
  if (ByteList(key, value)) {
    std::vector<uint8_t> bytes;
    for (const Json& item : value) bytes.push_back(uint8_t(item.get<int64_t>() & 0xFF));
    return BytesText(bytes);
  }
  if (value.empty()) return "-";
  std::string out;
  for (const Json& item : value) out += (out.empty() ? "" : " ") + ValueText(key, item);
  return out;
}

std::string Render(const Json& document) {
  std::string out;
  if (document.is_object()) {
    RenderObject(out, document, 0);
  } else {
    out = ValueText("", document) + "\n";
  }
  return out;
}

}  // namespace tamrik::cli

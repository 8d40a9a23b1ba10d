// A small JSON document model for the tool's output. Every command builds one result
// document; --json prints it as JSON, otherwise it is rendered as aligned text and tables.
// Numbers may carry a display hint (hexadecimal width, byte list) that only the text
// rendering uses, so scripts always get plain numbers.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tamrik::cli {

class Json {
 public:
  enum class Kind { Null, Bool, Number, String, Array, Object };

  Json() = default;
  Json(std::nullptr_t) {}
  Json(bool value) : value_(value) {}
  Json(int value) : value_(int64_t(value)) {}
  Json(long value) : value_(int64_t(value)) {}
  Json(long long value) : value_(int64_t(value)) {}
  Json(unsigned value) : value_(int64_t(value)) {}
  Json(unsigned long value) : value_(int64_t(value)) {}
  Json(unsigned long long value) : value_(int64_t(value)) {}
  Json(double value) : value_(value) {}
  Json(const char* text) : value_(std::string(text)) {}
  Json(std::string text) : value_(std::move(text)) {}

  static Json Array() { Json j; j.value_ = Items{}; return j; }
  static Json Object() { Json j; j.value_ = Members{}; return j; }
  // A number shown as 0x and this many hexadecimal digits in text.
  static Json Hex(uint64_t value, int digits) { Json j{static_cast<long long>(value)}; j.hexDigits_ = digits; return j; }
  // An array of numbers shown as hexadecimal bytes in text ("01 A0 FF").
  static Json Bytes(const std::vector<uint8_t>& bytes);

  Kind kind() const;
  bool IsScalar() const { return kind() != Kind::Array && kind() != Kind::Object; }

  // Objects keep their members in the order they were set; setting a key again replaces it.
  Json& Set(const std::string& key, Json value);
  const Json* Find(const std::string& key) const;
  // Arrays.
  Json& Push(Json value);
  size_t Size() const;
  const Json& operator[](size_t i) const;
  const std::vector<std::pair<std::string, Json>>& Fields() const;

  int64_t AsInt() const;
  const std::string& AsString() const;

  // Compact JSON with two-space indentation of nested containers.
  std::string Dump() const;
  // The value as text for a person: hex hints applied, strings unquoted, byte lists spaced.
  std::string Text() const;

  // Text rendering of a whole result: scalar members as aligned "label  value" lines, arrays
  // of objects as tables, nested objects indented.
  std::string Render() const;

 private:
  using Items = std::vector<Json>;
  using Members = std::vector<std::pair<std::string, Json>>;
  void DumpTo(std::string& out, int indent) const;
  void RenderTo(std::string& out, int indent) const;

  std::variant<std::monostate, bool, int64_t, double, std::string, Items, Members> value_;
  int hexDigits_ = 0;
  bool bytes_ = false;
};

// A strict parser, enough to check what the tool prints (the tests use it).
bool ParseJson(const std::string& text, Json* out, std::string* error = nullptr);

}  // namespace tamrik::cli

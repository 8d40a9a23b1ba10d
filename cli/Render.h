// The text a person sees for a result document. Scripts get the document as JSON with plain
// numbers; a person gets the same members as aligned "label  value" lines, arrays of objects
// as tables, nested objects indented, and some numbers in hexadecimal: which ones is known by
// the member's name (a module "id" has six hexadecimal digits, "inputs" are bytes).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Tool.h"

namespace tamrik::cli {

// The whole document: what a command prints without --json.
std::string Render(const Json& document);

// One value as its member's name has it shown ("0x0003", "01 A0 FF", "yes", "-").
std::string ValueText(const std::string& key, const Json& value);

// 0x and at least digits hexadecimal digits: HexText(3, 4) is "0x0003".
std::string HexText(uint64_t value, int digits);
// "01 A0 FF"; "(none)" for no bytes.
std::string BytesText(const std::vector<uint8_t>& bytes);

}  // namespace tamrik::cli

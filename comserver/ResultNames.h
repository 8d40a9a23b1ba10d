// Names and meanings of the result codes, for people: the command-line tool prints them
// beside every failing code, and the reference of the result codes is generated from the
// same table, so the two cannot drift apart.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tamrik {

// The small codes (1 to 16) mean different things in different operations; the caller
// knows which operation produced a code and says so, and gets the one meaning that applies.
enum class ResultContext {
  Any,       // no operation known: the meaning lists every reading
  OpenLink,  // kaVOpenComPort, kaVOpenEthernet
  Loader,    // firmware line and boot-loader chain downloads
  Image,     // image download
};

struct ResultInfo {
  std::string name;     // one word, CamelCase, e.g. "BadCheckValue"
  std::string meaning;  // one sentence without a final full stop
};

// Every code has a description; a code the driver never produces is "Unknown".
ResultInfo DescribeResult(uint32_t code, ResultContext context = ResultContext::Any);


// The fixed codes with their names, in ascending order of value, and the composed families
// (a base and the range added to it), for listings.
struct ResultEntry {
  uint32_t code;
  const char* name;
  const char* meaning;
};
std::span<const ResultEntry> FixedResults();

struct ResultFamily {
  uint32_t base;
  uint32_t first;  // the smallest and largest value added to base
  uint32_t last;
  const char* name;
  const char* meaning;  // "%X" style placeholders are not used; the text names the addend
};
std::span<const ResultFamily> ResultFamilies();

// Name and meaning of a code as texts that live as long as the program: the entry of a fixed
// code, the family of a composed one, or "Unknown".
ResultEntry StaticDescription(uint32_t code);

}  // namespace tamrik

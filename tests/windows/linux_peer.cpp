// The Linux half of the comparison: runs the shared call sequence through libtamrik.so and
// writes the trace lines in the form wine's debugger channel prints them.
//   tamrik-peer DIR demo|tcp PORT|udp PORT|serial N TRACEFILE
#include <cstdio>
#include <string>

#include "MethodTable.h"
#include "Scenario.h"
#include "tamrik.h"

namespace {

// Each output call as wine shows an OutputDebugStringA text: quoted, with the same escapes.
void WriteEscaped(void* context, const char* text) {
  FILE* out = static_cast<FILE*>(context);
  static const char kHex[] = "0123456789abcdef";
  std::string line;
  for (const char* p = text; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    switch (c) {
      case '\n': line += "\\n"; break;
      case '\r': line += "\\r"; break;
      case '\t': line += "\\t"; break;
      case '"': line += "\\\""; break;
      case '\\': line += "\\\\"; break;
      default:
        if (c < ' ' || c >= 127) {
          line += "\\x";
          line += kHex[c >> 4];
          line += kHex[c & 15];
        } else {
          line += char(c);
        }
    }
  }
  std::fprintf(out, "%s\n", line.c_str());
  std::fflush(out);
}

struct CDriver {
  static constexpr bool kShowsStatus = true;
  tamrik_com* com;
#define TAMRIK_EXPAND(...) __VA_ARGS__
#define TAMRIK_FORWARD(dispid, name, params, args) \
  uint32_t name params { return tamrik_##name(com, TAMRIK_EXPAND args); }
  TAMRIK_METHOD_TABLE(TAMRIK_FORWARD)
#undef TAMRIK_FORWARD
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: tamrik-peer DIR demo|tcp PORT|udp PORT|serial N TRACEFILE\n");
    return 2;
  }
  const std::string kind = argv[2];
  const bool hasPort = kind != "demo";
  if (argc < (hasPort ? 5 : 4)) return 2;
  FILE* trace = std::fopen(argv[hasPort ? 4 : 3], "w");
  if (trace == nullptr) return 2;
  tamrik_set_trace(WriteEscaped, trace);
  tamrik_com* com = tamrik_create_in(argv[1]);
  if (com == nullptr) return 2;
  CDriver driver{com};
  tamrik::scenario::Printer printer(stdout);
  tamrik::scenario::Run(driver, tamrik::scenario::Link{kind, hasPort ? argv[3] : ""}, printer);
  tamrik_release(com);
  tamrik_set_trace(nullptr, nullptr);
  std::fclose(trace);
  return 0;
}

// The download file readers: firmware line files, the three loader-stage files and image
// files, each with any content, against a loader that answers with one chosen character.
//
// Input: a selector byte, the loader's answer character, then the file.
#include <cstring>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint8_t selector = data[0];
  uint8_t answers[64];
  memset(answers, data[1], sizeof answers);
  tamrik::fuzz::StreamPort stream(answers, sizeof answers, (selector & 0x10) != 0);
  tamrik::CComPort& port = stream.port();
  const std::string path = tamrik::fuzz::WriteWorkFile("download.bin", data + 2, size - 2);

  switch (selector % 5) {
    case 0: {
      int32_t records = 0;
      if (port.InitDownloadLines(path.c_str(), &records) == 0) {
        // One call more than the file has records: the reader must stop by itself.
        for (int32_t i = 0; i <= records && i < 1000; ++i) {
          if (port.DownloadLine() != 0) break;
        }
      }
      break;
    }
    case 1:
      port.DownloadBslFile(path.c_str());
      break;
    case 2:
      port.DownloadSetCtxFile(path.c_str());
      break;
    case 3:
      port.DownloadBootFile(path.c_str());
      break;
    default: {
      int32_t length = 0;
      if (port.InitDownloadImage(path.c_str(), &length) != 0) break;
      if (length != int32_t(size - 2)) __builtin_trap();
      uint8_t block[256 + 1];
      int32_t total = 0;
      for (int i = 0; i < 1000; ++i) {
        int32_t blockSize = 256, number = 0;
        block[256] = 0xEE;
        if (port.PopDownloadImageBlock(&blockSize, block, &number) != 0) break;
        if (block[256] != 0xEE || blockSize < 0 || blockSize > 256) __builtin_trap();
        total += blockSize;
        if (number == -1) {
          if (total != length) __builtin_trap();
          break;
        }
      }
      break;
    }
  }
  return 0;
}

// The image file: any binary file, taken in blocks for the image services.
#include <cstdint>
#include <cstdio>
#include <memory>

#include "ComPort2.h"
#include "ResultCodes.h"
#include "download/LoadStream.h"
#include "platform/Platform.h"

namespace tamrik {

namespace {

constexpr const char* kBoxCaption = "PopDownloadImageBlock";
constexpr int32_t kLastBlock = -1;

// The length travels as a 32-bit value and the host counts blocks as (length + 255) / 256
// in signed 32-bit arithmetic; a longer image could be announced only wrongly.
constexpr int64_t kMaxImageLength = INT32_MAX - 255;

constexpr size_t kImageReadBuffer = 64 * 1024;

}  // namespace

uint32_t CComPort::InitDownloadImage(const char* path, int32_t* length) {
  load_.count = 1;
  load_.index = 1;
  load_.position = 0;
  load_.file.reset();
  if (length != nullptr) *length = 0;
  if (path == nullptr) return rc::kOk;
  FILE* file = fopen(path, "rb");
  if (file == nullptr) return download::kNoFile;
  // Left at its end: the first block rewinds it.
  const int64_t size = platform::FileLength(file);
  if (size < 0 || size > kMaxImageLength) {
    fclose(file);
    return download::kNoFile;
  }
  // The blocks are read a few hundred bytes at a time, each between two exchanges: a
  // large buffer makes the file's reads rare, where the default one reads every 16th block.
  if (!load_.buffer) load_.buffer = std::make_unique<char[]>(kImageReadBuffer);
  setvbuf(file, load_.buffer.get(), _IOFBF, kImageReadBuffer);
  load_.file.reset(file);
  if (length != nullptr) *length = int32_t(size);
  return rc::kOk;
}

uint32_t CComPort::PopDownloadImageBlock(int32_t* size, uint8_t* buffer, int32_t* blockNumber) {
  if (load_.file == nullptr) {
    platform::ShowMessageBox(kBoxCaption, "Error(1) pfLoadStream==NULL");
    return download::kNoFile;
  }
  if (load_.index == 1) rewind(load_.file.get());
  const size_t wanted = *size > 0 ? size_t(*size) : 0;
  const size_t got = fread(buffer, 1, wanted, load_.file.get());
  *size = int32_t(got);
  *blockNumber = int32_t(load_.index);
  ++load_.index;
  if (ferror(load_.file.get())) {
    load_.file.reset();
    platform::ShowMessageBox(kBoxCaption, "Error(2) ftell() ");
    return download::kFileRefused;
  }
  if (feof(load_.file.get())) {
    *blockNumber = kLastBlock;
    load_.file.reset();
    return rc::kOk;
  }
  // A block that fills its buffer exactly may still be the last: one byte of look-ahead
  // tells, so that no empty block ever follows a full one.
  const int next = fgetc(load_.file.get());
  if (ferror(load_.file.get())) {
    load_.file.reset();
    platform::ShowMessageBox(kBoxCaption, "Error(3) fread()");
    return download::kFileRefused;
  }
  if (next == EOF) {
    *blockNumber = kLastBlock;
    load_.file.reset();
  } else {
    ungetc(next, load_.file.get());
  }
  return rc::kOk;
}

}  // namespace tamrik

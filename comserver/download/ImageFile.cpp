// The image file: any binary file, taken in blocks for the image services.
#include <sys/types.h>

#include <cstdint>
#include <cstdio>

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

int64_t FileLength(FILE* file) {
#if defined(_WIN32)
  if (_fseeki64(file, 0, SEEK_END) != 0) return -1;
  return _ftelli64(file);
#else
  if (fseeko(file, 0, SEEK_END) != 0) return -1;
  return int64_t(ftello(file));
#endif
}

}  // namespace

uint32_t CComPort::InitDownloadImage(const char* path, int32_t* length) {
  nLoadCount = 1;
  nLoadIndex = 1;
  nLoadPosition = 0;
  download::CloseLoadStream(*this);
  if (length != nullptr) *length = 0;
  if (path == nullptr) return rc::kOk;
  FILE* file = fopen(path, "rb");
  if (file == nullptr) return download::kNoFile;
  // Left at its end: the first block rewinds it.
  const int64_t size = FileLength(file);
  if (size < 0 || size > kMaxImageLength) {
    fclose(file);
    return download::kNoFile;
  }
  pfLoadStream = file;
  if (length != nullptr) *length = int32_t(size);
  return rc::kOk;
}

uint32_t CComPort::PopDownloadImageBlock(int32_t* size, uint8_t* buffer, int32_t* blockNumber) {
  if (pfLoadStream == nullptr) {
    platform::ShowMessageBox(kBoxCaption, "Error(1) pfLoadStream==NULL");
    return download::kNoFile;
  }
  if (nLoadIndex == 1) rewind(pfLoadStream);
  const size_t wanted = *size > 0 ? size_t(*size) : 0;
  const size_t got = fread(buffer, 1, wanted, pfLoadStream);
  *size = int32_t(got);
  *blockNumber = int32_t(nLoadIndex);
  ++nLoadIndex;
  if (ferror(pfLoadStream)) {
    download::CloseLoadStream(*this);
    platform::ShowMessageBox(kBoxCaption, "Error(2) ftell() ");
    return download::kFileRefused;
  }
  if (feof(pfLoadStream)) {
    *blockNumber = kLastBlock;
    download::CloseLoadStream(*this);
    return rc::kOk;
  }
  // A block that fills its buffer exactly may still be the last: one byte of look-ahead
  // tells, so that no empty block ever follows a full one.
  const int next = fgetc(pfLoadStream);
  if (ferror(pfLoadStream)) {
    download::CloseLoadStream(*this);
    platform::ShowMessageBox(kBoxCaption, "Error(3) fread()");
    return download::kFileRefused;
  }
  if (next == EOF) {
    *blockNumber = kLastBlock;
    download::CloseLoadStream(*this);
  } else {
    ungetc(next, pfLoadStream);
  }
  return rc::kOk;
}

}  // namespace tamrik

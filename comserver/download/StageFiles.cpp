// The three loader-stage files: each one run of hexadecimal digit pairs, sent whole.
#include <cstdio>

#include "ComPort2.h"
#include "ResultCodes.h"
#include "download/LoadStream.h"

namespace tamrik {

namespace {

bool IsBlank(int c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }

// Reads the stage file at path into buffer (room for capacity bytes). Gives 0 and the byte
// count, missingCode when the file cannot be opened, or 2 for a file the loader must not
// get: more pairs than the buffer holds, or anything but digits ahead of the white space
// that ends it. A lone last digit is a byte of its own, as a short last piece always was.
uint32_t ReadStageFile(const char* path, uint32_t missingCode, uint8_t* buffer, size_t capacity, size_t* count) {
  *count = 0;
  if (path == nullptr) return missingCode;
  FILE* file = fopen(path, "r");
  if (file == nullptr) return missingCode;

  uint32_t result = rc::kOk;
  size_t digits = 0;
  bool trailing = false;
  for (int c = fgetc(file); c != EOF; c = fgetc(file)) {
    if (IsBlank(c)) {
      trailing = true;
      continue;
    }
    const int value = download::HexValue(c);
    if (value < 0 || trailing || digits == 2 * capacity) {
      result = download::kFileRefused;
      break;
    }
    if (digits % 2 == 0) {
      buffer[digits / 2] = uint8_t(value);
    } else {
      buffer[digits / 2] = uint8_t(buffer[digits / 2] * 16 + value);
    }
    ++digits;
  }
  if (ferror(file)) result = download::kFileRefused;
  fclose(file);
  if (result == rc::kOk) *count = (digits + 1) / 2;
  return result;
}

}  // namespace

uint32_t CComPort::DownloadBslFile(const char* path) {
  uint8_t bytes[download::kBslBuffer];
  size_t count = 0;
  // A stage file takes the place of whatever download file was open.
  load_.file.reset();
  uint32_t result = ReadStageFile(path, rc::kStage1FileMissing, bytes, sizeof bytes, &count);
  if (result != 0) return result;

  // The zero byte wakes the loader, which names itself with one byte before it takes the file.
  const uint8_t wake = 0x00;
  if ((result = WriteStream(&wake, 1)) != 0) return result;
  if ((result = ReadLoaderIdent()) != 0) return result;
  if ((result = WriteStream(bytes, int32_t(count))) != 0) return result;
  // Compared signed on purpose: the digit answers (0x3003 and up) fail this stage too.
  const uint32_t answer = ReadLoaderAnswer();
  return int32_t(answer) > 4 ? answer : rc::kOk;
}

uint32_t CComPort::DownloadSetCtxFile(const char* path) {
  uint8_t bytes[download::kSetCtxBuffer];
  size_t count = 0;
  // A stage file takes the place of whatever download file was open.
  load_.file.reset();
  uint32_t result = ReadStageFile(path, rc::kStage2FileMissing, bytes, sizeof bytes, &count);
  if (result != 0 || count == 0) return result;
  if ((result = WriteStream(bytes, int32_t(count))) != 0) return result;
  // This stage is acknowledged by a character outside the loader's table.
  return ReadLoaderAnswer();
}

uint32_t CComPort::DownloadBootFile(const char* path) {
  uint8_t bytes[download::kBootBuffer];
  size_t count = 0;
  // A stage file takes the place of whatever download file was open.
  load_.file.reset();
  const uint32_t result = ReadStageFile(path, rc::kStage3FileMissing, bytes, sizeof bytes, &count);
  if (result != 0) return result;
  return WriteStream(bytes, int32_t(count));
}

}  // namespace tamrik

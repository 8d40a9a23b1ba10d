// The firmware line file: records introduced by ':', sent to the boot loader one per call.
#include <cstdint>
#include <cstdio>

#include "ComPort2.h"
#include "ResultCodes.h"
#include "download/LoadStream.h"

namespace tamrik {

namespace {

constexpr int kMaxRepetitions = 3;
constexpr uint32_t kAcceptedBelow = 5;  // low byte of an answer code: below accepts the record

// One piece of at most two characters, cut short after a line end, as a record byte is
// read. Gives false when the piece ends the record: the file ended, or its first character
// lies outside '0'..'Z', so that a line end, a blank or a lower-case letter closes the
// record. A piece whose first character is in range is worth its leading hexadecimal
// digits; so the second digit of a pair may be of either case.
bool ReadRecordPiece(FILE* file, uint8_t* value) {
  const int first = fgetc(file);
  if (first == EOF || first < '0' || first > 'Z') return false;
  const int second = fgetc(file);
  int result = 0;
  const int high = download::HexValue(first);
  if (high >= 0) {
    result = high;
    const int low = second == EOF ? -1 : download::HexValue(second);
    if (low >= 0) result = result * 16 + low;
  }
  *value = uint8_t(result);
  return true;
}

}  // namespace

uint32_t CComPort::InitDownloadLines(const char* path, int32_t* records) {
  load_.file.reset();
  load_.count = 1;
  load_.index = 1;
  load_.position = 0;
  if (records != nullptr) *records = 0;
  if (path == nullptr) return download::kNoFile;
  FILE* file = fopen(path, "r");
  if (file == nullptr) return download::kNoFile;
  for (int c = fgetc(file); c != EOF; c = fgetc(file)) {
    if (c == ':') ++load_.count;
  }
  if (ferror(file)) {
    fclose(file);
    load_.count = 1;
    return download::kNoFile;
  }
  load_.file.reset(file);
  if (records != nullptr) *records = int32_t(load_.count - 1);
  return rc::kOk;
}

uint32_t CComPort::DownloadLine() {
  if (load_.file == nullptr) return download::kNoFile;
  if (load_.index == 1 && (ReadLoaderAnswer() & 0xFF) != 1) return rc::kLoaderNotReady;
  ++load_.index;
  // Once the last record has been taken the file has nothing more to give, whatever the
  // loader makes of that record.
  const bool last = load_.index >= load_.count;

  uint8_t record[download::kRecordBuffer];
  size_t length = 0;
  bool tooLong = false;
  bool found = false;
  if (fseek(load_.file.get(), static_cast<long>(load_.position), SEEK_SET) == 0) {
    for (int c = fgetc(load_.file.get()); c != EOF; c = fgetc(load_.file.get())) {
      if (c == ':') {
        found = true;
        break;
      }
    }
  }
  if (!found) {
    // No further record: the count taken at opening no longer holds for this file.
    load_.file.reset();
    return download::kFileRefused;
  }
  record[length++] = ':';
  uint8_t value = 0;
  while (ReadRecordPiece(load_.file.get(), &value)) {
    // A record beyond the buffer is read to its end all the same, so that the next call
    // starts behind it.
    if (length < sizeof record) {
      record[length++] = value;
    } else {
      tooLong = true;
    }
  }
  const long position = ftell(load_.file.get());
  const bool readError = ferror(load_.file.get()) != 0 || position < 0 || uint64_t(position) > UINT32_MAX;
  if (!readError) load_.position = uint32_t(position);
  if (readError || tooLong) {
    if (readError || last) load_.file.reset();
    return download::kFileRefused;
  }

  WriteStream(record, int32_t(length));
  uint32_t answer = ReadLoaderAnswer();
  for (int repeat = 0; (answer & 0xFF) >= kAcceptedBelow && repeat < kMaxRepetitions; ++repeat) {
    WriteStream(record, int32_t(length));
    answer = ReadLoaderAnswer();
  }
  if (last) load_.file.reset();
  return (answer & 0xFF) >= kAcceptedBelow ? answer : rc::kOk;
}

}  // namespace tamrik

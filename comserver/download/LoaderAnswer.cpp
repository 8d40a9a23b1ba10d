// The boot loader's one-character answers.
#include "ComPort2.h"
#include "ResultCodes.h"

namespace tamrik {

namespace {

uint32_t MapLoaderCharacter(uint8_t c) {
  switch (c) {
    case 'r': return 1;
    case '!': return 2;
    case 'x': return 4;
    case 'E': return 5;
    case 'e': return 6;
    case 't': return 7;
    case 'c': return 8;
    case 'b': return 9;
    default:
      // The digit answers carry the digit itself in the second byte, so that a caller that
      // looks only at the low byte sees one kind of answer (3) for all eight.
      if (c >= '0' && c <= '7') return (uint32_t(c) << 8) | 3;
      return 0;
  }
}

}  // namespace

// Bytes the loader sent before the question stay queued, as they would in a serial line's
// input queue: the answer is the next byte.
uint32_t CComPort::ReadLoaderAnswer() {
  uint8_t c = 0;
  if (ReadStream(&c, 1) != 0) return rc::kReadFailed;
  return MapLoaderCharacter(c);
}

uint32_t CComPort::ReadLoaderIdent() {
  uint8_t ident = 0;
  return ReadStream(&ident, 1) != 0 ? rc::kReadFailed : rc::kOk;
}

}  // namespace tamrik

// Methods that this build does not carry out yet: each reports 0x10061 in its out-value and
// as its return value, so a host sees a clear failure instead of a silent success.
#include "ResultCodes.h"
#include "com.h"

namespace tamrik {

uint32_t Ccom::kaVInitFirmwareDownload(const char* psFileName, int32_t* plNoofLines, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVDownloadFirmwareLines(int32_t* plLine, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVStartBootFirmwareDownload(int32_t nPort, int32_t* plBaudrate, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVBootFirmwareDownload(const char* psBSL_File, const char* psSetCtx_File, const char* psBoot_File, const char* psFileName, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVBootFirmwareDownload_FromIni(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVInitImageDownload(const char* psFileName, int32_t* plStartAddress, int32_t* plNoofBlocks, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVDownloadImageBlock(int32_t* plBlock, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVCancelImageDownload(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

}  // namespace tamrik

// Download methods: firmware records, the boot loader chain and images.
#include <cstdint>
#include <string>

#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceTable.h"
#include "platform/Platform.h"

namespace tamrik {

namespace {

constexpr int32_t kImageBlockSize = 256;
constexpr int32_t kLastBlock = -1;
constexpr int32_t kNoStartAddress = -1;

// The answers to the download services carry nothing the driver uses; a small buffer takes
// whatever data they have.
constexpr size_t kScratchValues = 16;

// Lays value out low byte first, one byte per 32-bit value, as the announcement is built.
void PutBytes(uint32_t value, int32_t* out) {
  for (int i = 0; i < 4; ++i) out[i] = int32_t((value >> (8 * i)) & 0xFF);
}

// A key missing from the boot file list reads as this name, which is then opened like any other.
constexpr const char* kMissingBootFile = "Fehler";
constexpr uint32_t kBootNameSize = 200;

std::string ReadBootName(const char* key, const std::string& file) {
  char name[kBootNameSize] = {};
  platform::ProfileGetString("BSL-Files", key, kMissingBootFile, name, sizeof name, file);
  return name;
}

}  // namespace

// --- boot loader chain -------------------------------------------------------------------------

uint32_t Ccom::RunBootChain(const char* bsl, const char* setCtx, bool setCtxAlways, const char* boot,
                            const char* firmware, int32_t* plError) {
  port_->ChangeTimings(true);
  uint32_t result = port_->DownloadBslFile(bsl);
  if (result == 0 && (setCtxAlways || (setCtx != nullptr && setCtx[0] != '\0'))) {
    result = port_->DownloadSetCtxFile(setCtx);
  }
  if (result == 0) result = port_->DownloadBootFile(boot);
  if (result != 0) {
    *plError = int32_t(result);
    return result;
  }
  if (nDemo == 0) {
    int32_t records = 0;
    result = port_->InitDownloadLines(firmware, &records);
    for (int32_t i = 0; result == 0 && i < records; ++i) result = port_->DownloadLine();
    if (result != 0) {
      *plError = int32_t(result);
      return rc::kAnswerFailed;
    }
  }
  result = port_->Close();
  *plError = int32_t(result);
  return result;
}

// --- firmware records --------------------------------------------------------------------------

uint32_t Ccom::kaVInitFirmwareDownload(const char* psFileName, int32_t* plNoofLines, int32_t* plError) {
  // The loader answers more slowly than the gateway's service layer; the longer time-out stays
  // until a method switches back.
  port_->ChangeTimings(true);
  if (nDemo != 0) {
    *plError = 0;
    return 0;
  }
  int32_t records = 0;
  const uint32_t result = port_->InitDownloadLines(psFileName, &records);
  *plNoofLines = records;
  if (result != 0) {
    *plError = int32_t(result);
    return rc::kAnswerFailed;
  }
  int32_t scratch[kScratchValues] = {};
  int32_t count = 0;
  uint32_t methodReturn = 0;
  if (!Exchange(kServiceFirmwareDownload, nullptr, nullptr, scratch, &count, kScratchValues, plError,
                RequestFailure::ReturnZero, &methodReturn)) {
    return methodReturn;
  }
  *plError = 0;
  return 0;
}

uint32_t Ccom::kaVDownloadFirmwareLines(int32_t* plLine, int32_t* plError) {
  const uint32_t result = port_->DownloadLine();
  *plError = int32_t(result);
  return result != 0 ? rc::kAnswerFailed : 0;
}

// --- boot loader chain -------------------------------------------------------------------------

uint32_t Ccom::kaVStartBootFirmwareDownload(int32_t nPort, int32_t* plBaudrate, int32_t* plError) {
  nComPort = nPort;
  nBaudrate = *plBaudrate;
  // A line that cannot be reopened shows itself in the download call that follows.
  port_->Close();
  port_->Open(nComPort, nBaudrate, 1);
  *plError = 0;
  return 0;
}

uint32_t Ccom::kaVBootFirmwareDownload(const char* psBSL_File, const char* psSetCtx_File,
                                       const char* psBoot_File, const char* psFileName, int32_t* plError) {
  return RunBootChain(psBSL_File, psSetCtx_File, false, psBoot_File, psFileName, plError);
}

uint32_t Ccom::kaVBootFirmwareDownload_FromIni(int32_t* plError) {
  const std::string bsl = ReadBootName("BSL_File", szBootFile);
  const std::string setCtx = ReadBootName("SetCtx_File", szBootFile);
  const std::string boot = ReadBootName("Boot_File", szBootFile);
  const std::string firmware = ReadBootName("Boot_Firmware", szBootFile);
  return RunBootChain(bsl.c_str(), setCtx.c_str(), true, boot.c_str(), firmware.c_str(), plError);
}

// --- images ----------------------------------------------------------------------------------

uint32_t Ccom::kaVInitImageDownload(const char* psFileName, int32_t* plStartAddress, int32_t* plNoofBlocks,
                                    int32_t* plError) {
  port_->ChangeTimings(true);
  int32_t length = 0;
  const uint32_t result = port_->InitDownloadImage(psFileName, &length);
  if (result != 0) {
    *plError = int32_t(result);
    return 0;
  }
  *plNoofBlocks = (length + kImageBlockSize - 1) / kImageBlockSize;

  int32_t announcement[8] = {};
  int32_t count = 4;
  PutBytes(uint32_t(length), announcement);
  if (*plStartAddress != kNoStartAddress) {
    PutBytes(uint32_t(*plStartAddress), announcement + 4);
    count = 8;
  }
  return AnnounceImage("kaVInitImageDownload", announcement, count, plError);
}

uint32_t Ccom::kaVDownloadImageBlock(int32_t* plBlock, int32_t* plError) {
  uint8_t block[kImageBlockSize];
  int32_t size = kImageBlockSize;
  int32_t number = 0;
  if (port_->PopDownloadImageBlock(&size, block, &number) != 0) {
    *plError = int32_t(rc::kImageBlockFailed);
    return 0;
  }
  *plBlock = number;
  TraceMethodFormat("kaVDownloadImageBlock--> (BlockNo=%d,SizeOfData=%d)", number, size);
  if (nDemo != 0) {
    *plError = int32_t(rc::kDemoNoDownload);
    return 0;
  }

  uint32_t result = port_->GenerateService(kServiceImageBlock, block, &size);
  if (result != 0) {
    *plError = int32_t(result);
    return 0;
  }
  int32_t scratch[kScratchValues] = {};
  int32_t count = 0;
  if (port_->AnswerReception(kServiceImageBlock, scratch, &count, kScratchValues) != 0) {
    *plError = int32_t(rc::kImageBlockFailed);
    return rc::kAnswerFailed;
  }
  TraceMethodFormat("kaVDownloadImageBlock<-- (BlockNo=%d,EOF=%d)", number, kLastBlock);

  if (number == kLastBlock) {
    TraceMethod("kaVDownloadImageBlock: GenerateService(SRV_GW_DOWNLOAD_IMAGE_END)-->");
    uint32_t methodReturn = 0;
    if (!Exchange(kServiceImageEnd, nullptr, nullptr, scratch, &count, kScratchValues, plError,
                  RequestFailure::ReturnZero, &methodReturn)) {
      return methodReturn;
    }
    TraceMethod("kaVDownloadImageBlock: GenerateService(SRV_GW_DOWNLOAD_IMAGE_END)<--");
  }
  TraceMethod("kaVDownloadImageBlock<-- Finished..");
  *plError = 0;
  return 0;
}

uint32_t Ccom::kaVCancelImageDownload(int32_t* plError) {
  int32_t length = 0;
  port_->InitDownloadImage(nullptr, &length);
  if (nDemo != 0) {
    TraceMethod("kaVCancelImageDownload-->");
    *plError = int32_t(rc::kDemoNoDownload);
    return 0;
  }
  // An announcement of length 0.
  const int32_t announcement[4] = {};
  return AnnounceImage("kaVCancelImageDownload", announcement, 4, plError);
}

uint32_t Ccom::AnnounceImage(const char* name, const int32_t* announcement, int32_t count, int32_t* error) {
  int32_t scratch[kScratchValues] = {};
  return RunExchange({.name = name,
                      .service = kServiceImageAnnounce,
                      .request = announcement,
                      .requestCount = &count,
                      .values = scratch,
                      .capacity = kScratchValues,
                      .error = error});
}

}  // namespace tamrik

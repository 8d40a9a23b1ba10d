// Writes docs/capi.md: one entry per function of the C interface. The synopsis of every
// method comes from the method table itself, so it cannot differ from tamrik.h; what each
// method does, its errors and an example are the notes below. A method without notes stops
// the generator, so a method added to the table cannot go undocumented.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "MethodTable.h"

namespace {

// How a method reports a failed exchange in its return value.
enum Kind {
  kLocal,        // no gateway exchange: the notes say everything
  kExchange,     // request failed: 0; answer failed: 0x10050
  kReturnsCode,  // request failed: the request's code; answer failed: 0x10050
  kBusy,         // as kReturnsCode, and 0x999999 while another busy-guarded call runs
};

struct Note {
  const char* name;
  const char* service;  // service code(s) sent, or nullptr
  Kind kind;
  const char* what;
  const char* errors;   // codes of the method beyond those of every exchange
  const char* example;
};

// clang-format off
const Note kNotes[] = {
  {"kaVSetBaudrate", nullptr, kLocal,
   "Sets the baud rate for the next serial open and writes it as `Baudrate` to kaVcnf.ini. The rate is not checked here; the open that uses it is.",
   "None: `*plError` is always 0 and the return value 0. An unsupported rate shows at the next `kaVOpenComPort` as 0x10013.",
   "tamrik_kaVSetBaudrate(com, 57600, &err);\ntamrik_kaVOpenComPort(com, 3, &err);"},
  {"kaVOpenComPort", nullptr, kLocal,
   "Closes whatever link is open and opens serial port `nPort` at the stored baud rate, 8 data bits, no parity, one stop bit, DTR on, RTS off. "
   "The device of port n is key `Com<n>` of section `[Ports]` of kaVcnf.ini, else `/dev/ttyS<n-1>`. `ComPort` and `Baudrate` are written back to "
   "kaVcnf.ini whatever the outcome. A port number above 255 opens a UDP link by port number to the gateway's fixed address instead.",
   "0x10010 line open already or access refused, 0x10012 open failed, 0x10013 baud rate not 9600/19200/38400/57600/115200, 0x10014 line settings "
   "refused, 0x10016 no such device. The return value is the same code (0 on success); 0xFFFFFFFF when the UDP socket cannot be created.",
   "int32_t err = 0;\nif (tamrik_kaVOpenComPort(com, 1, &err) != 0 || err != 0)\n    fprintf(stderr, \"open: 0x%X\\n\", err);"},
  {"kaVTestBlockRead", nullptr, kLocal,
   "Reads `*plSizeOfData` raw bytes from the line, with no frame and no start byte, into `plData`, one per value, sign-extended "
   "(0xFE arrives as -2). Bytes that did not arrive read as 0. In demonstration mode nothing is read and `*plError` is not written.",
   "The read's code: 0x10020 fewer bytes than asked (time-out), 0x10021 read failed, or a socket error (10054 ...). Return value 0.",
   "int32_t bytes[5] = {0}, n = 5;\ntamrik_kaVTestBlockRead(com, bytes, &n, &err);"},
  {"kaVTestBlockWrite", nullptr, kLocal,
   "Writes the low byte of each of the `*plSizeOfData` values of `plData` to the line as they are, with no frame. In demonstration mode nothing is "
   "written and `*plError` is not written.",
   "The write's code: 0x10030 fewer bytes written, 0x10031 write failed, 1 socket write failed. Return value 0.",
   "int32_t frame[7] = {0xAA, 0x03, 0x00, 0x00, 0x00, 0x29, 0xB3}, n = 7;\ntamrik_kaVTestBlockWrite(com, frame, &n, &err);"},
  {"kaVCloseComPort", nullptr, kLocal,
   "Closes the serial line or the socket, whichever is open. `nPort` is only traced.",
   "0x10015 when nothing was open. Return value 0.",
   "tamrik_kaVCloseComPort(com, 0, &err);"},
  {"kaVGetProcessInData", "3", kBusy,
   "Reads the input process image: one byte per value into `plData`, their number into `*plSizeOfData` (the count on entry is the array's capacity; "
   "an image that does not fit fails with 0x10053 and the count tells its size). Demonstration mode: bit strings `Modi<n>` of kaVdmo.ini (`Mode`=1), or a counter and a walking bit that move at every call (`Mode`=2).",
   nullptr,
   "int32_t in[512], n = 512;  /* capacity in, count out */\nif (tamrik_kaVGetProcessInData(com, in, &n, &err) == 0 && err == 0)\n    for (int i = 0; i < n; ++i) printf(\"%02X \", in[i]);"},
  {"kaVSetProcessOutData", "5", kBusy,
   "Writes the output process image: the low byte of each of the first `*plSizeOfData` values. The gateway's answer (the image as it took it) replaces "
   "`plData` and `*plSizeOfData`. Demonstration mode: the bytes are written into the bit strings `Modo<n>` of the run's kaVdmo.ini.",
   nullptr,
   "int32_t out[2] = {0x01, 0x80}, n = 2;\ntamrik_kaVSetProcessOutData(com, out, &n, &err);"},
  {"kaVGetProcessOutData", "4", kBusy,
   "Reads the output process image back, one byte per value; count in `*plSizeOfData`. Demonstration mode: bit strings `Modo<n>`.",
   nullptr,
   "int32_t out[512], n = 512;\ntamrik_kaVGetProcessOutData(com, out, &n, &err);"},
  {"kaVGetParameterData", "6", kBusy,
   "Reads the module parameters, one byte per value; count in `*plSizeOfData`. Demonstration mode: bit strings `Param0` to `Param<ModNum-1>`.",
   nullptr,
   "int32_t p[512], n = 512;\ntamrik_kaVGetParameterData(com, p, &n, &err);"},
  {"kaVSetParameterData", "7", kBusy,
   "Writes the module parameters: the low byte of each of the first `*plSizeOfData` values; the answer replaces `plData` and the count. "
   "Demonstration mode: written into `Param<n>`.",
   nullptr,
   "int32_t p[2] = {0x11, 0x22}, n = 2;\ntamrik_kaVSetParameterData(com, p, &n, &err);"},
  {"kaVGetDiagData", "8", kBusy,
   "Reads the diagnosis: the gateway's own bytes, then each module's, one byte per value; count in `*plSizeOfData`. With `Logfile`=1 the bytes are also "
   "split by the module layout of the last live `kaVGetModuleList` into section `[DiagList]` of kaVcnf.ini. Demonstration mode: `Diag0` to `Diag<ModNum>`.",
   nullptr,
   "int32_t d[512], n = 512;\ntamrik_kaVGetDiagData(com, d, &n, &err);"},
  {"kaVGetModuleList", "1", kExchange,
   "Reads the identifiers of the station's modules, one 24-bit identifier per value; count in `*plSizeOfData`. In demonstration mode the count on entry "
   "is the capacity and the identifiers come from `ModNum` and `ModId<n>` (six hexadecimal digits each). With `Logfile`=1 the module layout is recorded "
   "in `[DiagList]` of kaVcnf.ini.",
   "Demonstration mode: 0x20FF `ModNum` missing; 0x2001 + k identifier k+1 is not six characters (k identifiers delivered).",
   "int32_t ids[256], n = 256;\ntamrik_kaVGetModuleList(com, ids, &n, &err);\nfor (int i = 0; i < n; ++i) printf(\"%06X\\n\", ids[i]);"},
  {"kaVControll", nullptr, kLocal,
   "Does nothing: demonstration mode and trace are set only by kaVcnf.ini before the object is created. None of its parameters is read or written.",
   "None; returns 0 and leaves `*plError` as it was.",
   "tamrik_kaVControll(com, &demo, &log, &err);  /* no effect */"},
  {"kaVGetGatewayIdSring", "256", kExchange,
   "Reads the gateway's identity text into `psDataa` without a terminating zero; `*plSizeOfData` becomes the number of characters (at most 200; the "
   "count on entry is the buffer's capacity). Demonstration mode: key `GWIdString`.",
   nullptr,
   "char id[200];\nint32_t n = sizeof id;\nif (tamrik_kaVGetGatewayIdSring(com, id, &n, &err) == 0 && err == 0)\n    printf(\"%.*s\\n\", n, id);"},
  {"kaVGetGatewayVersion", "257", kExchange,
   "Reads the gateway's 16-bit version into the low 16 bits of `*plData`; the upper 16 bits keep what the caller put there. Demonstration mode: `GWVersion`.",
   nullptr,
   "int32_t v = 0;\ntamrik_kaVGetGatewayVersion(com, &v, &err);\nprintf(\"%04X\\n\", v & 0xFFFF);"},
  {"kaVGetGatewayBootFunctionIdString", "258", kExchange,
   "Reads the boot loader's identity text, as `kaVGetGatewayIdSring`. Demonstration mode: `GWBootID`.",
   nullptr,
   "char id[200];\nint32_t n = sizeof id;\ntamrik_kaVGetGatewayBootFunctionIdString(com, id, &n, &err);"},
  {"kaVGetGatewayBootVersion", "259", kExchange,
   "Reads the boot loader's 16-bit version into the low 16 bits of `*plData`. Demonstration mode: `GWBootVersion`.",
   nullptr,
   "int32_t v = 0;\ntamrik_kaVGetGatewayBootVersion(com, &v, &err);"},
  {"kaVInitFirmwareDownload", "263", kLocal,
   "Starts a firmware line download: switches the serial line to the download read time-out (`ReadTotalConstantFW`), opens the line file, gives the "
   "number of records (':' characters) in `*plNoofLines` and announces the download with service 263. Then call `kaVDownloadFirmwareLines` once per record. "
   "Demonstration mode: only the time-out changes; `*plNoofLines` is not written.",
   "The file reader's code with return value 0x10050; the request's code with return value 0; the answer's code with 0x10050.",
   "int32_t lines = 0, line = 0;\nif (tamrik_kaVInitFirmwareDownload(com, \"fw.hex\", &lines, &err) == 0 && err == 0)\n"
   "    for (int32_t i = 0; i < lines && err == 0; ++i) tamrik_kaVDownloadFirmwareLines(com, &line, &err);"},
  {"kaVGetStationAddress", "268", kExchange,
   "Reads the station address: an answer of one byte gives 0 to 255, one of four or more bytes a 32-bit address (first byte lowest); two or three bytes "
   "leave `*plAddress` as it was. Demonstration mode: `GWStationAddress`.",
   nullptr,
   "int32_t address = 0;\ntamrik_kaVGetStationAddress(com, &address, &err);"},
  {"kaVGetGatewayId", "267", kExchange,
   "Reads the 32-bit gateway identifier (first byte lowest). Switches the serial line back to the normal read time-out first. Demonstration mode: `GatewayId`, "
   "exactly eight hexadecimal digits.",
   "Demonstration mode: 0x2000 when `GatewayId` is not eight characters.",
   "int32_t id = 0;\ntamrik_kaVGetGatewayId(com, &id, &err);\nprintf(\"%08X\\n\", (uint32_t)id);"},
  {"kaVGetGatewayVersionString", "265", kExchange,
   "Reads the gateway's version text, as `kaVGetGatewayIdSring`. Demonstration mode: `GWVersionString`.",
   nullptr,
   "char text[200];\nint32_t n = sizeof text;\ntamrik_kaVGetGatewayVersionString(com, text, &n, &err);"},
  {"kaVGetGatewayErrorList", "260", kExchange,
   "Reads the error list. `*plSizeOfErrBuf` is the capacity of `plErrorData` in values; it is cleared, then one record per entry is written back to back: "
   "record size (7 + extra bytes), error code, days, hours, minutes, seconds, milliseconds of the error's duration, then its extra bytes. `*plEntrys` "
   "receives the number of entries. Demonstration mode: `GWErrors` entries reported and three records from `Error<n>`, `Errdur<n>a`, `Errdur<n>b`.",
   "0x10053 (return 0x10050) when the records need more than `*plSizeOfErrBuf` values; `*plSizeOfErrBuf` then tells how many.",
   "int32_t entries = 0, data[1024], size = 1024;\ntamrik_kaVGetGatewayErrorList(com, &entries, data, &size, &err);\n"
   "for (int32_t e = 0, at = 0; e < entries; ++e, at += data[at])\n    printf(\"error %02X for %d s\\n\", data[at + 1], data[at + 5]);"},
  {"kaVGetGatewayOperationMode", "261", kExchange,
   "Reads the operation mode into the low byte of `*plOPMode`; the other bytes keep their value. Demonstration mode: `GWOPMode`.",
   nullptr,
   "int32_t mode = 0;\ntamrik_kaVGetGatewayOperationMode(com, &mode, &err);"},
  {"kaVSetGatewayOperationMode", "262", kExchange,
   "Sets the operation mode to the low byte of `*plOPMode`; answer bytes, if any, land in `*plOPMode`. Switches the serial line back to the normal read "
   "time-out first. Demonstration mode: writes `GWOPMode` when the mode is 1 or 2.",
   nullptr,
   "int32_t mode = 2;\ntamrik_kaVSetGatewayOperationMode(com, &mode, &err);"},
  {"kaVExecHardwareReset", "266", kExchange,
   "Resets the gateway. Switches the serial line back to the normal read time-out first. Demonstration mode: nothing is sent.",
   nullptr,
   "tamrik_kaVExecHardwareReset(com, &err);"},
  {"kaVGetGatewayTime", "271", kExchange,
   "Reads the gateway's clock (milliseconds since its start) split into days, hours (0-23), minutes and seconds; the milliseconds are dropped. "
   "Demonstration mode: `TimeA` × 65536 + `TimeB` milliseconds.",
   nullptr,
   "int32_t d, h, m, s;\ntamrik_kaVGetGatewayTime(com, &d, &h, &m, &s, &err);\nprintf(\"%dd %02d:%02d:%02d\\n\", d, h, m, s);"},
  {"kaVDownloadFirmwareLines", nullptr, kLocal,
   "Sends the next record of the file opened by `kaVInitFirmwareDownload` raw to the boot loader and reads its one-character answer. The first call waits "
   "for the loader's 'r'. A refused record ('E' and the other answers from 5 up) is sent again up to three more times. After the last record the file is "
   "closed. `plLine` is neither read nor written.",
   "16 the loader's first character was not 'r'; a loader answer code (5 'E', 6 'e', 7 't', 8 'c', 9 'b', 0x3003-0x3703 digits) when a record stayed "
   "refused; 0x10021 no answer character; each with return value 0x10050. Called with no file open it fails as well.",
   "for (int32_t i = 0; i < lines; ++i)\n    if (tamrik_kaVDownloadFirmwareLines(com, &line, &err) != 0) break;"},
  {"kaVSetStationAddress", "262", kExchange,
   "Sends the low byte of `*plAddress` as the new station address; answer bytes, if any, land in `*plAddress`. The driver has no service code of its own for "
   "this: the request carries 262, the code of `kaVSetGatewayOperationMode`, so a gateway may take it for an operation mode. Demonstration mode: nothing is sent.",
   nullptr,
   "int32_t address = 5;\ntamrik_kaVSetStationAddress(com, &address, &err);"},
  {"kaVGatewayFbiReset", "13", kExchange,
   "Resets the gateway's field-bus interface. Demonstration mode: nothing is sent.", nullptr,
   "tamrik_kaVGatewayFbiReset(com, &err);"},
  {"kaVGatewayFbiStart", "14", kExchange,
   "Starts the gateway's field-bus interface. Demonstration mode: nothing is sent.", nullptr,
   "tamrik_kaVGatewayFbiStart(com, &err);"},
  {"kaVGetModuleStreamDataSizeList", "15", kExchange,
   "Reads the list of module stream data sizes, one byte per value; count in `*plSizeOfData`. Demonstration mode: nothing; the count stays as it was.",
   nullptr,
   "int32_t sizes[256], n = 256;\ntamrik_kaVGetModuleStreamDataSizeList(com, sizes, &n, &err);"},
  {"kaVSetModuleStreamDataPosition", "17", kExchange,
   "Sets the stream position: sends the low bytes of `plData[0]` and `plData[1]`; answer bytes, if any, land in `plData`.",
   nullptr,
   "int32_t position[8] = {0x12, 0x34};\ntamrik_kaVSetModuleStreamDataPosition(com, position, &err);"},
  {"kaVSetGatewayServiceBaudrate", "272", kExchange,
   "Sets the baud rate of the gateway's service interface: sends the index 0-4 of 9600, 19200, 38400, 57600, 115200 (any other rate sends 0). The "
   "driver's own line keeps its rate; reopen it at the new one (`kaVSetBaudrate`, `kaVOpenComPort`). Demonstration mode: nothing is sent.",
   nullptr,
   "int32_t baud = 57600;\ntamrik_kaVSetGatewayServiceBaudrate(com, &baud, &err);\ntamrik_kaVSetBaudrate(com, 57600, &err);\ntamrik_kaVOpenComPort(com, 1, &err);"},
  {"kaVGetCurrentGwSwitches", "274", kExchange,
   "Reads the positions of the gateway's switches into the low 16 bits of `*plSwitch`. Demonstration mode: nothing.",
   nullptr,
   "int32_t switches = 0;\ntamrik_kaVGetCurrentGwSwitches(com, &switches, &err);"},
  {"kaVSetModuleStreamSegmentData", "16", kReturnsCode,
   "Writes a block of stream data in segments. `plData[0]` is the header byte that opens every segment, `plData[1]` the data bytes per segment (1-19), "
   "`plData[2..]` the data (1-127 bytes; `*plSizeOfData` counts all values). Each segment is one exchange; between a segment and its answer the driver "
   "pauses `StreamSegmentSleepTime` ms of kaVcnf.ini (255 when missing). A failed segment ends the call. Demonstration mode: nothing is sent.",
   "0x10060 for a segment length or data count out of range.",
   "int32_t block[12] = {0x21, 4, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, n = 12;\ntamrik_kaVSetModuleStreamSegmentData(com, block, &n, &err);  /* 3 segments */"},
  {"kaVSetGatewayLeds", "275", kExchange,
   "Sets the gateway's LEDs: sends the low 16 bits of `*LEDStatus`, low byte first; answer bytes, if any, land in `*LEDStatus`. Demonstration mode: nothing.",
   nullptr,
   "int32_t leds = 0x0102;\ntamrik_kaVSetGatewayLeds(com, &leds, &err);"},
  {"kaVStartBootFirmwareDownload", nullptr, kLocal,
   "Prepares the boot-loader chain: stores `nPort` and `*plBaudrate`, closes the line and opens serial port `nPort` again with RTS held on.",
   "None: `*plError` is always 0; a line that cannot be opened shows in the download call that follows.",
   "int32_t baud = 57600;\ntamrik_kaVStartBootFirmwareDownload(com, 1, &baud, &err);"},
  {"kaVBootFirmwareDownload", nullptr, kLocal,
   "Runs the boot-loader chain over the serial line: a 0x00 byte and the loader's identification byte, the BSL file (stage 1, answered), the SetCtx file "
   "(stage 2, answered; skipped when `psSetCtx_File` is \"\"), the Boot file (stage 3), then every record of the firmware line file as "
   "`kaVDownloadFirmwareLines` sends them. Stage files hold hexadecimal digit pairs. Closes the line after success. Demonstration mode: the records are skipped.",
   "100100, 100101, 100102 a stage file cannot be opened; a loader answer code; 0x10021 no answer; a write code - each also the return value. A record or "
   "line-file failure: its code with return value 0x10050. The close's code when the line was not open.",
   "tamrik_kaVStartBootFirmwareDownload(com, 1, &baud, &err);\ntamrik_kaVBootFirmwareDownload(com, \"loader.bsl\", \"\", \"boot.txt\", \"fw.hex\", &err);"},
  {"kaVBootFirmwareDownload_FromIni", nullptr, kLocal,
   "As `kaVBootFirmwareDownload` with the four file names from section `[BSL-Files]` of kaVBoot.ini (`BSL_File`, `SetCtx_File`, `Boot_File`, "
   "`Boot_Firmware`). Stage 2 always runs here, so a missing `SetCtx_File` fails with 100101.",
   "As `kaVBootFirmwareDownload`.",
   "tamrik_kaVStartBootFirmwareDownload(com, 1, &baud, &err);\ntamrik_kaVBootFirmwareDownload_FromIni(com, &err);"},
  {"kaVGetModulIdStatusList", "1", kExchange,
   "Reads the module list with status: one 32-bit value per module, the identifier in the upper three bytes and the status byte lowest; count in "
   "`*plSizeOfData`. Demonstration mode: as `kaVGetModuleList`.",
   "Demonstration mode: 0x20FF and 0x2001 + k as `kaVGetModuleList`.",
   "int32_t v[256], n = 256;\ntamrik_kaVGetModulIdStatusList(com, v, &n, &err);\nprintf(\"%06X status %02X\\n\", (uint32_t)v[0] >> 8, v[0] & 0xFF);"},
  {"kaVGetTRBuffer", "22", kBusy,
   "Reads the gateway's TR buffer, one byte per value; count in `*plSizeOfData`. Demonstration mode: nothing.",
   nullptr,
   "int32_t tr[1024], n = 1024;\ntamrik_kaVGetTRBuffer(com, tr, &n, &err);"},
  {"kaVClearTRBuffer", "21", kExchange,
   "Clears the gateway's TR buffer. Demonstration mode: nothing is sent.", nullptr,
   "tamrik_kaVClearTRBuffer(com, &err);"},
  {"kaVGetVersion", nullptr, kLocal,
   "Copies the driver's version text, the 11 characters \"1.0 B2.1.38\", into `psVersion` without a terminating zero and sets `*plSizeOfData` to 11.",
   "None; `*plError` is not written.",
   "char v[16];\nint32_t n = sizeof v;\ntamrik_kaVGetVersion(com, v, &n, &err);"},
  {"kaVSrvMbResetMonitoring", "23", kExchange, "Resets the gateway's service monitoring.", nullptr,
   "tamrik_kaVSrvMbResetMonitoring(com, &err);"},
  {"kaVSrvMbStartMonitoring", "24", kExchange, "Starts the service monitoring: the gateway records the services it serves.", nullptr,
   "tamrik_kaVSrvMbStartMonitoring(com, &err);"},
  {"kaVSrvMbStopMonitoring", "25", kExchange, "Stops the service monitoring.", nullptr,
   "tamrik_kaVSrvMbStopMonitoring(com, &err);"},
  {"kaVSrvGetFirstDataFrame", "26", kReturnsCode,
   "Fetches the first recorded monitoring frame. Sends the first `*plSizeOfData` values of `plData` as request bytes (often none); the frame's bytes replace "
   "them, one per value, and their number `*plSizeOfData`.",
   nullptr,
   "int32_t frame[1024], n = 0;  /* sends n values, takes at most n back: 0x10053 tells the length of a longer frame */\ntamrik_kaVSrvGetFirstDataFrame(com, frame, &n, &err);"},
  {"kaVSrvGetNextDataFrame", "27", kReturnsCode,
   "Fetches the next recorded monitoring frame, as `kaVSrvGetFirstDataFrame`.",
   nullptr,
   "n = 0;\ntamrik_kaVSrvGetNextDataFrame(com, frame, &n, &err);"},
  {"SetPort", nullptr, kLocal,
   "Copies `*plSize` bytes from `plData` into the driver object's own 64 KiB port area at offset `*plAddress`. A range outside the area is not copied. "
   "Talks to no gateway.",
   "None; `*Error` is not written and the return value is 0.",
   "int16_t data[4] = {1, 2, 3, 4};\nint32_t size = 8, address = 0x100;\ntamrik_SetPort(com, data, &size, &address, &err);"},
  {"GetPort", nullptr, kLocal,
   "Copies `*plSize` bytes from the port area at offset `*plAddress` into `plData`; the counterpart of `SetPort`.",
   "None; `*Error` is not written.",
   "tamrik_GetPort(com, data, &size, &address, &err);"},
  {"kaVSrvDNetGetEEPDNetSerialNumber", "2306", kExchange,
   "Reads the DeviceNet serial number from the gateway's EEPROM: four bytes, first byte lowest, into `*lSerialNumber`.",
   nullptr,
   "int32_t serial = 0;\ntamrik_kaVSrvDNetGetEEPDNetSerialNumber(com, &serial, &err);"},
  {"kaVSrvDNetGetEEPToolIdent", "2308", kExchange,
   "Reads the DeviceNet tool identification text into `psIdentName` (at most 200 characters, no terminating zero); its length into `*plSizeOfData`.",
   nullptr,
   "char name[200];\nint32_t n = sizeof name;\ntamrik_kaVSrvDNetGetEEPToolIdent(com, name, &n, &err);"},
  {"kaVSrvDNetGetClassInstAttr", "2322", kReturnsCode,
   "Reads a DeviceNet attribute: sends the first `*plSizeOfData` values of `plData` (class, instance, attribute as the gateway expects them); the answer's "
   "bytes replace them, count in `*plSizeOfData`.",
   nullptr,
   "int32_t attr[256] = {0x01, 0x01, 0x07}, n = 3;\ntamrik_kaVSrvDNetGetClassInstAttr(com, attr, &n, &err);"},
  {"kaVSrvDNetSetClassInstAttr", "2323", kReturnsCode,
   "Writes a DeviceNet attribute: the address bytes followed by the value bytes, as `kaVSrvDNetGetClassInstAttr`.",
   nullptr,
   "int32_t attr[256] = {0x01, 0x01, 0x07, 0x41}, n = 4;\ntamrik_kaVSrvDNetSetClassInstAttr(com, attr, &n, &err);"},
  {"kaVGetStatistics", nullptr, kLocal,
   "Keeps no statistics: returns 0 and leaves all four parameters as they were.",
   "None.",
   "tamrik_kaVGetStatistics(com, &t, &breaks, &data, &err);  /* no effect */"},
  {"kaVClrStatistics", nullptr, kLocal,
   "Keeps no statistics: returns 0 and leaves `*plError` as it was.",
   "None.",
   "tamrik_kaVClrStatistics(com, &err);  /* no effect */"},
  {"kaVGetModuleSWRev", "18", kExchange,
   "Reads the modules' software revisions, one byte per value; count in `*plSizeOfData`. Demonstration mode: nothing; the count stays as it was.",
   nullptr,
   "int32_t rev[256], n = 256;\ntamrik_kaVGetModuleSWRev(com, rev, &n, &err);"},
  {"kaVGetModuleTyp", "19", kExchange,
   "Reads the modules' type codes, one byte per value; count in `*plSizeOfData`. Demonstration mode: nothing.",
   nullptr,
   "int32_t type[256], n = 256;\ntamrik_kaVGetModuleTyp(com, type, &n, &err);"},
  {"kavGetBootFctsHwInfo", "276", kExchange,
   "Reads the boot loader's hardware information: the answer taken in 16-bit words (first byte lowest), one word per value. `*plSizeOfData` becomes the "
   "number of bytes, twice the number of words. Demonstration mode: nothing.",
   nullptr,
   "int32_t words[256], bytes = 256;  /* capacity in words, count back in bytes */\ntamrik_kavGetBootFctsHwInfo(com, words, &bytes, &err);\nfor (int i = 0; i < bytes / 2; ++i) printf(\"%04X\\n\", words[i]);"},
  {"kaVOpenEthernet", nullptr, kLocal,
   "Closes whatever link is open and opens a socket link to `psRemoteIPAddress` (dotted IPv4). `psAdditionalArg` is the port number, followed by \",UDP\" "
   "for UDP or \",TCP\" for TCP (TCP without a keyword). A TCP connection is given at most 100 ms to complete; a connection the peer refuses (or that is found "
   "unreachable) within them fails the open, one that fails later shows at the first request.",
   "1 the socket layer cannot be started, 2 no socket, 4000000 + socket error when the connection cannot be made (4010049: the address cannot be "
   "used, also for 0.0.0.0 and text that is no IPv4 address; 4010061: refused). The return value is the same code.",
   "if (tamrik_kaVOpenEthernet(com, \"5020\", \"127.0.0.1\", &err) != 0) return 1;     /* TCP */\n"
   "tamrik_kaVOpenEthernet(com, \"5020,UDP\", \"127.0.0.1\", &err);                   /* UDP */"},
  {"kavEnterPrivilegedMode", "271, then 304", kLocal,
   "Asks for privileged access: fetches a 32-bit challenge (service 271), computes the response with the bit table of section `[Privileged]`, key `Bits`, "
   "of kaVcnf.ini (the identity when missing) and a Gray-code step, and sends it after `psClientDescription` (at most 128 characters) with service 304. "
   "On a link in polling mode (`kaVDoService` with 0x10000) the answer may not be there yet: the call returns 0x10100 and the next call only collects the answer.",
   "0x10100 answer not there yet, call again; 0x10071 refused (answer code with bit 0x8000); 0x10070 refused (bits 0x8000 and 0x4000), also as return value; "
   "the request's code (return 0) or the challenge answer's code (return 0x10050); other answer codes with return 0.",
   "int32_t err = 0x10100;\nfor (int i = 0; i < 50 && err == 0x10100; ++i)\n    tamrik_kavEnterPrivilegedMode(com, \"line 3 test bench\", &err);"},
  {"kaVGetPrivilegedChannel", "305", kExchange,
   "Reads the gateway's privileged channel number (four bytes, first lowest) into `*plChannelId`.",
   nullptr,
   "int32_t channel = 0;\ntamrik_kaVGetPrivilegedChannel(com, &channel, &err);"},
  {"kavGetPrivilegedName", "306", kExchange,
   "Reads the gateway's privileged name into `psName` (at most 200 characters, no terminating zero); its length into `*plSizeOfData`.",
   nullptr,
   "char name[200];\nint32_t n = sizeof name;\ntamrik_kavGetPrivilegedName(com, name, &n, &err);"},
  {"kaVInitImageDownload", "288", kLocal,
   "Starts an image download: switches the serial line to the download read time-out, opens the binary file, gives the number of 256-byte blocks in "
   "`*plNoofBlocks` and announces the length (and `*plStartAddress`, unless it is -1) with service 288. Then call `kaVDownloadImageBlock` until the block "
   "number is -1. Demonstration mode: the file is opened and counted, nothing is sent.",
   "1 the file cannot be opened (return 0); the request's code (return 0); the answer's code (return 0x10050).",
   "int32_t start = -1, blocks = 0, block = 0;\nif (tamrik_kaVInitImageDownload(com, \"image.bin\", &start, &blocks, &err) == 0 && err == 0)\n"
   "    do tamrik_kaVDownloadImageBlock(com, &block, &err); while (err == 0 && block != -1);"},
  {"kaVDownloadImageBlock", "289, and 290 after the last block", kLocal,
   "Sends the next block of the image (up to 256 bytes) with service 289 and sets `*plBlock` to its number, counted from 1; the block that reaches the end "
   "of the file is numbered -1, and after it service 290 ends the download. An empty image sends one empty block -1.",
   "0x10072 no image open or the block could not be read (return 0), or the gateway's answer to the block failed (return 0x10050); 0x3000 in "
   "demonstration mode (the block is taken all the same); the request's code (return 0); the end service's answer code (return 0x10050).",
   "do {\n    if (tamrik_kaVDownloadImageBlock(com, &block, &err) != 0 || err != 0) break;\n} while (block != -1);"},
  {"kaVCancelImageDownload", "288", kLocal,
   "Abandons an image download: closes the image file and announces an image of length 0.",
   "0x3000 in demonstration mode; the request's code (return 0); the answer's code (return 0x10050).",
   "tamrik_kaVCancelImageDownload(com, &err);"},
  {"kaVDoService", "the caller's", kLocal,
   "Sends any service: code `*service` with the first `*plSizeOfSendData` bytes of `plData`, unchanged. The answer's data replace `plData` (at most "
   "`*plSizeOfRecData` bytes; their number goes to `*plSizeOfRecData`) and its code goes to `*service`; with libtamrik.so an answer longer than `*plSizeOfRecData` fails with 0x10053, return 0x10050, and `*plSizeOfRecData` tells its length: the code + 0x4000, or a refusal's own code "
   "(0x8000 or 0xC000 with the code). The code 0x10000 sends nothing and switches socket reads to polling mode, where a read with no data returns 0x10100 "
   "at once; `*service` becomes 0x14000. Every other code, 0 included, goes out as a request.",
   "Refusals are not errors here: they come back in `*service`. `*plError` is nonzero only when no valid answer frame came back (0x10021, 0x10040, 0x10051, "
   "0x10100 ...); the return value is then that code and `*plSizeOfRecData` is 0. A request that cannot be sent: its code, return 0.",
   "int32_t service = 0x101, sent = 0, room = 64;\nuint8_t data[64];\nif (tamrik_kaVDoService(com, &service, data, &sent, &room, &err) == 0 && err == 0)\n"
   "    printf(\"answer %04X, %d bytes\\n\", service, room);"},
};
// clang-format on

const Note* FindNote(const char* name) {
  for (const Note& note : kNotes) {
    if (std::string(note.name) == name) return &note;
  }
  return nullptr;
}

std::string Indent(const char* text) {
  std::string out;
  for (const char* p = text; *p != '\0'; ++p) out += *p;
  return out;
}

void Entry(int dispid, const char* name, const char* params) {
  const Note* note = FindNote(name);
  if (note == nullptr) {
    std::fprintf(stderr, "tamrik-docgen: no notes for %s\n", name);
    std::exit(1);
  }
  std::string parameters = params;  // "(type a, type b)"
  parameters = parameters.substr(1, parameters.size() - 2);
  std::printf("### tamrik_%s\n\n", name);
  std::printf("```c\nuint32_t tamrik_%s(tamrik_com *com, %s);\n```\n\n", name, parameters.c_str());
  std::printf("Method %d of the interface.", dispid);
  if (note->service != nullptr) std::printf(" Service code: %s.", note->service);
  std::printf("\n\n%s\n\n", note->what);
  switch (note->kind) {
    case kLocal:
      std::printf("**Result.** %s\n\n", note->errors);
      break;
    case kExchange:
    case kReturnsCode:
    case kBusy:
      std::printf("**Result.** The out-value is 0 on success, else the code of the step that failed. ");
      if (note->kind == kBusy) {
        std::printf("Returns 0x999999 without doing anything while another busy-guarded method of the object runs; ");
      } else {
        std::printf("Returns ");
      }
      std::printf("%s when the request could not be sent, 0x10050 when the answer failed, else 0.\n\n",
                  note->kind == kExchange ? "0" : "the request's code");
      std::printf("**Errors.** Request: 0x10031 (not written), 0x10100 (polling mode, answer to the last request not yet in). "
                  "Answer: 0x10020/0x10021 (nothing or too little arrived), 0x10040 (check value), 0x10051 (no start byte), "
                  "0x10052 (answer data do not fit the service), 0x20000 + answer code (refused without data), 0x30000 + byte "
                  "(refused with one data byte)%s%s\n\n",
                  note->errors != nullptr ? ". " : ".", note->errors != nullptr ? note->errors : "");
      break;
  }
  std::printf("```c\n%s\n```\n\n", Indent(note->example).c_str());
}

}  // namespace

// The page up to the methods: how the interface is used, and the functions that are not methods.
constexpr char kIntroduction[] =
    "# C interface reference\n\n"
    "<!-- Generated by tamrik-docgen (tools/docgen/CapiReference.cpp) from comserver/MethodTable.h; "
    "regenerate with `cmake --build build --target docs`. -->\n\n"
    "`#include <tamrik.h>`, link with `-ltamrik` (`find_package(tamrik)` gives `tamrik::tamrik`; `pkg-config tamrik`).\n\n"
    "## Conventions\n\n"
    "**Capacity on entry.** Every function that receives values or characters into an array of yours reads the array's "
    "count parameter on entry as the array's capacity (values, or characters for texts) and writes the delivered count into "
    "it on return. An answer that needs more than the capacity writes nothing past it, is still read to its end so that the "
    "link stays in step, and fails as an answer failure: return value 0x10050, out-value 0x10053, and the count then holds "
    "how many values (characters) the answer needed. A negative count is refused with 0x10060. The methods that send the "
    "array and receive their answer into it (the set methods, the monitoring frames, the DeviceNet attributes) take the count "
    "on entry as both the request's length and the capacity. Error lists take their capacity from `plSizeOfErrBuf`, "
    "`kaVDoService` from `plSizeOfRecData`.\n\n"
    "- One driver object (`tamrik_com *`) stands for one link to one gateway. Call its functions from one thread at a time.\n"
    "- Every method function takes the object first, then the method's parameters, and ends with the **out-value**, a pointer "
    "that receives the result code: 0 for success, else a code of [result-codes.md](result-codes.md). Test the out-value.\n"
    "- The **return value** is the method's own status: 0 in ordinary cases, 0x999999 when a busy-guarded method is already "
    "running, 0x10050 when the answer failed (the out-value holds the cause), or a code the method names below.\n"
    "- A null pointer for any parameter is refused with the return value 0x10060; nothing is touched. No C++ exception leaves "
    "the library: a call that fails inside the driver (out of memory) returns 0x10080 and sets the out-value to it.\n"
    "- Byte arrays are arrays of `int32_t` that carry one byte each in their low eight bits, with their number in a separate "
    "`int32_t` (`plData`, `plSizeOfData`).\n"
    "- Texts the driver fills (`char *`) get no terminating zero; the length comes back in the count.\n"
    "- Demonstration mode (`Version=1`) answers the data and information methods from the demonstration station and sends "
    "nothing; see [profile-files.md](profile-files.md).\n"
    "- In the examples `com` is a driver object and `int32_t err` its out-value.\n\n"
    "## Object and trace\n\n"
    "### tamrik_version\n\n```c\nconst char *tamrik_version(void);\n```\n\n"
    "The release of the loaded library, `\"MAJOR.MINOR.PATCH\"`, as a static text. The header says which release it "
    "belongs to with `TAMRIK_VERSION_MAJOR`, `TAMRIK_VERSION_MINOR`, `TAMRIK_VERSION_PATCH` and `TAMRIK_VERSION_STRING`. "
    "The loader has already matched the major release (the number in the SONAME, `libtamrik.so.MAJOR`); a later minor release "
    "only adds to the interface. What changed from release to release is in CHANGELOG.md.\n\n"
    "```c\nif (strcmp(tamrik_version(), TAMRIK_VERSION_STRING) != 0)\n"
    "    fprintf(stderr, \"built with tamrik %s, running with %s\\n\", TAMRIK_VERSION_STRING, tamrik_version());\n```\n\n"
    "### tamrik_config_defaults, tamrik_create_with\n\n"
    "```c\nvoid tamrik_config_defaults(tamrik_config *config);\ntamrik_com *tamrik_create_with(const tamrik_config *config);\n```\n\n"
    "Makes a driver object from a structure instead of a configuration file; it reads and writes no file. The structure "
    "holds every key of section `[Init]` (`version`, `logfile`, `com_port`, `baudrate`, the serial read time-outs, "
    "`stream_segment_sleep_ms`, `socket_answer_ms`), the serial port map (`ports`, `port_count`: COM number and device), the "
    "privileged bit table and the paths of the demonstration station and the boot-file list. Fill it with "
    "`tamrik_config_defaults` first; texts and the map are copied.\n\n"
    "**Result.** The object, or NULL when the structure is malformed (`struct_size` too small, a negative time, privileged "
    "bits that are no permutation of 0 to 31, a port outside 1 to 255 or without a device) or memory is short.\n\n"
    "```c\ntamrik_config cfg;\ntamrik_config_defaults(&cfg);\ncfg.socket_answer_ms = 1000;  /* a gateway behind a slow network */\n"
    "tamrik_port map[] = {{1, \"/dev/ttyUSB0\"}};\ncfg.ports = map;\ncfg.port_count = 1;\n"
    "tamrik_com *com = tamrik_create_with(&cfg);\n```\n\n"
    "### tamrik_create\n\n```c\ntamrik_com *tamrik_create(void);\n```\n\n"
    "Creates a driver object whose profile files (kaVcnf.ini, kaVdmo.ini, kaVBoot.ini) lie in the directory of the loaded "
    "libtamrik.so when this process may write there; otherwise in `$TAMRIK_CONFIG_DIR`, else `$XDG_CONFIG_HOME/tamrik`, else "
    "`~/.config/tamrik`, made when missing. Reads section `[Init]` of kaVcnf.ini and writes the complete default set when a "
    "key is missing. No link is open yet.\n\n**Result.** The object, or NULL when it cannot be created.\n\n"
    "```c\ntamrik_com *com = tamrik_create();\nif (com == NULL) return 1;\n```\n\n"
    "### tamrik_create_in\n\n```c\ntamrik_com *tamrik_create_in(const char *directory);\n```\n\n"
    "As `tamrik_create`, with the profile files in `directory`, which must exist. A program that runs several objects, or "
    "must not write beside the library, gives each its own directory.\n\n**Result.** The object, or NULL (also when "
    "`directory` does not exist).\n\n"
    "```c\ntamrik_com *com = tamrik_create_in(\"/var/lib/myapp/gateway1\");\n```\n\n"
    "### tamrik_release\n\n```c\nvoid tamrik_release(tamrik_com *com);\n```\n\n"
    "Closes the link and destroys the object. NULL is ignored (a null pointer does nothing).\n\n"
    "```c\ntamrik_kaVCloseComPort(com, 0, &err);\ntamrik_release(com);\n```\n\n"
    "### tamrik_set_trace\n\n```c\nvoid tamrik_set_trace(void (*sink)(void *context, const char *text), void *context);\n```\n\n"
    "Installs a process-wide receiver of the driver's trace output: every piece of text unchanged (8-bit, code page 1252, no "
    "line end added). NULL restores the default, which writes each piece to stderr as one UTF-8 line. Trace lines appear "
    "only when `Logfile=1`.\n\n"
    "```c\nstatic void to_log(void *file, const char *text) { fprintf(file, \"%s\\n\", text); }\n"
    "tamrik_set_trace(to_log, stderr);\n```\n\n"
    "### tamrik_result_name, tamrik_result_text\n\n"
    "```c\nconst char *tamrik_result_name(uint32_t code);\nconst char *tamrik_result_text(uint32_t code);\n```\n\n"
    "The name of a result code (`BadCheckValue`) and a sentence that says what it means, as static texts that are never "
    "freed. A code the driver never returns is `Unknown` with a text that says so; the composed families (0x20000 + answer "
    "code, 4000000 + socket error, ...) give their family's name and meaning.\n\n"
    "```c\nif (err != 0) fprintf(stderr, \"0x%X %s: %s\\n\", (unsigned)err, tamrik_result_name(err), tamrik_result_text(err));\n```\n\n"
    "### tamrik_get_stats\n\n```c\nuint32_t tamrik_get_stats(const tamrik_com *com, tamrik_stats *stats);\n```\n\n"
    "Copies the counters of the object since its creation: requests written (`exchanges`), answer frames received whole "
    "with a correct check value (`answers`), exchanges that failed (`failures`, and by code in `failure_codes` and "
    "`failure_counts` for the first 16 codes met, the rest in `other_failures`), frames of other requests read and dropped, "
    "bytes out and in, and the wall-clock time of the last good answer in ms since 1970 (0: none yet). Counting costs no "
    "allocation.\n\n**Result.** 0, or 0x10060 for a null pointer or a `struct_size` smaller than the header's.\n\n"
    "```c\ntamrik_stats st = {.struct_size = sizeof st};\nif (tamrik_get_stats(com, &st) == 0)\n"
    "    printf(\"%llu exchanges, %llu failures\\n\", (unsigned long long)st.exchanges, (unsigned long long)st.failures);\n```\n\n"
    "## Methods\n\n";

int CapiReferencePage() {
  std::fputs(kIntroduction, stdout);
#define TAMRIK_DOC_ENTRY(dispid, name, params, args) Entry(dispid, #name, #params);
  TAMRIK_METHOD_TABLE(TAMRIK_DOC_ENTRY)
#undef TAMRIK_DOC_ENTRY
  return 0;
}

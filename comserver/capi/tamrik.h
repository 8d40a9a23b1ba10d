/* tamrik: communication driver for field-bus gateways, C interface for Linux hosts.
 *
 * One driver object stands for one link to one gateway. Every method function takes the
 * object first, then the method's parameters in their order, and ends with the out-value
 * that receives the result code (0 is success). Each returns the method's own status: 0 in
 * ordinary cases, 0x999999 when a busy-guarded method is already running, 0x10050 when the
 * answer failed (the out-value holds the cause), or another code the method documents.
 * A null pointer for any parameter is refused with 0x10060 and nothing is touched. No C++
 * exception leaves a function of this header; a call that fails inside the driver for
 * want of memory returns 0x10080.
 *
 * Capacity on entry. Every function that receives values or characters into an array of the
 * caller's reads the array's count parameter on entry as the array's capacity (values, or
 * characters for texts) and writes the delivered count into it on return. An answer that
 * needs more than the capacity writes nothing past it, is still read to its end so that the
 * link stays in step, and fails as an answer failure: return value 0x10050, out-value
 * 0x10053, and the count then holds how many values (characters) the answer needed. A
 * negative count is refused with 0x10060. The methods that send the array and receive their
 * answer into it (the set methods, the monitoring frames, the DeviceNet attributes) take the
 * count on entry as both the request's length and the capacity. Error lists take their
 * capacity from plSizeOfErrBuf, kaVDoService from plSizeOfRecData.
 *
 * Types: 32-bit values are int32_t; byte arrays are arrays of int32_t that carry one byte
 * each, with the number of values in a separate int32_t.
 */
#ifndef TAMRIK_H
#define TAMRIK_H

#include <stdint.h>

#include "tamrik_version.h"

#if defined(_WIN32)
#define TAMRIK_API
#elif defined(__GNUC__)
#define TAMRIK_API __attribute__((visibility("default")))
#else
#define TAMRIK_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tamrik_com tamrik_com;

/* One entry of the serial port map: COM port number (1 to 255) and the device that stands
 * for it. */
typedef struct tamrik_port {
  int32_t port;
  const char *device;
} tamrik_port;

/* Everything a driver object reads from its configuration file, for a driver object that
 * uses no file. Fill it with tamrik_config_defaults() first, then change what you need.
 * Texts and the port map are copied by tamrik_create_with(); they need not outlive the call. */
typedef struct tamrik_config {
  uint32_t struct_size;                /* sizeof(tamrik_config); set by tamrik_config_defaults */
  /* Section Init. */
  int32_t version;                     /* "Version": 1 demonstration mode, 0 the gateway; default 0 */
  int32_t logfile;                     /* "Logfile": 1 traces methods and bytes; default 0 */
  int32_t com_port;                    /* "ComPort"; default 1 */
  int32_t baudrate;                    /* "Baudrate"; default 9600 */
  int32_t read_interval_ms;            /* "ReadInterval": serial, most ms between two bytes; 200 */
  int32_t read_total_multiplier_ms;    /* "ReadTotalMultiplier": serial, ms per byte asked for; 0 */
  int32_t read_total_constant_ms;      /* "ReadTotalConstant": serial, ms per read; 500 */
  int32_t read_total_constant_fw_ms;   /* "ReadTotalConstantFW": the same during downloads; 3000 */
  int32_t stream_segment_sleep_ms;     /* "StreamSegmentSleepTime": pause before a stream segment's
                                          answer is read; default 255 (the value of a missing key) */
  int32_t socket_answer_ms;            /* "SocketAnswerTimeout": how long a TCP or UDP link by
                                          address waits for an answer to begin; default 110 */
  /* Section Ports: the device of each COM port; a port without an entry is /dev/ttyS<n-1>. */
  const tamrik_port *ports;
  int32_t port_count;
  /* Section Privileged: the bit table of the privileged response, a permutation of 0 to 31. */
  uint8_t privileged_bits[32];
  /* The demonstration station (used when version is 1) and the boot-file list; NULL: none. */
  const char *demo_file;
  const char *boot_file;
} tamrik_config;

/* The release of the loaded library, "MAJOR.MINOR.PATCH" (a static text). A host built with
 * this header may compare it with TAMRIK_VERSION_STRING: the loader has already ensured the
 * same major release (the SONAME's number), a later minor release only adds. */
TAMRIK_API const char *tamrik_version(void);

/* Fills *config with the defaults above (struct_size included). */
TAMRIK_API void tamrik_config_defaults(tamrik_config *config);

/* A driver object configured by *config; it reads and writes no configuration file. Null
 * when config is null or malformed (struct_size too small, a negative time, privileged bits
 * that are no permutation, a port outside 1 to 255 or without a device) or out of memory. */
TAMRIK_API tamrik_com *tamrik_create_with(const tamrik_config *config);

/* A driver object whose profile files (kaVcnf.ini, kaVdmo.ini, kaVBoot.ini) lie in the
 * directory of the loaded libtamrik.so when that directory is writable; otherwise in
 * $TAMRIK_CONFIG_DIR, else in $XDG_CONFIG_HOME/tamrik (~/.config/tamrik when unset), made
 * when missing. Null when it cannot be created. */
TAMRIK_API tamrik_com *tamrik_create(void);

/* The same with the directory of the profile files given; null when it does not exist. */
TAMRIK_API tamrik_com *tamrik_create_in(const char *directory);

/* Closes the link and destroys the object. */
TAMRIK_API void tamrik_release(tamrik_com *com);

/* Installs a process-wide receiver of the driver's trace output: every output call's text,
 * unchanged (8-bit, code page 1252, no line end added). Null restores the default, which
 * writes each call to stderr as one UTF-8 line. */
TAMRIK_API void tamrik_set_trace(void (*sink)(void *context, const char *text), void *context);

/* The name of a result code ("BadCheckValue") and a sentence that says what it means, both
 * static texts. A code the driver never returns gets the name "Unknown" and a text that says
 * so; the composed families (0x20000 + answer code, 4000000 + socket error, ...) get their
 * family's name and meaning. */
TAMRIK_API const char *tamrik_result_name(uint32_t code);
TAMRIK_API const char *tamrik_result_text(uint32_t code);

/* The diagnosis bytes a module has, by its identifier (bits 12 to 15). */
TAMRIK_API uint32_t tamrik_diagnosis_length(uint32_t module_id);

/* The counters of one driver object since its creation. */
#define TAMRIK_STATS_CODES 16
typedef struct tamrik_stats {
  uint32_t struct_size;          /* set by the caller to sizeof(tamrik_stats) */
  uint64_t exchanges;            /* requests written */
  uint64_t answers;              /* answer frames received whole with a correct check value */
  uint64_t failures;             /* exchanges that ended with a result code other than 0 */
  uint64_t dropped_frames;       /* frames that answered other requests, read and dropped */
  uint64_t bytes_out;
  uint64_t bytes_in;
  int64_t last_answer_unix_ms;   /* wall-clock time of the last good answer; 0: none yet */
  /* Failures by result code, in the order the codes first occurred; failures of codes beyond
   * the table's room are counted in other_failures. */
  uint32_t failure_code_count;
  uint32_t failure_codes[TAMRIK_STATS_CODES];
  uint64_t failure_counts[TAMRIK_STATS_CODES];
  uint64_t other_failures;
} tamrik_stats;

/* Copies the counters of com into *stats. 0, or 0x10060 for a null pointer or a struct_size
 * smaller than this header's. */
TAMRIK_API uint32_t tamrik_get_stats(const tamrik_com *com, tamrik_stats *stats);

/* The methods, in the order of the interface's method table (dispatch identifier first). */

/* 1 */ TAMRIK_API uint32_t tamrik_kaVSetBaudrate(tamrik_com *com, int32_t lBaudrate, int32_t* plError);
/* 2 */ TAMRIK_API uint32_t tamrik_kaVOpenComPort(tamrik_com *com, int32_t nPort, int32_t* lpError);
/* 3 */ TAMRIK_API uint32_t tamrik_kaVTestBlockRead(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 4 */ TAMRIK_API uint32_t tamrik_kaVTestBlockWrite(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 5 */ TAMRIK_API uint32_t tamrik_kaVCloseComPort(tamrik_com *com, int32_t nPort, int32_t* plError);
/* 7 */ TAMRIK_API uint32_t tamrik_kaVGetProcessInData(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 8 */ TAMRIK_API uint32_t tamrik_kaVSetProcessOutData(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 10 */ TAMRIK_API uint32_t tamrik_kaVGetProcessOutData(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 11 */ TAMRIK_API uint32_t tamrik_kaVGetParameterData(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 12 */ TAMRIK_API uint32_t tamrik_kaVSetParameterData(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 13 */ TAMRIK_API uint32_t tamrik_kaVGetDiagData(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 14 */ TAMRIK_API uint32_t tamrik_kaVGetModuleList(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 15 */ TAMRIK_API uint32_t tamrik_kaVControll(tamrik_com *com, int32_t* plDemo, int32_t* plLog, int32_t* plError);
/* 16 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayIdSring(tamrik_com *com, char* psDataa, int32_t* plSizeOfData, int32_t* plError);
/* 18 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayVersion(tamrik_com *com, int32_t* plData, int32_t* plError);
/* 19 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayBootFunctionIdString(tamrik_com *com, char* psData, int32_t* plSizeOfData, int32_t* plError);
/* 20 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayBootVersion(tamrik_com *com, int32_t* plData, int32_t* plError);
/* 21 */ TAMRIK_API uint32_t tamrik_kaVInitFirmwareDownload(tamrik_com *com, const char* psFileName, int32_t* plNoofLines, int32_t* plError);
/* 22 */ TAMRIK_API uint32_t tamrik_kaVGetStationAddress(tamrik_com *com, int32_t* plAddress, int32_t* plError);
/* 23 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayId(tamrik_com *com, int32_t* plGatewayId, int32_t* plError);
/* 24 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayVersionString(tamrik_com *com, char* psGWVersionString, int32_t* plSizeOfData, int32_t* plError);
/* 25 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayErrorList(tamrik_com *com, int32_t* plEntrys, int32_t* plErrorData, int32_t* plSizeOfErrBuf, int32_t* plError);
/* 26 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayOperationMode(tamrik_com *com, int32_t* plOPMode, int32_t* plError);
/* 27 */ TAMRIK_API uint32_t tamrik_kaVSetGatewayOperationMode(tamrik_com *com, int32_t* plOPMode, int32_t* plError);
/* 28 */ TAMRIK_API uint32_t tamrik_kaVExecHardwareReset(tamrik_com *com, int32_t* plError);
/* 29 */ TAMRIK_API uint32_t tamrik_kaVGetGatewayTime(tamrik_com *com, int32_t* lDays, int32_t* lHours, int32_t* lMinutes, int32_t* lSeconds, int32_t* plError);
/* 30 */ TAMRIK_API uint32_t tamrik_kaVDownloadFirmwareLines(tamrik_com *com, int32_t* plLine, int32_t* plError);
/* 31 */ TAMRIK_API uint32_t tamrik_kaVSetStationAddress(tamrik_com *com, int32_t* plAddress, int32_t* plError);
/* 32 */ TAMRIK_API uint32_t tamrik_kaVGatewayFbiReset(tamrik_com *com, int32_t* plError);
/* 33 */ TAMRIK_API uint32_t tamrik_kaVGatewayFbiStart(tamrik_com *com, int32_t* plError);
/* 34 */ TAMRIK_API uint32_t tamrik_kaVGetModuleStreamDataSizeList(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 35 */ TAMRIK_API uint32_t tamrik_kaVSetModuleStreamDataPosition(tamrik_com *com, int32_t* plData, int32_t* plError);
/* 36 */ TAMRIK_API uint32_t tamrik_kaVSetGatewayServiceBaudrate(tamrik_com *com, int32_t* plBaudrate, int32_t* plError);
/* 37 */ TAMRIK_API uint32_t tamrik_kaVGetCurrentGwSwitches(tamrik_com *com, int32_t* plSwitch, int32_t* plError);
/* 38 */ TAMRIK_API uint32_t tamrik_kaVSetModuleStreamSegmentData(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 39 */ TAMRIK_API uint32_t tamrik_kaVSetGatewayLeds(tamrik_com *com, int32_t* LEDStatus, int32_t* plError);
/* 40 */ TAMRIK_API uint32_t tamrik_kaVStartBootFirmwareDownload(tamrik_com *com, int32_t nPort, int32_t* plBaudrate, int32_t* plError);
/* 41 */ TAMRIK_API uint32_t tamrik_kaVBootFirmwareDownload(tamrik_com *com, const char* psBSL_File, const char* psSetCtx_File, const char* psBoot_File, const char* psFileName, int32_t* plError);
/* 42 */ TAMRIK_API uint32_t tamrik_kaVBootFirmwareDownload_FromIni(tamrik_com *com, int32_t* plError);
/* 43 */ TAMRIK_API uint32_t tamrik_kaVGetModulIdStatusList(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 44 */ TAMRIK_API uint32_t tamrik_kaVGetTRBuffer(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 45 */ TAMRIK_API uint32_t tamrik_kaVClearTRBuffer(tamrik_com *com, int32_t* plError);
/* 46 */ TAMRIK_API uint32_t tamrik_kaVGetVersion(tamrik_com *com, char* psVersion, int32_t* plSizeOfData, int32_t* plError);
/* 47 */ TAMRIK_API uint32_t tamrik_kaVSrvMbResetMonitoring(tamrik_com *com, int32_t* plError);
/* 48 */ TAMRIK_API uint32_t tamrik_kaVSrvMbStartMonitoring(tamrik_com *com, int32_t* plError);
/* 49 */ TAMRIK_API uint32_t tamrik_kaVSrvMbStopMonitoring(tamrik_com *com, int32_t* plError);
/* 50 */ TAMRIK_API uint32_t tamrik_kaVSrvGetFirstDataFrame(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 51 */ TAMRIK_API uint32_t tamrik_kaVSrvGetNextDataFrame(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 52 */ TAMRIK_API uint32_t tamrik_SetPort(tamrik_com *com, int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error);
/* 53 */ TAMRIK_API uint32_t tamrik_GetPort(tamrik_com *com, int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error);
/* 54 */ TAMRIK_API uint32_t tamrik_kaVSrvDNetGetEEPDNetSerialNumber(tamrik_com *com, int32_t* lSerialNumber, int32_t* Error);
/* 55 */ TAMRIK_API uint32_t tamrik_kaVSrvDNetGetEEPToolIdent(tamrik_com *com, char* psIdentName, int32_t* plSizeOfData, int32_t* Error);
/* 56 */ TAMRIK_API uint32_t tamrik_kaVSrvDNetGetClassInstAttr(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* Error);
/* 57 */ TAMRIK_API uint32_t tamrik_kaVSrvDNetSetClassInstAttr(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* Error);
/* 58 */ TAMRIK_API uint32_t tamrik_kaVGetStatistics(tamrik_com *com, int32_t* time, int32_t* breaks, int32_t* data, int32_t* plError);
/* 59 */ TAMRIK_API uint32_t tamrik_kaVClrStatistics(tamrik_com *com, int32_t* plError);
/* 60 */ TAMRIK_API uint32_t tamrik_kaVGetModuleSWRev(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 61 */ TAMRIK_API uint32_t tamrik_kaVGetModuleTyp(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 62 */ TAMRIK_API uint32_t tamrik_kavGetBootFctsHwInfo(tamrik_com *com, int32_t* plData, int32_t* plSizeOfData, int32_t* plError);
/* 63 */ TAMRIK_API uint32_t tamrik_kaVOpenEthernet(tamrik_com *com, const char* psAdditionalArg, const char* psRemoteIPAddress, int32_t* plError);
/* 64 */ TAMRIK_API uint32_t tamrik_kavEnterPrivilegedMode(tamrik_com *com, const char* psClientDescription, int32_t* plError);
/* 65 */ TAMRIK_API uint32_t tamrik_kaVGetPrivilegedChannel(tamrik_com *com, int32_t* plChannelId, int32_t* plError);
/* 66 */ TAMRIK_API uint32_t tamrik_kavGetPrivilegedName(tamrik_com *com, char* psName, int32_t* plSizeOfData, int32_t* plError);
/* 67 */ TAMRIK_API uint32_t tamrik_kaVInitImageDownload(tamrik_com *com, const char* psFileName, int32_t* plStartAddress, int32_t* plNoofBlocks, int32_t* plError);
/* 68 */ TAMRIK_API uint32_t tamrik_kaVDownloadImageBlock(tamrik_com *com, int32_t* plBlock, int32_t* plError);
/* 69 */ TAMRIK_API uint32_t tamrik_kaVCancelImageDownload(tamrik_com *com, int32_t* plError);
/* 70 */ TAMRIK_API uint32_t tamrik_kaVDoService(tamrik_com *com, int32_t* service, uint8_t* plData, int32_t* plSizeOfSendData, int32_t* plSizeOfRecData, int32_t* plError);

#ifdef __cplusplus
}
#endif

#endif /* TAMRIK_H */

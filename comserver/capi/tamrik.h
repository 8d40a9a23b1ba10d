/* tamrik: communication driver for field-bus gateways, C interface for Linux hosts.
 *
 * One driver object stands for one link to one gateway. Every method function takes the
 * object first, then the method's parameters in their order, and ends with the out-value
 * that receives the result code (0 is success). Each returns the method's own status: 0 in
 * ordinary cases, 0x999999 when a busy-guarded method is already running, 0x10050 when the
 * answer failed (the out-value holds the cause), or another code the method documents.
 * A null pointer for any parameter is refused with 0x10060 and nothing is touched.
 *
 * Types: 32-bit values are int32_t; byte arrays are arrays of int32_t that carry one byte
 * each, with the number of values in a separate int32_t.
 */
#ifndef TAMRIK_H
#define TAMRIK_H

#include <stdint.h>

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

/* A driver object whose profile files (kaVcnf.ini, kaVdmo.ini, kaVBoot.ini) lie in the
 * directory of the loaded libtamrik.so. Null when it cannot be created. */
TAMRIK_API tamrik_com *tamrik_create(void);

/* The same with the directory of the profile files given. */
TAMRIK_API tamrik_com *tamrik_create_in(const char *directory);

/* Closes the link and destroys the object. */
TAMRIK_API void tamrik_release(tamrik_com *com);

/* Installs a process-wide receiver of the driver's trace output: every output call's text,
 * unchanged (8-bit, code page 1252, no line end added). Null restores the default, which
 * writes each call to stderr as one UTF-8 line. */
TAMRIK_API void tamrik_set_trace(void (*sink)(void *context, const char *text), void *context);

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

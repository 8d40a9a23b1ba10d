// Methods that this build does not carry out yet: each reports 0x10061 in its out-value and
// as its return value, so a host sees a clear failure instead of a silent success.
#include "ResultCodes.h"
#include "com.h"

namespace tamrik {

uint32_t Ccom::kaVTestBlockRead(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVTestBlockWrite(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetProcessInData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSetProcessOutData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetProcessOutData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetParameterData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSetParameterData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetDiagData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetModuleList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayIdSring(char* psDataa, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayBootFunctionIdString(char* psData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayBootVersion(int32_t* plData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetStationAddress(int32_t* plAddress, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayId(int32_t* plGatewayId, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayVersionString(char* psGWVersionString, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayErrorList(int32_t* plEntrys, int32_t* plErrorData, int32_t* plSizeOfErrBuf, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayOperationMode(int32_t* plOPMode, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSetGatewayOperationMode(int32_t* plOPMode, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVExecHardwareReset(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetGatewayTime(int32_t* lDays, int32_t* lHours, int32_t* lMinutes, int32_t* lSeconds, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSetStationAddress(int32_t* plAddress, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGatewayFbiReset(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGatewayFbiStart(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetModuleStreamDataSizeList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSetModuleStreamDataPosition(int32_t* plData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetCurrentGwSwitches(int32_t* plSwitch, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSetModuleStreamSegmentData(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSetGatewayLeds(int32_t* LEDStatus, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetModulIdStatusList(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetTRBuffer(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVClearTRBuffer(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvMbResetMonitoring(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvMbStartMonitoring(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvMbStopMonitoring(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvGetFirstDataFrame(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvGetNextDataFrame(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::SetPort(int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error) {
  *Error = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::GetPort(int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error) {
  *Error = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvDNetGetEEPDNetSerialNumber(int32_t* lSerialNumber, int32_t* Error) {
  *Error = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvDNetGetEEPToolIdent(char* psIdentName, int32_t* plSizeOfData, int32_t* Error) {
  *Error = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvDNetGetClassInstAttr(int32_t* plData, int32_t* plSizeOfData, int32_t* Error) {
  *Error = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVSrvDNetSetClassInstAttr(int32_t* plData, int32_t* plSizeOfData, int32_t* Error) {
  *Error = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetStatistics(int32_t* time, int32_t* breaks, int32_t* data, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVClrStatistics(int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetModuleSWRev(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetModuleTyp(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kavGetBootFctsHwInfo(int32_t* plData, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kavEnterPrivilegedMode(const char* psClientDescription, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVGetPrivilegedChannel(int32_t* plChannelId, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kavGetPrivilegedName(char* psName, int32_t* plSizeOfData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

uint32_t Ccom::kaVDoService(int32_t* service, uint8_t* plData, int32_t* plSizeOfSendData, int32_t* plSizeOfRecData, int32_t* plError) {
  *plError = int32_t(rc::kNotAvailable);
  return rc::kNotAvailable;
}

}  // namespace tamrik

// The 67 methods of the automation interface in table order, with their dispatch
// identifiers. One list feeds the driver object's declaration, the C ABI and every other
// place that must name each method once.
//
// TAMRIK_METHOD(dispid, name, (parameters), (argument names))
// Types: 32-bit integers and pointers to them are int32_t and int32_t*, short* is int16_t*, unsigned char* is
// uint8_t*; texts the method only reads are const char*. The last parameter is always the
// out-value that receives the result code.
// clang-format off
#define TAMRIK_METHOD_TABLE(TAMRIK_METHOD) \
  TAMRIK_METHOD(1,  kaVSetBaudrate, (int32_t lBaudrate, int32_t* plError), (lBaudrate, plError)) \
  TAMRIK_METHOD(2,  kaVOpenComPort, (int32_t nPort, int32_t* lpError), (nPort, lpError)) \
  TAMRIK_METHOD(3,  kaVTestBlockRead, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(4,  kaVTestBlockWrite, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(5,  kaVCloseComPort, (int32_t nPort, int32_t* plError), (nPort, plError)) \
  TAMRIK_METHOD(7,  kaVGetProcessInData, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(8,  kaVSetProcessOutData, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(10, kaVGetProcessOutData, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(11, kaVGetParameterData, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(12, kaVSetParameterData, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(13, kaVGetDiagData, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(14, kaVGetModuleList, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(15, kaVControll, (int32_t* plDemo, int32_t* plLog, int32_t* plError), (plDemo, plLog, plError)) \
  TAMRIK_METHOD(16, kaVGetGatewayIdSring, (char* psDataa, int32_t* plSizeOfData, int32_t* plError), (psDataa, plSizeOfData, plError)) \
  TAMRIK_METHOD(18, kaVGetGatewayVersion, (int32_t* plData, int32_t* plError), (plData, plError)) \
  TAMRIK_METHOD(19, kaVGetGatewayBootFunctionIdString, (char* psData, int32_t* plSizeOfData, int32_t* plError), (psData, plSizeOfData, plError)) \
  TAMRIK_METHOD(20, kaVGetGatewayBootVersion, (int32_t* plData, int32_t* plError), (plData, plError)) \
  TAMRIK_METHOD(21, kaVInitFirmwareDownload, (const char* psFileName, int32_t* plNoofLines, int32_t* plError), (psFileName, plNoofLines, plError)) \
  TAMRIK_METHOD(22, kaVGetStationAddress, (int32_t* plAddress, int32_t* plError), (plAddress, plError)) \
  TAMRIK_METHOD(23, kaVGetGatewayId, (int32_t* plGatewayId, int32_t* plError), (plGatewayId, plError)) \
  TAMRIK_METHOD(24, kaVGetGatewayVersionString, (char* psGWVersionString, int32_t* plSizeOfData, int32_t* plError), (psGWVersionString, plSizeOfData, plError)) \
  TAMRIK_METHOD(25, kaVGetGatewayErrorList, (int32_t* plEntrys, int32_t* plErrorData, int32_t* plSizeOfErrBuf, int32_t* plError), (plEntrys, plErrorData, plSizeOfErrBuf, plError)) \
  TAMRIK_METHOD(26, kaVGetGatewayOperationMode, (int32_t* plOPMode, int32_t* plError), (plOPMode, plError)) \
  TAMRIK_METHOD(27, kaVSetGatewayOperationMode, (int32_t* plOPMode, int32_t* plError), (plOPMode, plError)) \
  TAMRIK_METHOD(28, kaVExecHardwareReset, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(29, kaVGetGatewayTime, (int32_t* lDays, int32_t* lHours, int32_t* lMinutes, int32_t* lSeconds, int32_t* plError), (lDays, lHours, lMinutes, lSeconds, plError)) \
  TAMRIK_METHOD(30, kaVDownloadFirmwareLines, (int32_t* plLine, int32_t* plError), (plLine, plError)) \
  TAMRIK_METHOD(31, kaVSetStationAddress, (int32_t* plAddress, int32_t* plError), (plAddress, plError)) \
  TAMRIK_METHOD(32, kaVGatewayFbiReset, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(33, kaVGatewayFbiStart, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(34, kaVGetModuleStreamDataSizeList, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(35, kaVSetModuleStreamDataPosition, (int32_t* plData, int32_t* plError), (plData, plError)) \
  TAMRIK_METHOD(36, kaVSetGatewayServiceBaudrate, (int32_t* plBaudrate, int32_t* plError), (plBaudrate, plError)) \
  TAMRIK_METHOD(37, kaVGetCurrentGwSwitches, (int32_t* plSwitch, int32_t* plError), (plSwitch, plError)) \
  TAMRIK_METHOD(38, kaVSetModuleStreamSegmentData, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(39, kaVSetGatewayLeds, (int32_t* LEDStatus, int32_t* plError), (LEDStatus, plError)) \
  TAMRIK_METHOD(40, kaVStartBootFirmwareDownload, (int32_t nPort, int32_t* plBaudrate, int32_t* plError), (nPort, plBaudrate, plError)) \
  TAMRIK_METHOD(41, kaVBootFirmwareDownload, (const char* psBSL_File, const char* psSetCtx_File, const char* psBoot_File, const char* psFileName, int32_t* plError), (psBSL_File, psSetCtx_File, psBoot_File, psFileName, plError)) \
  TAMRIK_METHOD(42, kaVBootFirmwareDownload_FromIni, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(43, kaVGetModulIdStatusList, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(44, kaVGetTRBuffer, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(45, kaVClearTRBuffer, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(46, kaVGetVersion, (char* psVersion, int32_t* plSizeOfData, int32_t* plError), (psVersion, plSizeOfData, plError)) \
  TAMRIK_METHOD(47, kaVSrvMbResetMonitoring, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(48, kaVSrvMbStartMonitoring, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(49, kaVSrvMbStopMonitoring, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(50, kaVSrvGetFirstDataFrame, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(51, kaVSrvGetNextDataFrame, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(52, SetPort, (int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error), (plData, plSize, plAddress, Error)) \
  TAMRIK_METHOD(53, GetPort, (int16_t* plData, int32_t* plSize, int32_t* plAddress, int32_t* Error), (plData, plSize, plAddress, Error)) \
  TAMRIK_METHOD(54, kaVSrvDNetGetEEPDNetSerialNumber, (int32_t* lSerialNumber, int32_t* Error), (lSerialNumber, Error)) \
  TAMRIK_METHOD(55, kaVSrvDNetGetEEPToolIdent, (char* psIdentName, int32_t* plSizeOfData, int32_t* Error), (psIdentName, plSizeOfData, Error)) \
  TAMRIK_METHOD(56, kaVSrvDNetGetClassInstAttr, (int32_t* plData, int32_t* plSizeOfData, int32_t* Error), (plData, plSizeOfData, Error)) \
  TAMRIK_METHOD(57, kaVSrvDNetSetClassInstAttr, (int32_t* plData, int32_t* plSizeOfData, int32_t* Error), (plData, plSizeOfData, Error)) \
  TAMRIK_METHOD(58, kaVGetStatistics, (int32_t* time, int32_t* breaks, int32_t* data, int32_t* plError), (time, breaks, data, plError)) \
  TAMRIK_METHOD(59, kaVClrStatistics, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(60, kaVGetModuleSWRev, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(61, kaVGetModuleTyp, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(62, kavGetBootFctsHwInfo, (int32_t* plData, int32_t* plSizeOfData, int32_t* plError), (plData, plSizeOfData, plError)) \
  TAMRIK_METHOD(63, kaVOpenEthernet, (const char* psAdditionalArg, const char* psRemoteIPAddress, int32_t* plError), (psAdditionalArg, psRemoteIPAddress, plError)) \
  TAMRIK_METHOD(64, kavEnterPrivilegedMode, (const char* psClientDescription, int32_t* plError), (psClientDescription, plError)) \
  TAMRIK_METHOD(65, kaVGetPrivilegedChannel, (int32_t* plChannelId, int32_t* plError), (plChannelId, plError)) \
  TAMRIK_METHOD(66, kavGetPrivilegedName, (char* psName, int32_t* plSizeOfData, int32_t* plError), (psName, plSizeOfData, plError)) \
  TAMRIK_METHOD(67, kaVInitImageDownload, (const char* psFileName, int32_t* plStartAddress, int32_t* plNoofBlocks, int32_t* plError), (psFileName, plStartAddress, plNoofBlocks, plError)) \
  TAMRIK_METHOD(68, kaVDownloadImageBlock, (int32_t* plBlock, int32_t* plError), (plBlock, plError)) \
  TAMRIK_METHOD(69, kaVCancelImageDownload, (int32_t* plError), (plError)) \
  TAMRIK_METHOD(70, kaVDoService, (int32_t* service, uint8_t* plData, int32_t* plSizeOfSendData, int32_t* plSizeOfRecData, int32_t* plError), (service, plData, plSizeOfSendData, plSizeOfRecData, plError))
// clang-format on

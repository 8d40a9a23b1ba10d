// Connection methods: baud rate, serial line, Ethernet link, the gateway's service baud rate.
#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceCodes.h"

namespace tamrik {

namespace {

int32_t ServiceBaudrateIndex(int32_t baudrate) {
  switch (baudrate) {
    case 19200:
      return 1;
    case 38400:
      return 2;
    case 57600:
      return 3;
    case 115200:
      return 4;
    default:  // 9600 and every rate the gateway does not know
      return 0;
  }
}

}  // namespace

uint32_t Ccom::kaVSetBaudrate(int32_t lBaudrate, int32_t* plError) {
  TraceMethodFormat("kaVSetBaudrate %d<--", lBaudrate);
  // Checked only when the line is opened with it.
  nBaudrate = lBaudrate;
  *plError = 0;
  WriteConfigInt("Baudrate", nBaudrate);
  TraceMethodFormat("kaVSetBaudrate<--Baudrate 0x%X", uint32_t(*plError));
  return 0;
}

uint32_t Ccom::kaVOpenComPort(int32_t nPort, int32_t* lpError) {
  TraceMethodFormat("kaVOpenComPort %d<--", nPort);
  nComPort = nPort;
  pComPort->Close();
  const uint32_t result = pComPort->Open(nComPort, nBaudrate, 0);
  *lpError = int32_t(result);
  // The next driver object starts with the port and rate last used, whatever came of them.
  WriteConfigInt("ComPort", nComPort);
  WriteConfigInt("Baudrate", nBaudrate);
  TraceMethodFormat("kaVOpenComPort<--ComPort 0x%X", result);
  return result;
}

uint32_t Ccom::kaVCloseComPort(int32_t nPort, int32_t* plError) {
  TraceMethodFormat("kaVCloseComPort %d<--", nPort);
  const uint32_t result = pComPort->Close();
  *plError = int32_t(result);
  TraceMethodFormat("kaVCloseComPort<--ComPort 0x%X", result);
  return 0;
}

uint32_t Ccom::kaVSetGatewayServiceBaudrate(int32_t* plBaudrate, int32_t* plError) {
  const int32_t index = ServiceBaudrateIndex(*plBaudrate);
  TraceMethod("kaVSetGatewayServiceBaudrate-->");
  if (nDemo == 0) {
    int32_t work = 0;
    int32_t count = 0;
    uint32_t methodReturn = 0;
    if (!Exchange(kServiceSetServiceBaudrate, &index, nullptr, &work, &count, 1, plError,
                  RequestFailure::ReturnZero, &methodReturn)) {
      return methodReturn;
    }
  }
  TraceMethod("kaVSetGatewayServiceBaudrate<--");
  *plError = 0;
  return 0;
}

uint32_t Ccom::kaVOpenEthernet(const char* psAdditionalArg, const char* psRemoteIPAddress, int32_t* plError) {
  TraceMethodFormat("kaVOpenEthernet %s, RemoteIPAddr %s<--", psAdditionalArg, psRemoteIPAddress);
  pComPort->Close();
  const uint32_t result = pComPort->OpenEthernet(psAdditionalArg, psRemoteIPAddress);
  *plError = int32_t(result);
  TraceMethodFormat("kaVOpenEthernet<--return value 0x%X", result);
  return result;
}

}  // namespace tamrik

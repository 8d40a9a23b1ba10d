// Connection methods: baud rate, serial line, Ethernet link, the gateway's service baud rate.
#include "ResultCodes.h"
#include "com.h"
#include "protocol/ServiceTable.h"

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

// The connection methods trace their arguments on entry with "<--", as they always have.
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
  port_->Close();
  const uint32_t result = port_->Open(nComPort, nBaudrate, 0);
  *lpError = int32_t(result);
  // The next driver object starts with the port and rate last used, whatever came of them.
  WriteConfigInt("ComPort", nComPort);
  WriteConfigInt("Baudrate", nBaudrate);
  TraceMethodFormat("kaVOpenComPort<--ComPort 0x%X", result);
  return result;
}

uint32_t Ccom::kaVCloseComPort(int32_t nPort, int32_t* plError) {
  TraceMethodFormat("kaVCloseComPort %d<--", nPort);
  const uint32_t result = port_->Close();
  *plError = int32_t(result);
  TraceMethodFormat("kaVCloseComPort<--ComPort 0x%X", result);
  return 0;
}

uint32_t Ccom::kaVSetGatewayServiceBaudrate(int32_t* plBaudrate, int32_t* plError) {
  const int32_t index = ServiceBaudrateIndex(*plBaudrate);
  int32_t work = 0;
  return RunExchange({.name = "kaVSetGatewayServiceBaudrate",
                      .service = kServiceSetServiceBaudrate,
                      .request = &index,
                      .values = &work,
                      .capacity = 1,
                      .error = plError});
}

uint32_t Ccom::kaVOpenEthernet(const char* psAdditionalArg, const char* psRemoteIPAddress, int32_t* plError) {
  TraceMethodFormat("kaVOpenEthernet %s, RemoteIPAddr %s<--", psAdditionalArg, psRemoteIPAddress);
  port_->Close();
  const uint32_t result = port_->OpenEthernet(psAdditionalArg, psRemoteIPAddress);
  *plError = int32_t(result);
  TraceMethodFormat("kaVOpenEthernet<--return value 0x%X", result);
  return result;
}

}  // namespace tamrik

// The driver from a script host: wine cscript //nologo driver.js demo|tcp PORT|serial N
// A script cannot read out-values (JScript passes every argument by value); each method's
// result code comes back as its value. cscript reports nothing of an uncaught error, so
// everything is caught here and the script closes with its own "N passed, N failed".
var passed = 0, failed = 0;

function check(ok, what) {
  if (ok) { passed++; } else { failed++; WScript.Echo("FAIL " + what); }
}

function hex(n) { return "0x" + (n >>> 0).toString(16).toUpperCase(); }

function expectCode(got, want, what) {
  check(got === want, what + ": " + hex(got) + ", expected " + hex(want));
}

function run() {
  var args = WScript.Arguments;
  var mode = args.length > 0 ? args(0) : "";
  var port = args.length > 1 ? args(1) : "";
  var com = new ActiveXObject("Tamrik.com");
  check(typeof com === "object", "Tamrik.com created by ProgID");

  // Methods that work without a link, whatever the mode.
  expectCode(com.kaVControll(1, 1), 0, "kaVControll");
  try {
    com.kaVNoSuchMethod(0);
    check(false, "an unknown method must throw");
  } catch (e) {
    check(true, "unknown method");
  }

  if (mode == "demo") {
    expectCode(com.kaVGetGatewayVersion(0), 0, "kaVGetGatewayVersion from the demonstration file");
    expectCode(com.kaVGetGatewayVersionString("", 0), 0, "kaVGetGatewayVersionString");
    expectCode(com.kaVGetModuleList(0, 0), 0, "kaVGetModuleList");
    expectCode(com.kaVGetProcessInData(0, 0), 0, "kaVGetProcessInData");
    expectCode(com.kaVGetGatewayTime(0, 0, 0, 0), 0, "kaVGetGatewayTime");
    expectCode(com.kaVSetGatewayOperationMode(2), 0, "kaVSetGatewayOperationMode");
    // The serial line checks its settings before any device.
    expectCode(com.kaVSetBaudrate(14400), 0, "kaVSetBaudrate");
    expectCode(com.kaVOpenComPort(3), 0x10013, "kaVOpenComPort at 14400 baud");
    expectCode(com.kaVCloseComPort(3), 0x10015, "kaVCloseComPort with nothing open");
    expectCode(com.kaVSetBaudrate(9600), 0, "kaVSetBaudrate");
    expectCode(com.kaVOpenComPort(77), 0x10016, "kaVOpenComPort of a port without a device");
    expectCode(com.kaVOpenEthernet("502", "0.0.0.0"), 4010049, "kaVOpenEthernet to 0.0.0.0");
  } else if (mode == "tcp" || mode == "serial") {
    if (mode == "tcp") {
      expectCode(com.kaVOpenEthernet(port, "127.0.0.1"), 0, "kaVOpenEthernet to the simulator");
    } else {
      expectCode(com.kaVSetBaudrate(19200), 0, "kaVSetBaudrate");
      expectCode(com.kaVOpenComPort(parseInt(port, 10)), 0, "kaVOpenComPort on the pseudo-terminal");
    }
    expectCode(com.kaVGetGatewayVersion(0), 0, "kaVGetGatewayVersion from the simulator");
    expectCode(com.kaVGetGatewayVersionString("", 0), 0, "kaVGetGatewayVersionString");
    expectCode(com.kaVGetStationAddress(0), 0, "kaVGetStationAddress");
    expectCode(com.kaVGetModuleList(0, 0), 0, "kaVGetModuleList");
    expectCode(com.kaVCloseComPort(0), 0, "kaVCloseComPort");
    expectCode(com.kaVCloseComPort(0), 0x10015, "kaVCloseComPort again");
    check(com.kaVGetGatewayVersion(0) !== 0, "no answer once the link is closed");
  } else {
    check(false, "unknown mode '" + mode + "'");
  }
}

try {
  run();
} catch (e) {
  failed++;
  WScript.Echo("FAIL uncaught: " + e.message + " (" + hex(e.number) + ")");
}
WScript.Echo(passed + " passed, " + failed + " failed");

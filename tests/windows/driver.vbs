' The driver from VBScript, which passes variables by reference: out-values come back.
'   wine cscript //nologo driver.vbs tcp PORT
' Prints the values it read, one per line, and closes with "N passed, N failed".
Option Explicit
Dim passed, failed
passed = 0
failed = 0

Sub Check(ok, what)
  If ok Then
    passed = passed + 1
  Else
    failed = failed + 1
    WScript.Echo "FAIL " & what
  End If
End Sub

Sub Run()
  Dim com, err, version, text, size, address
  Set com = CreateObject("Tamrik.com")
  err = com.kaVOpenEthernet(WScript.Arguments(1), "127.0.0.1")
  Check err = 0, "kaVOpenEthernet: " & err
  version = 0
  err = com.kaVGetGatewayVersion(version)
  Check err = 0, "kaVGetGatewayVersion: " & err
  WScript.Echo "kaVGetGatewayVersion " & version
  text = ""
  size = 0
  err = com.kaVGetGatewayVersionString(text, size)
  Check err = 0, "kaVGetGatewayVersionString: " & err
  WScript.Echo "kaVGetGatewayVersionString '" & Left(text, size) & "'"
  address = 0
  err = com.kaVGetStationAddress(address)
  Check err = 0, "kaVGetStationAddress: " & err
  WScript.Echo "kaVGetStationAddress " & address
  Dim list, count
  list = 0
  count = 0
  err = com.kaVGetModuleList(list, count)
  Check err = 0, "kaVGetModuleList: " & err
  WScript.Echo "kaVGetModuleList first=" & list & " count=" & count
  err = com.kaVCloseComPort(0)
  Check err = 0, "kaVCloseComPort: " & err
End Sub

On Error Resume Next
Run
If Err.Number <> 0 Then
  failed = failed + 1
  WScript.Echo "FAIL uncaught: " & Err.Description & " (" & Err.Number & ")"
End If
WScript.Echo passed & " passed, " & failed & " failed"

#!/usr/bin/env bash
# Cross-builds tamrik.dll with mingw-w64 (x86_64 and i686) and tests it under wine in a
# fresh, private prefix: registration, the type library, the server's entry points, calls
# through the vtable, IDispatch, JScript and VBScript, in demonstration mode and against the
# simulator over loopback TCP and over a pseudo-terminal mapped as COM5; results and trace
# lines are compared with a Linux run of the same calls. Closes with "N passed, N failed"
# and exits non-zero when anything failed.
#
# TAMRIK_SKIP_WINE32=1: do not try to install wine32 nor run the 32-bit module (it is built).
# Build directories: BUILD_DIR_WIN64 (build-win64), BUILD_DIR_WIN32 (build-win32) and, for
# the simulator and the Linux side of the comparison, TAMRIK_LINUX_BUILD (build-winpeer).
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/setup.sh && scripts/setup-windows.sh || { echo "setup-windows.sh failed"; echo "0 passed, 1 failed"; exit 1; }

build64=${BUILD_DIR_WIN64:-build-win64}
build32=${BUILD_DIR_WIN32:-build-win32}
linux=${TAMRIK_LINUX_BUILD:-build-winpeer}
jobs=${TAMRIK_JOBS:-2}

passed=0
failed=0
skipped=0
pass() { passed=$((passed + 1)); echo "ok   $1"; }
fail() { failed=$((failed + 1)); echo "FAIL $1"; }
skip() { skipped=$((skipped + 1)); echo "skip $1"; }
check() { if [ "$1" = 0 ]; then pass "$2"; else fail "$2"; fi; }
finish() {
  echo "$passed passed, $failed failed, $skipped skipped"
  [ "$failed" = 0 ]
  exit $?
}

# --- builds -----------------------------------------------------------------------------------
build() {  # dir, then configure arguments
  local dir=$1
  shift
  # A directory configured before keeps its settings; the build refreshes what changed.
  if [ ! -f "$dir/CMakeCache.txt" ]; then
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@" >"$dir/tamrik-configure.log" 2>&1 || return 1
  fi
  cmake --build "$dir" -j "$jobs" "${targets[@]}" >"$dir/tamrik-build.log" 2>&1
}
mkdir -p "$build64" "$build32" "$linux"
targets=()
if build "$build64" -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-x86_64.cmake; then
  pass "x86_64 build of tamrik.dll"
else
  tail -30 "$build64/tamrik-build.log" "$build64/tamrik-configure.log" 2>/dev/null
  fail "x86_64 build of tamrik.dll"
  finish
fi
have32=0
if build "$build32" -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-i686.cmake; then
  pass "i686 build of tamrik.dll"
  have32=1
else
  tail -30 "$build32/tamrik-build.log" 2>/dev/null
  fail "i686 build of tamrik.dll"
fi
targets=(--target tamrik tamrik-sim)
# A Linux build directory that exists already (CI's) is only brought up to date.
if build "$linux" -DTAMRIK_BUILD_TESTS=OFF &&
   g++ -std=c++20 -O1 -Wall -Icomserver -Icomserver/capi -I"$linux/include" -Itests/windows tests/windows/linux_peer.cpp \
       -o "$linux/tamrik-peer" -L"$linux" -ltamrik -Wl,-rpath,"$root/$linux" >"$linux/tamrik-peer.log" 2>&1; then
  pass "Linux library, simulator and peer"
else
  tail -30 "$linux/tamrik-build.log" "$linux/tamrik-peer.log" 2>/dev/null
  fail "Linux library, simulator and peer"
  finish
fi

dll64=$build64/comserver/server/tamrik.dll
client64=$build64/tests-windows/tamrik-client.exe
dll32=$build32/comserver/server/tamrik.dll
client32=$build32/tests-windows/tamrik-client.exe

# The module must need nothing but the system's own DLLs.
system_dlls='^(ADVAPI32|KERNEL32|msvcrt|OLEAUT32|ole32|USER32|WS2_32)\.dll$'
for dll in "$dll64" "$dll32"; do
  [ -f "$dll" ] || continue
  others=$(x86_64-w64-mingw32-objdump -p "$dll" | sed -n 's/^\s*DLL Name: //p' | grep -Evi "$system_dlls" || true)
  exports=$(x86_64-w64-mingw32-objdump -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
            sed -n 's/^\s*\[ *[0-9]*\] //p' | tr '\n' ' ')
  check "$([ -z "$others" ] && echo 0 || echo 1)" "$dll imports only system DLLs ${others:+(also: $others)}"
  check "$([ "$exports" = "DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer " ] && echo 0 || echo 1)" \
        "$dll exports the four entry points"
done

# --- the prefix ---------------------------------------------------------------------------------
work=$(mktemp -d /tmp/tamrik-wine.XXXXXX)
export WINEPREFIX=$work/prefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="  # no offer to install Mono or Gecko
export DISPLAY=
sims=()
cleanup() {
  for pid in "${sims[@]}"; do kill "$pid" 2>/dev/null; done
  wineserver -k >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT

# The server's output goes to a log: it reports every pseudo-terminal that closes at length.
wineserver -p >"$work/wineserver.log" 2>&1
if ! timeout 120 wine wineboot -i >"$work/wineboot.log" 2>&1; then
  tail -20 "$work/wineboot.log"
  fail "fresh wine prefix"
  finish
fi
pass "fresh wine prefix"

dir64=$WINEPREFIX/drive_c/tamrik
mkdir -p "$dir64"
cp "$dll64" "$client64" tests/windows/driver.js tests/windows/driver.vbs "$dir64/"

w() { timeout 60 wine "$@"; }
closing_line() {  # the "N passed, M failed" of a run's output: prints "N M", or nothing
  tr -d '\r' <"$1" | sed -n 's/^\([0-9][0-9]*\) passed, \([0-9][0-9]*\) failed.*$/\1 \2/p' | tail -1
}
# A checking run counts as passed when it closed with no failure; its own failures are shown.
counted_run() {  # name, output file
  local line
  line=$(closing_line "$2")
  if [ -n "$line" ] && [ "${line#* }" = 0 ]; then
    pass "$1 (${line% *} checks)"
  else
    tr -d '\r' <"$2" | grep -E '^FAIL|cannot' | head -20
    if [ -n "$line" ]; then
      fail "$1 (${line#* } of $((${line% *} + ${line#* })) checks failed)"
    else
      fail "$1 (no closing line)"
    fi
  fi
}

configure() {  # directory, Version value
  cat >"$1/kaVcnf.ini" <<EOF
[Init]
Version=$2
Logfile=1
ComPort=1
Baudrate=9600
ReadInterval=200
ReadTotalMultiplier=0
ReadTotalConstant=500
ReadTotalConstantFW=3000
[Ports]
Com5=$WINEPREFIX/dosdevices/com5
EOF
  cp examples/kaVdmo.ini "$1/kaVdmo.ini"
}

reg_value() {  # key, value name (none for the default): the value's data
  local name=${2:-(Default)} which=(/ve)
  [ -n "${2:-}" ] && which=(/v "$2")
  w reg query "$1" "${which[@]}" 2>/dev/null | tr -d '\r' |
    awk -v n="$name" '{ if ($1 == n && $2 ~ /^REG_/) { sub(/^[ ]*[^ ]+[ ]+REG_[A-Z_]+[ ]+/, ""); print; exit } }'
}
reg_exists() { w reg query "$1" >/dev/null 2>&1; }

clsid='{5A1E7D32-4C2B-11d2-A3F1-0060B7C25E90}'
libid='{5A1E7D31-4C2B-11D2-A3F1-0060B7C25E90}'
iid='{5A1E7D30-4C2B-11D2-A3F1-0060B7C25E90}'

check_registered() {  # module path as Windows sees it, typelib platform
  local module=$1 platform=$2 ok=0 key
  for key in 'HKCR\Tamrik.com' 'HKCR\Tamrik.com.1' "HKCR\\CLSID\\$clsid"; do
    [ "$(reg_value "$key")" = "com-Klasse" ] || { echo "  $key default: '$(reg_value "$key")'"; ok=1; }
  done
  for key in 'HKCR\Tamrik.com\CLSID' 'HKCR\Tamrik.com.1\CLSID'; do
    [ "$(reg_value "$key")" = "$clsid" ] || { echo "  $key: '$(reg_value "$key")'"; ok=1; }
  done
  [ "$(reg_value "HKCR\\CLSID\\$clsid\\ProgID")" = "Tamrik.com.1" ] || { echo "  ProgID"; ok=1; }
  [ "$(reg_value "HKCR\\CLSID\\$clsid\\VersionIndependentProgID")" = "Tamrik.com" ] || { echo "  VersionIndependentProgID"; ok=1; }
  [ "$(reg_value "HKCR\\CLSID\\$clsid\\InprocServer32")" = "$module" ] ||
    { echo "  InprocServer32: '$(reg_value "HKCR\\CLSID\\$clsid\\InprocServer32")'"; ok=1; }
  [ "$(reg_value "HKCR\\CLSID\\$clsid\\InprocServer32" ThreadingModel)" = "both" ] || { echo "  ThreadingModel"; ok=1; }
  # Exactly the three subkeys of the table under the class's key.
  local subkeys
  subkeys=$(w reg query "HKCR\\CLSID\\$clsid" 2>/dev/null | tr -d '\r' | grep -ciF "HKEY_CLASSES_ROOT\\CLSID\\$clsid\\")
  [ "$subkeys" = 3 ] || { echo "  $subkeys subkeys under the class"; ok=1; }
  [ "$(reg_value "HKCR\\TypeLib\\$libid\\1.0\\409\\$platform")" = "$module" ] || { echo "  type library not registered"; ok=1; }
  # Registering the type library makes Icom known for marshalling between apartments.
  reg_exists "HKCR\\Interface\\$iid" || { echo "  Icom not registered as an interface"; ok=1; }
  return $ok
}

check_unregistered() {
  local ok=0 key
  for key in 'HKCR\Tamrik.com' 'HKCR\Tamrik.com.1' "HKCR\\CLSID\\$clsid" "HKCR\\TypeLib\\$libid" \
             "HKCR\\Interface\\$iid"; do
    if reg_exists "$key"; then echo "  $key is still there"; ok=1; fi
  done
  reg_exists 'HKCR\CLSID' || { echo "  HKCR\\CLSID is gone"; ok=1; }
  return $ok
}

# --- registration -------------------------------------------------------------------------------
w regsvr32 /s 'C:\tamrik\tamrik.dll' >"$work/regsvr32.log" 2>&1
check $? "regsvr32 tamrik.dll"
check_registered 'C:\tamrik\tamrik.dll' win64
check $? "registry after regsvr32: ProgIDs, class key, InprocServer32, type library"

# --- type library and server --------------------------------------------------------------------
configure "$dir64" 0
w "C:\\tamrik\\tamrik-client.exe" typelib 'C:\tamrik\tamrik.dll' >"$work/typelib.out" 2>&1
counted_run "type library: 67 methods with names, DISPIDs, parameters, help strings" "$work/typelib.out"
w "C:\\tamrik\\tamrik-client.exe" server >"$work/server.out" 2>&1
counted_run "server: ProgID, interfaces, class object, DllCanUnloadNow, IDispatch" "$work/server.out"

# A renamed copy in a directory of its own, in demonstration mode there, while the registered
# module's directory is not: the copy must read its own files.
renamed=$WINEPREFIX/drive_c/renamed
mkdir -p "$renamed"
cp "$dll64" "$renamed/other.dll"
configure "$renamed" 1
demo_version=$(tr -d '\r' <examples/kaVdmo.ini | sed -n 's/^GWVersion=\(.*\)$/\1/p')
w "C:\\tamrik\\tamrik-client.exe" renamed 'C:\renamed\other.dll' "$((demo_version))" >"$work/renamed.out" 2>&1
counted_run "a renamed copy of the module reads the profile files beside itself" "$work/renamed.out"

# --- the same calls on Linux and through the module -----------------------------------------------
start_sim() {  # output file, then simulator arguments; waits up to 5 s for its first whole line
  "$linux/tamrik-sim" "${@:2}" >"$1" 2>&1 &
  sims+=($!)
  # A file that is not empty may hold only the start of the line ("tcp 127.0.0.1:35"): only
  # a line end says that the address is all there.
  for _ in $(seq 50); do [ "$(wc -l <"$1" 2>/dev/null || echo 0)" -gt 0 ] && break; sleep 0.1; done
}
stop_sims() {
  for pid in "${sims[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  sims=()
}

# Trace lines from wine's debugger channel, as the Linux peer writes them. The last error
# traced at socket close is the thread's last system error on Windows, which any system call
# may have set; the gateway's clock moves between runs.
wine_trace() { tr -d '\r' <"$1" | sed -n 's/^[0-9a-f]*:[a-z]*:debugstr:OutputDebugStringA "\(.*\)"\(\.\.\.\)\{0,1\}$/\1/p'; }
normalize_trace() {
  sed -e 's/^\(ComServer:Socket WSAGetLastError: \).*/\1<last error>/' \
      -e 's/^\(ComServer:kaVOpenEthernet \)[0-9]*\(,UDP\)\{0,1\},/\1<port>\2,/' \
      -e '/kaVGetGatewayTime-->/,/kaVGetGatewayTime<--/ s/^\(ComServer:Read Stream (len:0006): \).*/\1<clock>/' |
    cut -c1-240
}
# What a caller through IDispatch sees: no status, and no value kept in an [out, retval].
dispatch_view() { tr -d '\r' | sed -e 's/ status=0x[0-9A-F]*$//' -e 's/err(kept)=0x[0-9A-F]*/err(kept)/'; }

# A fresh simulator for every run, so that each run meets the same gateway state (its
# input data move on with every request). Sets link_port: the TCP port, the COM port
# number, or nothing for demonstration mode.
fresh_link() {  # link kind
  stop_sims
  link_port=""
  case $1 in
    tcp)
      start_sim "$work/sim.out" --tcp 0
      link_port=$(sed -n 's/^tcp 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/sim.out")
      ;;
    udp)
      start_sim "$work/sim.out" --udp 0
      link_port=$(sed -n 's/^udp 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/sim.out")
      ;;
    serial)
      # COM5 of the prefix is the simulator's pseudo-terminal; the Linux peer reaches the
      # same device through the same link.
      start_sim "$work/sim.out" --pty --link "$WINEPREFIX/dosdevices/com5"
      grep -q '^pty ' "$work/sim.out" && link_port=5
      ;;
    *) return 0 ;;
  esac
  [ -n "$link_port" ] || { fail "simulator for $1: $(cat "$work/sim.out")"; return 1; }
}

compare_runs() {  # label, link kind
  local label=$1 kind=$2 way demo=0
  [ "$kind" = demo ] && demo=1
  local peer_dir=$work/linux-$label
  mkdir -p "$peer_dir"
  configure "$peer_dir" $demo
  fresh_link "$kind" || return
  timeout 60 "$linux/tamrik-peer" "$peer_dir" "$kind" ${link_port:+"$link_port"} "$work/$label.linux.trace" \
    >"$work/$label.linux.out" 2>&1
  check $? "$label: Linux run"
  # Equal results prove something only when the calls did work.
  grep -q '^kaVGetGatewayVersion err=0x0 [1-9]' "$work/$label.linux.out"
  check $? "$label: the gateway version was read"
  for way in vtable dispatch; do
    configure "$dir64" $demo
    fresh_link "$kind" || return
    WINEDEBUG=-all,+debugstr w "C:\\tamrik\\tamrik-client.exe" scenario "$way" "$kind" ${link_port:+"$link_port"} \
      >"$work/$label.$way.out" 2>"$work/$label.$way.err"
    check $? "$label: run through the $way"
    wine_trace "$work/$label.$way.err" >"$work/$label.$way.trace"
  done
  stop_sims
  if diff <(tr -d '\r' <"$work/$label.linux.out") <(tr -d '\r' <"$work/$label.vtable.out") >"$work/$label.diff"; then
    pass "$label: vtable results equal the Linux results ($(wc -l <"$work/$label.linux.out") calls)"
  else
    cat "$work/$label.diff"
    fail "$label: vtable results equal the Linux results"
  fi
  if diff <(dispatch_view <"$work/$label.linux.out") <(dispatch_view <"$work/$label.dispatch.out") >"$work/$label.diff"; then
    pass "$label: IDispatch results equal the Linux results"
  else
    cat "$work/$label.diff"
    fail "$label: IDispatch results equal the Linux results"
  fi
  for way in vtable dispatch; do
    if [ -s "$work/$label.linux.trace" ] &&
       diff <(normalize_trace <"$work/$label.linux.trace") <(normalize_trace <"$work/$label.$way.trace") \
         >"$work/$label.diff"; then
      pass "$label: debugger output of the $way run equals the Linux trace ($(wc -l <"$work/$label.linux.trace") lines)"
    else
      head -20 "$work/$label.diff"
      fail "$label: debugger output of the $way run equals the Linux trace"
    fi
  done
}

compare_runs demo demo
compare_runs tcp tcp
compare_runs udp udp
compare_runs serial serial

# --- script hosts ---------------------------------------------------------------------------------
configure "$dir64" 1
w cscript //nologo 'C:\tamrik\driver.js' demo >"$work/js-demo.out" 2>&1
counted_run "JScript, demonstration mode" "$work/js-demo.out"
# What the methods wrote went into the profile files beside the module.
tr -d '\r' <"$dir64/kaVcnf.ini" | grep -qx 'ComPort=77' && tr -d '\r' <"$dir64/kaVdmo.ini" | grep -qx 'GWOPMode=2'
check $? "JScript's port number and operation mode written to kaVcnf.ini and kaVdmo.ini beside the module"
configure "$dir64" 0
if fresh_link tcp; then
  w cscript //nologo 'C:\tamrik\driver.js' tcp "$link_port" >"$work/js-tcp.out" 2>&1
  counted_run "JScript against the simulator over TCP" "$work/js-tcp.out"
fi
if fresh_link tcp; then
  w cscript //nologo 'C:\tamrik\driver.vbs' tcp "$link_port" >"$work/vbs-tcp.out" 2>&1
  counted_run "VBScript against the simulator over TCP" "$work/vbs-tcp.out"
  # The values VBScript read back are those the Linux run read.
  for name in kaVGetGatewayVersion kaVGetStationAddress; do
    expected=$(sed -n "s/^$name err=0x0 \([0-9]*\) .*/\1/p" "$work/tcp.linux.out")
    got=$(tr -d '\r' <"$work/vbs-tcp.out" | sed -n "s/^$name \([0-9]*\)$/\1/p")
    check "$([ -n "$expected" ] && [ "$got" = "$expected" ] && echo 0 || echo 1)" \
          "VBScript read $name = ${got:-nothing} (Linux: ${expected:-nothing})"
  done
  expected=$(sed -n 's/^kaVGetModuleList err=0x0 \[\([0-9]*\)[],].*/first=\1/p' "$work/tcp.linux.out")
  expected="$expected count=$(sed -n 's/^kaVGetModuleList err=0x0 \[\([0-9,]*\)\].*/\1/p' "$work/tcp.linux.out" | tr ',' '\n' | wc -l)"
  got=$(tr -d '\r' <"$work/vbs-tcp.out" | sed -n 's/^kaVGetModuleList \(.*\)$/\1/p')
  check "$([ "$got" = "$expected" ] && echo 0 || echo 1)" "VBScript read the module list: $got (Linux: $expected)"
  expected=$(sed -n "s/^kaVGetGatewayVersionString err=0x0 \('.*'\) .*/\1/p" "$work/tcp.linux.out")
  got=$(tr -d '\r' <"$work/vbs-tcp.out" | sed -n "s/^kaVGetGatewayVersionString \('.*'\)$/\1/p")
  check "$([ -n "$expected" ] && [ "$got" = "$expected" ] && echo 0 || echo 1)" \
        "VBScript read the version text $got (Linux: $expected)"
fi
if fresh_link serial; then
  w cscript //nologo 'C:\tamrik\driver.js' serial "$link_port" >"$work/js-serial.out" 2>&1
  counted_run "JScript against the simulator on COM5" "$work/js-serial.out"
fi
stop_sims

# --- the 32-bit module ----------------------------------------------------------------------------
# TAMRIK_SKIP_WINE32=1 leaves the 32-bit module untested (and setup-windows.sh leaves the i386
# architecture alone).
if [ "${TAMRIK_SKIP_WINE32:-0}" != 1 ] && [ "$have32" = 1 ] && [ -d "$WINEPREFIX/drive_c/windows/syswow64" ] &&
   { [ -e /usr/lib/wine/wine ] || [ -d /usr/lib/i386-linux-gnu/wine ]; }; then
  dir32=$WINEPREFIX/drive_c/tamrik32
  mkdir -p "$dir32"
  cp "$dll32" "$client32" "$dir32/"
  configure "$dir32" 0
  w 'C:\windows\syswow64\regsvr32.exe' /s 'C:\tamrik32\tamrik.dll' >"$work/regsvr32-32.log" 2>&1
  check $? "32-bit regsvr32 tamrik.dll"
  w "C:\\tamrik32\\tamrik-client.exe" typelib 'C:\tamrik32\tamrik.dll' >"$work/typelib32.out" 2>&1
  counted_run "32-bit type library" "$work/typelib32.out"
  w "C:\\tamrik32\\tamrik-client.exe" server >"$work/server32.out" 2>&1
  counted_run "32-bit server" "$work/server32.out"
  for way in vtable dispatch; do
    if fresh_link tcp; then
      w "C:\\tamrik32\\tamrik-client.exe" scenario "$way" tcp "$link_port" >"$work/tcp32.$way.out" 2>&1
      if diff <(dispatch_view <"$work/tcp.linux.out") <(dispatch_view <"$work/tcp32.$way.out") >/dev/null; then
        pass "32-bit: $way results against the simulator equal the Linux results"
      else
        fail "32-bit: $way results against the simulator equal the Linux results"
      fi
    fi
  done
  stop_sims
  w 'C:\windows\syswow64\regsvr32.exe' /s /u 'C:\tamrik32\tamrik.dll' >>"$work/regsvr32-32.log" 2>&1
  check $? "32-bit regsvr32 /u tamrik.dll"
else
  skip "32-bit module under wine: wine32 (i386) is not installed or TAMRIK_SKIP_WINE32=1"
fi

# --- unregistration ------------------------------------------------------------------------------
w regsvr32 /s /u 'C:\tamrik\tamrik.dll' >>"$work/regsvr32.log" 2>&1
check $? "regsvr32 /u tamrik.dll"
check_unregistered
check $? "registry after regsvr32 /u: ProgIDs, class key and type library gone, HKCR\\CLSID kept"
w regsvr32 /s /u 'C:\tamrik\tamrik.dll' >>"$work/regsvr32.log" 2>&1
check $? "regsvr32 /u a second time"

stop_sims
finish

#!/usr/bin/env bash
# The log reader, one row per log: small verbose logs made here in the forms msiexec writes them (Wine's:
# ANSI, the level marks formatted away; Windows': UTF-16 LE with its byte-order mark, CRLF, deferred actions
# without start and end lines), the exit code and exactly the output expected.
#   log-read.sh WORK_DIR   (QC_WINEPREFIX, QC_BIN_DIR as CTest sets them)
set -uo pipefail
work=$1
rm -rf "$work" && mkdir -p "$work" && work=$(realpath "$work")
export WINEPREFIX=$QC_WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
failures=0
windows_path() { printf 'Z:%s' "${1//\//\\}"; }
fail() { failures=$((failures + 1)) && echo "FAIL  $*"; }

# row NAME EXIT EXPECTED: reads WORK_DIR/NAME.
row() {
    local output code
    output=$(wine "$QC_BIN_DIR/QcLogRead.exe" "$(windows_path "$work/$1")" 2>&1 </dev/null | tr -d '\r')
    code=${PIPESTATUS[0]}
    if [ "$code" = "$2" ] && [ "$output" = "$3" ]; then
        echo "ok    $1 -> $code"
    else
        fail "$1 -> $code (expected $2):" && diff <(echo "$3") <(echo "$output") | sed 's/^/      /'
    fi
}
lib='24.11.2026 18:48:55 PID(0x1B8) TID(0x1C4) '

# Wine's log, in Windows-1252: "ü" is one byte.
printf '%s\n' '=== Logging started: 11/24/2026  6:48:54 ===' 'Action 6:48:54: INSTALL. ' \
    'Action start 6:48:54: INSTALL.' 'Action 6:48:55: QcGetFileVersion. ' 'Action start 6:48:55: QcGetFileVersion.' \
    "${lib}Workbench (127) Processing custom action: GetFileVersion." \
    'Action ended 6:48:55: QcGetFileVersion. Return value 1.' 'Action start 6:48:55: InstallFinalize.' \
    'Action 6:48:56: QcServiceRestart. ' 'Action start 6:48:56: QcServiceRestart.' \
    "${lib}Workbench (61) Argument = M$(printf '\xfc')ller." "${lib} Daemon (45) OpenService failed." \
    'Action ended 6:48:56: QcServiceRestart. Return value 0.' 'Action ended 6:48:56: InstallFinalize. Return value 0.' \
    'Action ended 6:48:56: INSTALL. Return value 0.' 'Property(S): ProductName = Qc' >"$work/wine.log"
row wine.log 2 "INSTALL: failed (Return value 0)
QcGetFileVersion: success (Return value 1)
    18:48:55 Workbench (127) Processing custom action: GetFileVersion.
InstallFinalize: failed (Return value 0)
QcServiceRestart: failed (Return value 0)
    18:48:55 Workbench (61) Argument = Müller.
  ! 18:48:55 Daemon (45) OpenService failed.
summary (Wine's log): 4 actions, 3 failed (INSTALL, InstallFinalize, QcServiceRestart), 2 with lines of the library; 3 lines: 0 errors, 0 warnings, 1 errors or warnings"

# Windows' log, UTF-16 LE: a deferred action runs in the script of InstallFinalize.
{
    printf '\xff\xfe'
    printf '%s\r\n' '=== Verbose logging started: 24.11.2026  18:48:54  Build type: SHIP UNICODE 5.00.10011.00 ===' \
        'Action start 18:48:54: INSTALL.' 'Action start 18:48:55: QcGetDomain.' \
        'MSI (s) (A8:C0) [18:48:55:010]: Invoking remote custom action. DLL: C:\Windows\Installer\MSI1.tmp, Entrypoint: GetDomain' \
        "${lib}Workbench (127) Processing custom action: GetDomain." \
        "${lib}[WARNING] WmiClassObject (36) Get for property 'PartOfDomain' failed." \
        'Action ended 18:48:55: QcGetDomain. Return value 1.' 'Action start 18:48:56: InstallFinalize.' \
        'MSI (s) (A8:B4) [18:48:56:000]: Executing op: ActionStart(Name=QcServiceStop,,)' 'Action 18:48:56: QcServiceStop.' \
        "${lib}Workbench (61) Argument[SERVICENAME] = Spooler." "${lib}[ERROR] Daemon (45) OpenService failed." \
        'CustomAction QcServiceStop returned actual error code 1603 (note this may not be 100% accurate if translation happened inside sandbox)' \
        'Action 18:48:57: Rollback. Rolling back action:' 'Action ended 18:48:57: InstallFinalize. Return value 3.' \
        'Action ended 18:48:57: INSTALL. Return value 3.' | iconv -f UTF-8 -t UTF-16LE
} >"$work/windows.log"
row windows.log 2 "INSTALL: failed (Return value 3)
QcGetDomain: success (Return value 1)
    18:48:55 Workbench (127) Processing custom action: GetDomain.
  W 18:48:55 WmiClassObject (36) Get for property 'PartOfDomain' failed.
InstallFinalize: failed (Return value 3)
QcServiceStop: failed (error 1603)
    18:48:55 Workbench (61) Argument[SERVICENAME] = Spooler.
  E 18:48:55 Daemon (45) OpenService failed.
summary (Windows' log): 5 actions, 3 failed (INSTALL, InstallFinalize, QcServiceStop), 2 with lines of the library; 4 lines: 1 errors, 1 warnings"

# A clean install whose one library line has no level mark left: a warning at most.
printf '%s\n' 'Action start 6:48:54: INSTALL.' 'Action start 6:48:55: QcGetDomain.' "${lib} WmiClassObject (36) Get failed." \
    'Action ended 6:48:55: QcGetDomain. Return value 1.' 'Action ended 6:48:56: INSTALL. Return value 1.' >"$work/clean.log"
row clean.log 1 "QcGetDomain: success (Return value 1)
  ! 18:48:55 WmiClassObject (36) Get failed.
summary (Wine's log): 2 actions, 0 failed, 1 with lines of the library; 1 lines: 0 errors, 0 warnings, 1 errors or warnings"
row missing.log 3 "QcLogRead: cannot read $(windows_path "$work/missing.log")"

[ $failures -eq 0 ] && echo "PASSED" || echo "FAILED: $failures cases"
exit $((failures != 0))

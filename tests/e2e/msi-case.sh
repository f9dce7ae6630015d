#!/usr/bin/env bash
# Runs one end-to-end case: builds installer packages with wixl, installs them with Wine's msiexec
# and checks what the installation did.   msi-case.sh CASE_FILE WORK_DIR [ARGS...]
# CASE_FILE is a bash script of the commands below (see README.md), ARGS its positional parameters.
# WORK_DIR, emptied first, receives the packages, the msiexec command files and the verbose logs.
# Environment: QC_WINEPREFIX (the prefix), QC_BIN_DIR (holds the DLL), QC_PROJECT_VERSION (default:
# the build's CMake cache beside QC_BIN_DIR), QC_E2E_QUIET=1 (print only the failed checks).
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: $0 CASE_FILE WORK_DIR [ARGS...]" >&2; exit 2; }
e2e_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
authoring_dir=$(cd "$e2e_dir/../../authoring" && pwd)
case_file=$(realpath "$1") work_dir=$2
shift 2
: "${QC_WINEPREFIX:?QC_WINEPREFIX must name the Wine prefix}" "${QC_BIN_DIR:?QC_BIN_DIR must name the build folder}"
dll="$QC_BIN_DIR/Quillcast.Common.System.dll"
[ -f "$dll" ] || { echo "msi-case: $dll is missing; build the project first" >&2; exit 2; }
: "${QC_PROJECT_VERSION:=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$QC_BIN_DIR/../CMakeCache.txt" 2>/dev/null)}"
export QC_PROJECT_VERSION WINEPREFIX="$QC_WINEPREFIX" WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=

# A stale log must never satisfy a check: start empty, but only ever empty a folder this script made.
if [ -n "$(ls -A "$work_dir" 2>/dev/null)" ] && [ ! -f "$work_dir/.msi-case" ]; then
    echo "msi-case: $work_dir is not empty and was not made by msi-case.sh" >&2
    exit 2
fi
rm -rf "$work_dir" && mkdir -p "$work_dir" && work_dir=$(realpath "$work_dir") && touch "$work_dir/.msi-case"

checks=0 failures=0 runs=0 current_msi="" current_log="" logs=() background=() undo=()
wine_run() { timeout 120 wine "$@" </dev/null; }       # a Windows program in the prefix
windows_path() { printf 'Z:%s' "${1//\//\\}"; }       # the prefix maps Z: to the Unix root
say() { [ "${QC_E2E_QUIET:-0}" = 1 ] || echo "$@"; }
fail() { checks=$((checks + 1)) failures=$((failures + 1)); echo "  FAIL  $*"; }
outcome() { # STATUS OK_TEXT FAIL_TEXT
    if [ "$1" = 0 ]; then checks=$((checks + 1)) && say "  ok    $2"; else fail "$3"; fi
}
# with ARRAY ACTION [KEY=VALUE]... [ACTION [KEY=VALUE]...]...: ARRAY becomes the msiexec properties
# that switch each ACTION on (QC_<ACTION>=1) and give its inputs (QC_<ACTION>_<KEY>=VALUE).
with() {
    local -n properties=$1
    local word action
    properties=()
    for word in "${@:2}"; do
        if [[ "$word" == *=* ]]; then word="_$word"; else action=$word word="=1"; fi
        properties+=("QC_$action$word")
    done
}
# on_exit PROGRAM [ARGS...]: the case's end runs it in the prefix (last added, first run).
on_exit() { undo=("$(printf '%q ' "$@")" "${undo[@]}"); }
product_code() { msiinfo export "$1" Property | tr -d '\r' | awk -F '\t' '$1 == "ProductCode" { print $2 }'; }

# log_lines [ACTION]: the current log without CRs; with ACTION only its last block
# between "Action start ...: ACTION." and "Action ended ...: ACTION." (status 3 without one).
log_lines() {
    [ -n "$current_log" ] || { echo "msi-case: a log check needs an install or uninstall before it" >&2; exit 2; }
    tr -d '\r' <"$current_log" | awk -v a="${1:-}" '
        a == "" { print; next }
        index($0, "Action start ") == 1 && substr($0, length($0) - length(a) - 2) == ": " a "." { n = 0; inside = 1; next }
        inside && index($0, "Action ended ") == 1 && index($0, ": " a ". Return value ") { inside = 0; found = 1; last = n; for (i = 1; i <= n; i++) keep[i] = buf[i]; next }
        inside { buf[++n] = $0 }
        END { if (a == "") exit 0; if (!found) exit 3; for (i = 1; i <= last; i++) print keep[i] }'
}
dll_prefix='^[0-9]{2}\.[0-9]{2}\.[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} PID\(0x[0-9A-F]+\) TID\(0x[0-9A-F]+\) '
# The DLL's lines without date, process and thread, the source line number masked: "Daemon (#) ...".
dll_bodies() {
    log_lines "$@" | { grep -E "$dll_prefix" || true; } |
        sed -E "s/$dll_prefix//; s/^((\[(ERROR|WARNING)\] | )?[A-Za-z0-9_]+ \()[0-9]+\) /\1#) /"
}

# expect_dll_line [--in ACTION] TEXT: a line of the DLL (in ACTION's last block) reads TEXT,
# "*" matching any characters; expect_no_dll_line: none does.
dll_line_check() {
    local want=$1 scope="" where="" lines hit found=no pattern
    shift
    if [ "$1" = --in ]; then scope=$2 where=" in action $2" && shift 2; fi
    pattern="^$(printf '%s' "$1" | sed -e 's/[][\.^$+?(){}|/]/\\&/g' -e 's/\*/.*/g')\$"
    [ -z "$scope" ] || log_lines "$scope" >/dev/null || { fail "action $scope did not run"; return; }
    # Held in a variable: grep -q's early exit would fail the producer under pipefail.
    lines=$(dll_bodies ${scope:+"$scope"})
    hit=$(grep -m1 -E -e "$pattern" <<<"$lines") && found=yes
    outcome "$([ $found = "$want" ]; echo $?)" "${found/yes/a} line of the DLL$where reads: $1" \
        "${found/yes/a} line of the DLL$where reads: $1${hit:+ ($hit)}"
}
expect_dll_line() { dll_line_check yes "$@"; }
expect_no_dll_line() { dll_line_check no "$@"; }

# reg_query KEY [NAME]: prints the value's data as `reg query` shows it; status 1 when the key
# or value is absent, 2 when `reg` failed otherwise (a broken query must not pass an absence check).
reg_query() {
    local out
    if ! out=$(wine_run reg query "$1" ${2:+/v "$2"} 2>&1); then
        [[ "$out" == *"Unable to find"* ]] && return 1
        echo "${out//$'\r'/}" && return 2
    fi
    [ $# -lt 2 ] || tr -d '\r' <<<"$out" | awk -F '    ' -v name="$2" '$2 == name { print $4; found = 1; exit }
        END { exit !found }'
}
expect_reg() {
    local data status=0
    data=$(reg_query "$1" "$2") || status=$?
    outcome "$([ $status = 0 ] && [ "$data" = "$3" ]; echo $?)" "registry $1 [$2] = '$3'" \
        "registry $1 [$2] = '$data' (status $status), expected '$3'"
}
expect_no_reg() {
    local out status=0
    out=$(reg_query "$@") || status=$?
    outcome "$([ $status = 1 ]; echo $?)" "no registry $*" "registry $* $([ $status = 0 ] && echo exists || echo "query failed: $out")"
}
product_key() { echo "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\$(product_code "$current_msi")"; }
# expect_removed KEY: the current package's product and its key HKLM\Software\Quillcast\KEY are gone.
expect_removed() {
    expect_no_reg "HKLM\\Software\\Quillcast\\$1"
    expect_no_reg "$(product_key)"
}

# machine_key 32|64 KEY [NAME DATA]: a key (and a string value) the case puts on the
# machine in that registry view; the case's end deletes the key.
machine_key() {
    wine_run reg add "$2" ${3:+/v "$3" /d "$4"} /reg:"$1" /f >/dev/null
    on_exit reg delete "$2" /reg:"$1" /f
}
# The ICA client's list of virtual drivers, in the 32-bit view where the client keeps it.
ica='HKLM\SOFTWARE\Citrix\ICA Client\Engine\Configuration\Advanced\Modules\ICA 3.0'
ica32='HKLM\SOFTWARE\Wow6432Node\Citrix\ICA Client\Engine\Configuration\Advanced\Modules\ICA 3.0'

# package NAME [--as FILE] [--set NAME=VALUE]... [-D VAR=VALUE]...: builds packages/NAME.wxs into WORK_DIR/FILE.msi
# (FILE defaults to NAME), the current package. --set adds a Property row: Wine's msiexec drops the mixed-case
# properties of its command line, which the immediate actions read.
package() {
    local name=$1 file=$1 sets=() set relative
    shift
    while [[ "${1:-}" == --* ]]; do
        if [ "$1" = --as ]; then file=$2; else sets+=("$2"); fi
        shift 2
    done
    current_msi="$work_dir/$file.msi"
    relative=$(realpath --relative-to="$work_dir" "$dll")
    if ! (cd "$work_dir" && wixl -a x64 -I "$authoring_dir" -D "QcCustomActionDll=$relative" "$@" \
        -o "$current_msi" "$e2e_dir/packages/$name.wxs" && "$authoring_dir/fix-rollback-types.sh" "$current_msi" &&
        for set in "${sets[@]}"; do
            msibuild "$current_msi" -q \
                "INSERT INTO \`Property\` (\`Property\`, \`Value\`) VALUES ('${set%%=*}', '${set#*=}')" || exit 1
        done) >"$work_dir/$file.wixl.txt" 2>&1; then
        cat "$work_dir/$file.wixl.txt"
        echo "msi-case: could not build packages/$name.wxs" >&2
        exit 2
    fi
    say "package: $file.msi (product $(product_code "$current_msi"))"
}

# msiexec_run /i|/x LABEL [--exit CODE] [PUBLIC_NAME=VALUE]...: runs msiexec through
# cmd, whose %ERRORLEVEL% holds the full result code (wine's exit status keeps its low byte).
msiexec_run() {
    local mode=$1 label=$2 expected=0 line output code base property value
    shift 2
    if [ "${1:-}" = --exit ]; then expected=$2 && shift 2; fi
    runs=$((runs + 1)) base="$work_dir/$runs-$label-$(basename "$current_msi" .msi)"
    current_log="$base.log" logs+=("$base.log")
    line="msiexec $mode \"$(windows_path "$current_msi")\" /qn /l*v \"$(windows_path "$current_log")\""
    for property in "$@"; do
        # Wine's msiexec drops private (mixed-case) properties of the command line.
        [[ "$property" =~ ^[A-Z_][A-Z0-9_.]*= && "$property" != *[\"$'\n'$'\r']* ]] ||
            { echo "msi-case: '$property' is not PUBLIC_NAME=VALUE without quotes or line breaks" >&2; exit 2; }
        value=${property#*=}
        line+=" ${property%%=*}=\"${value//%/%%}\""
    done
    printf '@echo off\r\n%s\r\necho QC_E2E_EXIT=%%ERRORLEVEL%%\r\n' "$line" >"$base.cmd"
    # Into a file, not a pipe: a program the install started and left running (the shell's
    # actions) inherits the output and would hold a pipe open.
    wine_run cmd /c "$(windows_path "$base.cmd")" >"$base.out" 2>&1 || true
    output=$(cat "$base.out")
    code=$(tr -d '\r' <<<"$output" | sed -n 's/^QC_E2E_EXIT=\(-\{0,1\}[0-9]\{1,\}\)$/\1/p' | tail -n 1)
    outcome "$([ "$code" = "$expected" ]; echo $?)" "$label: msiexec $mode $(basename "$current_msi") $* -> $code" \
        "$label exited with '${code:-no result (timed out?)}', expected $expected: $output"
    [ -f "$current_log" ] || { fail "msiexec wrote no log $current_log"; current_log=/dev/null; }
}
install() { msiexec_run /i install "$@"; }
uninstall() { msiexec_run /x uninstall "$@"; }

# expect_lines WHAT ACTUAL [LINE...]: ACTUAL (text) holds exactly these lines, in this order.
expect_lines() {
    local expected
    expected=$([ $# -lt 3 ] || printf '%s\n' "${@:3}")
    outcome "$([ "$2" = "$expected" ]; echo $?)" "$1: $(paste -sd, - <<<"$2")" \
        "$1: expected '$(paste -sd, - <<<"$expected")', found '$(paste -sd, - <<<"$2")'"
}
# expect_arguments: for each line "ACTION|VALUE|VALUE..." of stdin, the "Argument[...]" lines of
# ACTION's last run, in order: the values of the action's row as its CustomActionData gave them,
# NOT DEFINED where the include padded a pair that was left out.
expect_arguments() {
    local action values list
    while IFS='|' read -r action values; do
        IFS='|' read -r -a list <<<"$values"
        expect_lines "arguments of $action" \
            "$(dll_bodies "$action" | sed -n -E 's/^ ?Workbench \(#\) Argument = (.*)\.$/\1/p')" "${list[@]}"
    done
}

# expect_include_authoring: the current package's rows of the include keep its rules. The package
# checker finds nothing (each deferred action has its setter before it, every pair given or padded),
# and each undo QcUndo<X> is a rollback action (in-script and rollback bits) sequenced before <X>
# under <X>'s condition: Wine runs every scheduled undo wherever it is, so only the rows tell.
expect_include_authoring() {
    local findings sequence problems
    findings=$(wine_run "$QC_BIN_DIR/QcPackageCheck.exe" "$(windows_path "$current_msi")" 2>&1 | tr -d '\r' |
        grep -E '^(error|warning) ' || true)
    outcome "$([ -z "$findings" ]; echo $?)" "the package checker finds nothing" "the package checker finds: $findings"
    sequence=$(msiinfo export "$current_msi" InstallExecuteSequence | tr -d '\r' | LC_ALL=C sort)
    problems=$(LC_ALL=C join -t $'\t' <(sed -n 's/^QcUndo/Qc/p' <<<"$sequence" | LC_ALL=C sort) - <<<"$sequence" |
        awk -F'\t' '$3 >= $5 || $2 != $4 { print "QcUndo" substr($1, 3) " is not before " $1 " under its condition" }'
        msiinfo export "$current_msi" CustomAction | tr -d '\r' |
        awk -F'\t' '$1 ~ /^QcUndo/ && (int($2 / 256) % 2 == 0 || int($2 / 1024) % 2 == 0) { print $1 " has type " $2 }')
    outcome "$([ -z "$problems" ]; echo $?)" "the undo rows keep their rules" \
        "the undo rows break their rules: $(paste -sd';' - <<<"$problems")"
}

# add_test_service NAME [SERVICE ARGUMENTS...]: the test service (tests/services/QcTestService.cpp),
# demand-start, started; the case's end deletes it.
add_test_service() {
    wine_run sc delete "$1" >/dev/null 2>&1 || true
    wine_run sc create "$1" binPath= "$(windows_path "$QC_BIN_DIR/QcTestService.exe") $*" start= demand >/dev/null
    on_exit sc delete "$1"
    on_exit sc stop "$1"
    wine_run sc start "$1" >/dev/null
}
# expect_service_state NAME STATE: as `sc query` reports it (RUNNING, STOPPED, ...).
expect_service_state() {
    local state
    state=$(wine_run sc query "$1" 2>/dev/null | tr -d '\r' | sed -n 's/^ *STATE *: *[0-9]* *//p')
    outcome "$([ "$state" = "$2" ]; echo $?)" "service $1 is $2" "service $1 is '$state', not $2"
}

# use_test_firewall [SWITCH...]: registers the test firewall (tests/firewall/QcTestFirewall.cpp) with empty
# state and the named DWORD switches set to 1; the case's end unregisters it (Wine's stub returns).
test_firewall_key='HKLM\Software\QuillcastTest\Firewall'
use_test_firewall() {
    local switch firewall
    firewall="$(windows_path "$QC_BIN_DIR/QcTestFirewall.dll")"
    wine_run reg delete "$test_firewall_key" /f >/dev/null 2>&1 || true
    wine_run regsvr32 /s "$firewall"
    on_exit reg delete "$test_firewall_key" /f
    on_exit regsvr32 /u /s "$firewall"
    for switch in "$@"; do wine_run reg add "$test_firewall_key" /v "$switch" /t REG_DWORD /d 1 /f >/dev/null; done
}

# end_each_start PROGRAM COUNT: in the background, ends PROGRAM (a copy of the project's test
# program, which notes each start in PROGRAM.record) at each of its first COUNT starts: it stands
# in for a program that ends once its work is done, where an action waits for its end.
end_each_start() {
    (
        for ((ended = 0, tries = 0; ended < $2 && tries < 1200; tries++)); do
            if [ "$(cat "$1.record" 2>/dev/null | wc -l)" -gt $ended ]; then
                sleep 0.3 # the action checks that the program runs right after starting it, before the record
                wine_run taskkill /f /im "$(basename "$1")" >/dev/null 2>&1 || true
                ended=$((ended + 1))
            fi
            sleep 0.1
        done
    ) &
    background+=($!)
}

# certificate STORE SUBJECT NAME [ISSUER_NAME]: an OpenSSL certificate WORK_DIR/NAME.der (with
# NAME.pem and NAME.key), self-signed or issued by ISSUER_NAME's, put into the machine's STORE
# with the test tool ("-": into none). expect_store STORE ERE LINE...: exactly these
# "subject|issuer" lines (sorted) of the store match ERE.
certificate_tool=$(windows_path "$QC_BIN_DIR/QcCertStoreTool.exe")
certificate() {
    local file="$work_dir/$3" issuer="$work_dir/${4:-}"
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$file.key" -subj "/CN=$2" -days 30 \
        ${4:+-CA "$issuer.pem" -CAkey "$issuer.key"} -out "$file.pem" 2>/dev/null
    openssl x509 -in "$file.pem" -outform DER -out "$file.der"
    [ "$1" = - ] || wine_run "$certificate_tool" add "$1" "$(windows_path "$file.der")"
}
expect_store() {
    expect_lines "$1 holds" "$(wine_run "$certificate_tool" list "$1" | tr -d '\r' | { grep -E "$2" || true; } | sort)" "${@:3}"
}

finish() {
    local status=$? command job log
    trap - EXIT
    for job in "${background[@]}"; do kill "$job" 2>/dev/null || true; done
    # A case that stopped early must still leave the prefix as it found it.
    # Only a registered product: Wine's msiexec /x of one that is not installed runs the package's
    # removal sequence, custom actions included, and returns 0.
    for current_msi in "$work_dir"/*.msi; do
        [ -f "$current_msi" ] && reg_query "$(product_key)" >/dev/null || continue
        echo "cleanup: msiexec /x $(basename "$current_msi")"
        wine_run msiexec /x "$(windows_path "$current_msi")" /qn >/dev/null 2>&1 || true
    done
    for command in "${undo[@]}"; do eval "wine_run $command" >/dev/null 2>&1 || true; done
    # Each run as the log reader shows it (its actions, msiexec's verdict, the DLL's lines): what scripts/sample.sh
    # shows, and what to read first when a check failed.
    for log in "${logs[@]}"; do wine_run "$QC_BIN_DIR/QcLogRead.exe" "$(windows_path "$log")" | tr -d '\r' || true; done
    if [ $status -eq 0 ] && [ $failures -eq 0 ]; then
        echo "PASSED: $checks checks ($(basename "$case_file"))"
        exit 0
    fi
    echo "FAILED: $failures of $checks checks, status $status ($(basename "$case_file"), logs in $work_dir)"
    exit 1
}
trap finish EXIT
# Wine ends the prefix, and every service in it without a stop, seconds after the last process that is not a
# service exits: on a busy machine a service would die between two steps. A held copy of the test program
# keeps the prefix up until the case ends.
cp "$QC_BIN_DIR/QcTestProgram.exe" "$work_dir/QcE2eKeeper.exe"
wine "$work_dir/QcE2eKeeper.exe" --hold --release-event=QcE2eKeeperNeverReleased </dev/null >/dev/null 2>&1 &
background+=($!)

# shellcheck source=/dev/null
source "$case_file"

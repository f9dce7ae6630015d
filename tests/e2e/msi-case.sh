#!/usr/bin/env bash
# Runs one end-to-end case: builds installer packages with wixl, installs them
# with Wine's msiexec and checks what the installation did.
#   msi-case.sh CASE_FILE WORK_DIR [ARGS...]
# CASE_FILE is a bash script made of the commands below (see README.md); ARGS
# become its positional parameters. WORK_DIR receives the packages, the
# msiexec command files and the verbose logs, and is emptied first.
# Environment: QC_WINEPREFIX (the prefix), QC_BIN_DIR (holds the DLL),
# QC_PROJECT_VERSION (default: the build's CMake cache beside QC_BIN_DIR),
# QC_E2E_QUIET=1 (print failed checks only, not the passed ones).
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

checks=0 failures=0 runs=0 current_msi="" current_log="" logs=() installed=() test_services=() test_firewall=""
background=()
wine_run() { timeout 120 wine "$@" </dev/null; }       # a Windows program in the prefix
windows_path() { printf 'Z:%s' "${1//\//\\}"; }       # the prefix maps Z: to the Unix root
say() { [ "${QC_E2E_QUIET:-0}" = 1 ] || echo "$@"; }
pass() { checks=$((checks + 1)); say "  ok    $*"; }
fail() { checks=$((checks + 1)); failures=$((failures + 1)); echo "  FAIL  $*"; }
outcome() { if [ "$1" = 0 ]; then pass "$2"; else fail "$3"; fi; }  # STATUS OK_TEXT FAIL_TEXT
product_code() { msiinfo export "$1" Property | tr -d '\r' | awk -F '\t' '$1 == "ProductCode" { print $2 }'; }
product_key() { echo "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\$(product_code "$current_msi")"; }

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
dll_lines_raw() { log_lines "$@" | grep -E "$dll_prefix" || true; }
# The DLL's lines without date, process and thread, the source line number masked: "Daemon (#) ...".
dll_bodies() { dll_lines_raw "$@" | sed -E "s/$dll_prefix//; s/^((\[(ERROR|WARNING)\] | )?[A-Za-z0-9_]+ \()[0-9]+\) /\1#) /"; }

# line_check yes|no log|dll [--in ACTION] PATTERN: whether a line in scope matches
# PATTERN (an ERE for the log; for the DLL's bodies a text with "*" as wildcard).
line_check() {
    local want=$1 what=$2 scope="" lines hit noun="line" where="in the log" pattern
    shift 2
    if [ "$1" = --in ]; then scope=$2 where="in action $2" && shift 2; fi
    pattern=$1
    if [ "$what" = dll ]; then
        noun="DLL line" pattern="^$(printf '%s' "$1" | sed -e 's/[][\.^$+?(){}|/]/\\&/g' -e 's/\*/.*/g')\$"
    fi
    if [ -n "$scope" ] && ! log_lines "$scope" >/dev/null; then
        fail "action $scope did not run"
        return
    fi
    # Held in a variable: grep -q's early exit would fail the producer under pipefail.
    if [ "$what" = dll ]; then lines=$(dll_bodies ${scope:+"$scope"}); else lines=$(log_lines ${scope:+"$scope"}); fi
    if hit=$(grep -E -e "$pattern" <<<"$lines"); then
        outcome "$([ "$want" = yes ]; echo $?)" "a $noun $where matches: $1" "a $noun $where matches $1: ${hit%%$'\n'*}"
    else
        outcome "$([ "$want" = no ]; echo $?)" "no $noun $where matches: $1" "no $noun $where matches: $1"
    fi
}
expect_log() { line_check yes log "$@"; }
expect_no_log() { line_check no log "$@"; }
expect_dll_line() { line_check yes dll "$@"; }
expect_no_dll_line() { line_check no dll "$@"; }

# reg_query KEY [NAME]: prints the value's data as `reg query` shows it (or the
# key); status 1 when absent, 2 when `reg` failed otherwise (a broken query must
# not pass an absence check).
reg_query() {
    local args=() out name type
    if [ $# -ge 2 ]; then if [ -n "$2" ]; then args=(/v "$2"); else args=(/ve); fi; fi
    if ! out=$(wine_run reg query "$1" "${args[@]}" 2>&1); then
        [[ "$out" == *"Unable to find"* ]] && return 1
        echo "${out//$'\r'/}"
        return 2
    fi
    [ $# -ge 2 ] || return 0
    name=${2:-(Default)}
    out=$(grep -F -e "    $name    " <<<"${out//$'\r'/}" | head -n 1) || return 1
    out=${out#"    $name    "} type=${out%%    *}
    out=${out#"$type"}
    printf '%s' "${out#    }"
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
expect_product_installed() { outcome "$(reg_query "$(product_key)" >/dev/null; echo $?)" "product is registered" "product is not registered"; }
expect_product_absent() { expect_no_reg "$(product_key)"; }
file_state() { local unix; unix=$(timeout 120 winepath -u "$1" 2>/dev/null) && [ -n "$unix" ] && [ -e "$unix" ]; }
expect_file() { outcome "$(file_state "$1"; echo $?)" "file $1 exists" "file $1 is missing"; }
expect_no_file() { outcome "$(! file_state "$1"; echo $?)" "no file $1" "file $1 exists"; }

property_value() {
    log_lines | awk -v p="Property(S): $1 = " 'index($0, p) == 1 { v = substr($0, length(p) + 1); f = 1 } END { if (!f) exit 1; print v }'
}
expect_property() {
    local value
    value=$(property_value "$1") || value="(not set)"
    outcome "$([ "$value" = "$2" ]; echo $?)" "property $1 = $2" "property $1 = $value, expected $2"
}
show_property() { echo "$1 = $(property_value "$1" || echo '(not set)')"; }
# show_action_table: one table over the case's runs so far: each custom action
# that wrote lines of the DLL, in the order the actions ended, with msiexec's
# verdict and the lines (without date, process and thread). Wine logs success for
# an action marked Return="ignore" whatever it returned.
show_action_table() {
    local log
    printf '%-10s %-30s %-8s %s\n' Run Action Result "Lines it logged"
    for log in "${logs[@]}"; do
        tr -d '\r' <"$log" | awk -v run="$(basename "$log" .log | cut -d- -f2)" '
            function named(s) { sub(/^Action (start|ended) [0-9:]+: /, "", s); sub(/\. Return value .*$|\.$/, "", s); return s }
            /^Action start [0-9:]+: / { stack[++depth] = named($0); count[depth] = 0; next }
            /^Action ended [0-9:]+: / {
                if (depth == 0) next
                value = $0
                sub(/.*Return value /, "", value)
                sub(/\.$/, "", value)
                result = value == "1" ? "success" : value == "0" ? "failure" : "value " value
                for (i = 1; i <= count[depth]; i++)
                    printf "%-10s %-30s %-8s %s\n", i == 1 ? run : "", i == 1 ? stack[depth] : "", i == 1 ? result : "", line[depth, i]
                depth--
                next
            }
            depth > 0 && match($0, /^[0-9][0-9]\.[0-9][0-9]\.[0-9][0-9][0-9][0-9] [0-9:]+ PID\(0x[0-9A-F]+\) TID\(0x[0-9A-F]+\) /) {
                line[depth, ++count[depth]] = substr($0, RLENGTH + 1)
            }'
    done
}

# package NAME [--as FILE] [-D VAR=VALUE]...: builds packages/NAME.wxs into
# WORK_DIR/FILE.msi (FILE defaults to NAME) and makes it the current package.
# $(var.QcCustomActionDll) (and the older $(var.CustomActionDll)) name the DLL,
# the include authoring/Quillcast.Common.System.wxi is found by its bare name,
# and the rollback actions get the type wixl leaves out (fix-rollback-types.sh).
package() {
    local name=$1 file=$1 relative
    shift
    if [ "${1:-}" = --as ]; then file=$2 && shift 2; fi
    current_msi="$work_dir/$file.msi"
    relative=$(realpath --relative-to="$work_dir" "$dll")
    if ! (cd "$work_dir" && wixl -a x64 -I "$authoring_dir" -D "QcCustomActionDll=$relative" \
        -D "CustomActionDll=$relative" -I "$e2e_dir/packages" "$@" -o "$current_msi" "$e2e_dir/packages/$name.wxs" &&
        "$authoring_dir/fix-rollback-types.sh" "$current_msi") >"$work_dir/$file.wixl.txt" 2>&1; then
        cat "$work_dir/$file.wixl.txt"
        echo "msi-case: could not build packages/$name.wxs" >&2
        exit 2
    fi
    say "package: $file.msi (product $(product_code "$current_msi"))"
}
use_package() { current_msi="$work_dir/$1.msi"; }   # FILE: an earlier package becomes the current one

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
        if [[ ! "$property" =~ ^[A-Z_][A-Z0-9_.]*= || "$property" == *[\"$'\n'$'\r']* ]]; then
            echo "msi-case: '$property' is not PUBLIC_NAME=VALUE without quotes or line breaks" >&2
            exit 2
        fi
        value=${property#*=}
        line+=" ${property%%=*}=\"${value//%/%%}\""
    done
    printf '@echo off\r\n%s\r\necho QC_E2E_EXIT=%%ERRORLEVEL%%\r\n' "$line" >"$base.cmd"
    # Into a file, not a pipe: a program the install started and left running (the shell's
    # actions) inherits the output and would hold a pipe open.
    wine_run cmd /c "$(windows_path "$base.cmd")" >"$base.out" 2>&1 || true
    output=$(cat "$base.out")
    code=$(tr -d '\r' <<<"$output" | sed -n 's/^QC_E2E_EXIT=\(-\{0,1\}[0-9]\{1,\}\)$/\1/p' | tail -n 1)
    say "$label: msiexec $mode $(basename "$current_msi")${*:+ $*} -> ${code:-no result}"
    outcome "$([ "$code" = "$expected" ]; echo $?)" "$label exited with $code" \
        "$label exited with '${code:-no result (timed out?)}', expected $expected: $output"
    [ -f "$current_log" ] || { fail "msiexec wrote no log $current_log"; current_log=/dev/null; }
    if [[ "$code" == 0 || "$code" == 3010 ]]; then
        local kept=() msi
        for msi in "${installed[@]}"; do [ "$msi" = "$current_msi" ] || kept+=("$msi"); done
        installed=("${kept[@]}")
        [ "$mode" = /x ] || installed+=("$current_msi")
    fi
}
install() { msiexec_run /i install "$@"; }
uninstall() { msiexec_run /x uninstall "$@"; }
# repair: the installed product again, every file and value rewritten (Installed is set).
repair() { msiexec_run /i repair REINSTALL=ALL REINSTALLMODE=omus "$@"; }

# expect_arguments ACTION VALUE...: the "Argument[...]" lines of ACTION's last
# run, in order: the values of the action's row as its CustomActionData gave
# them, NOT DEFINED where the include padded a pair that was left out.
expect_arguments() {
    local action=$1
    shift
    expect_lines "arguments of $action" \
        "$(dll_bodies "$action" | sed -n -E 's/^ ?Workbench \(#\) Argument = (.*)\.$/\1/p')" "$@"
}

# expect_include_authoring: the current package's rows of the include keep its
# rules. A setter QcSet<X> (type 51) sets the property Qc<X> (the action's CustomActionData)
# one sequence number before Qc<X>, under the same condition, and pads every
# optional pair {|KEY=[P]} with [QcPadPair[P]]; an undo QcUndo<X> is a rollback
# action (in-script and rollback bits), calls the counterpart of <X>, runs under
# <X>'s condition and is sequenced before it; every deferred action sits
# between InstallInitialize and InstallFinalize and has its setter unless its
# row takes no CustomActionData.
expect_include_authoring() {
    local problems
    problems=$(awk -F'\t' '
        FNR == 1 { file++ }
        FNR <= 3 { next }
        file == 1 { type[$1] = $2; source[$1] = $3; target[$1] = $4 }
        file == 2 { condition[$1] = $2; sequence[$1] = $3 }
        function bit(t, b) { return int(t / b) % 2 }
        END {
            counterpart["AddIcaClient"] = "RemoveIcaClient"; counterpart["ServiceStop"] = "ServiceStart"
            counterpart["AddPortException"] = "RemovePortException"
            counterpart["AddProgramException"] = "RemoveProgramException"
            counterpart["CreateAndInstallRootCertificate"] = "UninstallRootCertificate"
            counterpart["CreateAndInstallSignedServerCertificate"] = "UninstallSignedCertificate"
            split("QcAddIcaClient QcRemoveIcaClient QcCloseAutoConnect QcUndoAddIcaClient", list, " ")
            for (i in list) noData[list[i]] = 1
            for (a in type) {
                if (a !~ /^Qc/) continue
                if (type[a] % 64 == 51) {
                    x = "Qc" substr(a, 6)
                    if (source[a] != x) print a " sets " source[a] ", not " x
                    if (!(a in sequence) || !(x in sequence) || sequence[a] != sequence[x] - 1 || condition[a] != condition[x])
                        print a " is not sequenced right before " x " under its condition"
                    rest = target[a]
                    while (match(rest, /\{\|[A-Z]+=\[[A-Z_]+\]\}/)) {
                        pair = substr(rest, RSTART, RLENGTH)
                        rest = substr(rest, RSTART + RLENGTH)
                        property = substr(pair, index(pair, "[") + 1)
                        property = substr(property, 1, index(property, "]") - 1)
                        if (index(rest, "[QcPadPair[" property "]]") != 1) print a " does not pad the pair of " property
                    }
                    continue
                }
                if (a ~ /^QcUndo/) {
                    x = "Qc" substr(a, 7)
                    if (!bit(type[a], 256) || !bit(type[a], 1024)) print a " has type " type[a] ", not a rollback type"
                    if (target[a] != counterpart[substr(a, 7)]) print a " calls " target[a]
                    if (!(a in sequence) || !(x in sequence) || sequence[a] >= sequence[x] || condition[a] != condition[x])
                        print a " is not sequenced before " x " under its condition"
                } else if (source[a] == "QuillcastCommonSystem" && target[a] != substr(a, 3)) {
                    print a " calls " target[a]
                }
                if (bit(type[a], 1024) && (!(a in sequence) || sequence[a] <= 1500 || sequence[a] >= 6600))
                    print a " is deferred but sequenced at " sequence[a]
                if (bit(type[a], 1024) && !(a in noData) && !(("QcSet" substr(a, 3)) in type)) print a " has no setter"
            }
        }' <(msiinfo export "$current_msi" CustomAction | tr -d '\r') \
           <(msiinfo export "$current_msi" InstallExecuteSequence | tr -d '\r') | sort)
    outcome "$([ -z "$problems" ]; echo $?)" "the include's rows keep its rules" \
        "the include's rows break its rules: $(paste -sd';' - <<<"$problems")"
}

# add_test_service NAME [SERVICE ARGUMENTS...]: the project's test service
# (tests/services/QcTestService.cpp), demand-start, started, deleted at the end.
add_test_service() {
    local name=$1
    shift
    wine_run sc delete "$name" >/dev/null 2>&1 || true
    wine_run sc create "$name" binPath= "$(windows_path "$QC_BIN_DIR/QcTestService.exe") $name $*" start= demand >/dev/null
    test_services+=("$name")
    wine_run sc start "$name" >/dev/null
}
# expect_service_state NAME STATE: as `sc query` reports it (RUNNING, STOPPED, ...).
expect_service_state() {
    local state
    state=$(wine_run sc query "$1" 2>/dev/null | tr -d '\r' | sed -n 's/^ *STATE *: *[0-9]* *//p')
    outcome "$([ "$state" = "$2" ]; echo $?)" "service $1 is $2" "service $1 is '$state', not $2"
}

# expect_lines WHAT ACTUAL [LINE...]: ACTUAL (text) holds exactly these lines, in this order.
expect_lines() {
    local expected
    expected=$([ $# -lt 3 ] || printf '%s\n' "${@:3}")
    outcome "$([ "$2" = "$expected" ]; echo $?)" "$1: $(paste -sd, - <<<"$2")" \
        "$1: expected '$(paste -sd, - <<<"$expected")', found '$(paste -sd, - <<<"$2")'"
}

# use_test_firewall [SWITCH...]: registers the project's test firewall
# (tests/firewall/QcTestFirewall.c) with empty state and the named DWORD
# switches set to 1; the case's end unregisters it (Wine's stub returns).
test_firewall_key='HKLM\Software\QuillcastTest\Firewall'
use_test_firewall() {
    local switch
    test_firewall="$(windows_path "$QC_BIN_DIR/QcTestFirewall.dll")"
    wine_run reg delete "$test_firewall_key" /f >/dev/null 2>&1 || true
    wine_run regsvr32 /s "$test_firewall"
    for switch in "$@"; do wine_run reg add "$test_firewall_key" /v "$switch" /t REG_DWORD /d 1 /f >/dev/null; done
}

# end_each_start PROGRAM [COUNT]: in the background, ends PROGRAM (a copy of the
# project's test program, which notes each start in PROGRAM.record) each time it
# starts, COUNT times (default 1): it stands in for a program that ends once its
# work is done, where an action waits for its end.
end_each_start() {
    local program=$1 count=${2:-1}
    (
        starts() { if [ -f "$program.record" ]; then wc -l <"$program.record"; else echo 0; fi; }
        seen=$(starts)
        for _ in $(seq 1200); do
            [ "$count" -gt 0 ] || exit 0
            if [ "$(starts)" -gt "$seen" ]; then
                # The action checks that the program runs right after starting it, before the record.
                sleep 0.3
                wine_run taskkill /f /im "$(basename "$program")" >/dev/null 2>&1 || true
                seen=$((seen + 1)) count=$((count - 1))
            fi
            sleep 0.1
        done
    ) &
    background+=($!)
}

# Certificates made by OpenSSL (DER files FILE.der, with FILE.pem and FILE.key), placed in
# the machine's stores with the test tool: make_root NAME FILE, make_leaf SUBJECT ISSUER_FILE FILE,
# place_certificate STORE FILE; expect_store STORE ERE LINE...: exactly these "subject|issuer"
# lines (sorted) of the store match ERE.
certificate_tool=$(windows_path "$QC_BIN_DIR/QcCertStoreTool.exe")
make_root() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$2.key" -subj "/CN=$1" -days 30 -out "$2.pem" 2>/dev/null
    openssl x509 -in "$2.pem" -outform DER -out "$2.der"
}
make_leaf() {
    openssl req -newkey rsa:2048 -nodes -keyout "$3.key" -subj "/CN=$1" -out "$3.csr" 2>/dev/null
    openssl x509 -req -in "$3.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days 30 -outform DER -out "$3.der" 2>/dev/null
}
place_certificate() { wine_run "$certificate_tool" add "$1" "$(windows_path "$2.der")"; }
expect_store() {
    expect_lines "$1 holds" "$(wine_run "$certificate_tool" list "$1" | tr -d '\r' | { grep -E "$2" || true; } | sort)" "${@:3}"
}

finish() {
    local status=$? msi name log job
    trap - EXIT
    for job in "${background[@]}"; do kill "$job" 2>/dev/null || true; done
    # A case that stopped early must still leave the prefix as it found it.
    for msi in "${installed[@]}"; do
        echo "cleanup: msiexec /x $(basename "$msi")"
        wine_run msiexec /x "$(windows_path "$msi")" /qn >/dev/null 2>&1 || true
    done
    for name in "${test_services[@]}"; do
        wine_run sc stop "$name" >/dev/null 2>&1 || true
        wine_run sc delete "$name" >/dev/null 2>&1 || true
    done
    if [ -n "$test_firewall" ]; then
        wine_run regsvr32 /u /s "$test_firewall" || true
        wine_run reg delete "$test_firewall_key" /f >/dev/null 2>&1 || true
    fi
    if [ $status -eq 0 ] && [ $failures -eq 0 ]; then
        echo "PASSED: $checks checks ($(basename "$case_file"))"
        exit 0
    fi
    # What to read first: the DLL's lines and how each action ended.
    for log in "${logs[@]}"; do
        echo "---- excerpt of $log"
        tr -d '\r' <"$log" | grep -E "$dll_prefix|^Action ended|: INSTALL\. Return value" | head -n 200 || true
    done
    echo "FAILED: $failures of $checks checks, status $status ($(basename "$case_file"), logs in $work_dir)"
    exit 1
}
trap finish EXIT

say "case: $(basename "$case_file" .sh)"
# shellcheck source=/dev/null
source "$case_file"

#!/usr/bin/env bash
# Runs one end-to-end case: builds installer packages with wixl, installs them
# with Wine's msiexec and checks what the installation did.
#   msi-case.sh CASE_FILE WORK_DIR [ARGS...]
# CASE_FILE is a bash script made of the commands below (see README.md); ARGS
# become its positional parameters. WORK_DIR receives the packages, the
# msiexec command files and the verbose logs, and is emptied first.
# Environment: QC_WINEPREFIX (the prefix), QC_BIN_DIR (holds the DLL),
# QC_PROJECT_VERSION (default: the build's CMake cache beside QC_BIN_DIR).
set -euo pipefail

e2e_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if [ $# -lt 2 ]; then
    echo "usage: $0 CASE_FILE WORK_DIR [ARGS...]" >&2
    exit 2
fi
case_file=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
work_dir=$2
shift 2
: "${QC_WINEPREFIX:?QC_WINEPREFIX must name the Wine prefix}"
: "${QC_BIN_DIR:?QC_BIN_DIR must name the build folder with the DLL}"

dll="$QC_BIN_DIR/Quillcast.Common.System.dll"
if [ ! -f "$dll" ]; then
    echo "msi-case: $dll is missing; build the project first" >&2
    exit 2
fi
if [ -z "${QC_PROJECT_VERSION:-}" ]; then
    QC_PROJECT_VERSION=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$QC_BIN_DIR/../CMakeCache.txt" 2>/dev/null || true)
fi
export QC_PROJECT_VERSION

# A stale log from an earlier run must never satisfy a check: start empty, but
# only ever empty a folder this script made.
if [ -d "$work_dir" ] && [ -n "$(ls -A "$work_dir")" ] && [ ! -f "$work_dir/.msi-case" ]; then
    echo "msi-case: $work_dir is not empty and was not made by msi-case.sh" >&2
    exit 2
fi
rm -rf "$work_dir"
mkdir -p "$work_dir"
work_dir=$(cd "$work_dir" && pwd)
touch "$work_dir/.msi-case"

export WINEPREFIX="$QC_WINEPREFIX" WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
readonly wine_timeout=120

failures=0
checks=0
runs=0
current_msi=""
current_log=""
run_logs=()   # "msi|log" of every msiexec run, for the excerpts
installed=()  # packages installed and not yet removed

# ---------------------------------------------------------------- helpers

# The prefix maps Z: to the Unix root.
windows_path() {
    local path=$1
    printf 'Z:%s' "${path//\//\\}"
}

pass() {
    checks=$((checks + 1))
    echo "  ok    $*"
}

fail() {
    checks=$((checks + 1))
    failures=$((failures + 1))
    echo "  FAIL  $*"
}

require_log() {
    if [ -z "$current_log" ]; then
        echo "msi-case: '$1' needs an install or uninstall before it" >&2
        exit 2
    fi
}

# Prints the log with CRs removed; with an action name, only the last block
# between "Action start ...: NAME." and "Action ended ...: NAME. ...". A deferred
# action has two blocks: scheduling, then its run inside InstallFinalize.
log_lines() {
    local action=${1:-}
    if [ -z "$action" ]; then
        tr -d '\r' <"$current_log"
        return
    fi
    tr -d '\r' <"$current_log" | awk -v a="$action" '
        function starts(p) { return substr($0, 1, length(p)) == p }
        function ends(s)   { return length($0) >= length(s) && substr($0, length($0) - length(s) + 1) == s }
        starts("Action start ") && ends(": " a ".") { inside = 1; n = 0; next }
        inside && starts("Action ended ") && index($0, ": " a ". Return value ") { inside = 0; last = n; for (i = 1; i <= n; i++) keep[i] = buf[i]; found = 1; next }
        inside { buf[++n] = $0 }
        END { if (!found) exit 3; for (i = 1; i <= last; i++) print keep[i] }'
}

# The lines the DLL wrote, prefixes included.
dll_lines_raw() {
    log_lines "$@" | grep -E '^[0-9]{2}\.[0-9]{2}\.[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} PID\(0x[0-9A-F]+\) TID\(0x[0-9A-F]+\) ' || true
}

# The DLL's lines without date, process and thread, with the source line
# number masked: "[ERROR] Daemon (#) OpenService failed with error 1060."
dll_bodies() {
    dll_lines_raw "$@" |
        sed -E 's/^[0-9.]+ [0-9:]+ PID\(0x[0-9A-F]+\) TID\(0x[0-9A-F]+\) //; s/^((\[(ERROR|WARNING)\] | )?[A-Za-z0-9_]+ \()[0-9]+\) /\1#) /'
}

# TEXT with "*" as the only wildcard -> an anchored extended regular expression.
wildcard_regex() {
    printf '^%s$' "$(printf '%s' "$1" | sed -e 's/[][\.^$+?(){}|/]/\\&/g' -e 's/\*/.*/g')"
}

# Splits "--in ACTION" off the arguments of a log check and reads the lines
# the check looks at into $scoped (the DLL's bodies with --dll); fails when
# the action did not run. The text is held in a variable rather than piped
# into grep -q, whose early exit would fail the producer under pipefail.
read_scope() {
    scope=""
    if [ "${1:-}" = "--in" ]; then
        scope=$2
    fi
}

scoped_lines() {
    local what=$1
    if [ -n "$scope" ] && ! log_lines "$scope" >/dev/null; then
        return 1
    fi
    if [ "$what" = dll ]; then
        scoped=$(dll_bodies ${scope:+"$scope"})
    else
        scoped=$(log_lines ${scope:+"$scope"})
    fi
}

scope_text() {
    if [ -z "$scope" ]; then echo "in the log"; else echo "in action $scope"; fi
}

# Prints the value's data as `reg query` shows it; fails when it is absent.
reg_value() {
    local key=$1 name=$2 out line rest type
    if [ -z "$name" ]; then
        out=$(timeout $wine_timeout wine reg query "$key" /ve 2>/dev/null) || return 1
        name="(Default)"
    else
        out=$(timeout $wine_timeout wine reg query "$key" /v "$name" 2>/dev/null) || return 1
    fi
    line=$(grep -F -e "    $name    " <<<"${out//$'\r'/}") || return 1
    line=${line%%$'\n'*}
    rest=${line#"    $name    "}
    type=${rest%%    *}
    rest=${rest#"$type"}
    printf '%s' "${rest#    }"
}

product_code() {
    msiinfo export "$1" Property | tr -d '\r' | awk -F '\t' '$1 == "ProductCode" { print $2 }'
}

# Answers 0 when the key (or its value NAME) is absent, 1 when it exists and
# 2 when `reg` failed otherwise: a broken query must not pass an absence check.
reg_absence() {
    local key=$1 output
    shift
    # reg writes its error messages to standard output.
    if output=$(timeout $wine_timeout wine reg query "$key" ${1:+/v "$1"} 2>&1); then
        return 1
    elif [[ "$output" == *"Unable to find"* ]]; then
        return 0
    fi
    reg_error=${output//$'\r'/}
    return 2
}

product_key() {
    printf 'HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\%s' "$(product_code "$current_msi")"
}

# expect_absent DESCRIPTION KEY [NAME]
expect_absent() {
    local what=$1 status=0
    shift
    reg_absence "$@" || status=$?
    case $status in
    0) pass "no $what" ;;
    1) fail "$what exists" ;;
    *) fail "reg query $* failed: $reg_error" ;;
    esac
}

# Runs msiexec through cmd, whose %ERRORLEVEL% holds the full result code
# (wine's own exit status keeps only its low byte).
run_msiexec() {
    local mode=$1 expected=$2 label=$3
    shift 3
    local property name value line output code base
    runs=$((runs + 1))
    base="$work_dir/$runs-$label-$(basename "$current_msi" .msi)"
    current_log="$base.log"
    line="msiexec $mode \"$(windows_path "$current_msi")\" /qn /l*v \"$(windows_path "$current_log")\""
    for property in "$@"; do
        name=${property%%=*}
        value=${property#*=}
        if [[ "$property" != *=* || ! "$name" =~ ^[A-Z_][A-Z0-9_.]*$ ]]; then
            # Wine's msiexec drops private (mixed-case) properties of the command line.
            echo "msi-case: '$property' is not PUBLIC_NAME=VALUE" >&2
            exit 2
        fi
        if [[ "$value" == *'"'* || "$value" == *$'\n'* || "$value" == *$'\r'* ]]; then
            echo "msi-case: the value of $name cannot carry quotes or line breaks" >&2
            exit 2
        fi
        line+=" $name=\"${value//%/%%}\""
    done
    printf '@echo off\r\n%s\r\necho QC_E2E_EXIT=%%ERRORLEVEL%%\r\n' "$line" >"$base.cmd"
    run_logs+=("$current_msi|$current_log")
    output=$(timeout $wine_timeout wine cmd /c "$(windows_path "$base.cmd")" 2>&1 </dev/null || true)
    code=$(tr -d '\r' <<<"$output" | sed -n 's/^QC_E2E_EXIT=\(-\{0,1\}[0-9]\{1,\}\)$/\1/p' | tail -n 1)
    echo "$label: msiexec $mode $(basename "$current_msi")${*:+ $*} -> ${code:-no result}"
    if [ -z "$code" ]; then
        fail "$label of $(basename "$current_msi") gave no result code (timed out after ${wine_timeout}s?): $output"
    elif [ "$code" = "$expected" ]; then
        pass "$label exited with $code"
    else
        fail "$label exited with $code, expected $expected"
    fi
    if [ ! -f "$current_log" ]; then
        fail "msiexec wrote no log $current_log"
        current_log=/dev/null
    fi
    last_code=$code
}

forget_installed() {
    local kept=() msi
    for msi in "${installed[@]}"; do
        [ "$msi" = "$1" ] || kept+=("$msi")
    done
    installed=("${kept[@]}")
}

# The custom-action blocks of one log: what to read first when a check fails.
print_excerpt() {
    local msi=$1 log=$2 actions
    actions=$(msiinfo export "$msi" CustomAction 2>/dev/null | tr -d '\r' | tail -n +4 | cut -f1 | tr '\n' ' ')
    echo "---- excerpt of $log (custom actions $actions)"
    tr -d '\r' <"$log" | awk -v names="$actions" '
        BEGIN { n = split(names, list, " "); for (i = 1; i <= n; i++) ca[list[i]] = 1 }
        function named(s,   name) { name = s; sub(/^Action (start|ended) [0-9:]+: /, "", name); sub(/\..*$/, "", name); return name }
        /^Action start [0-9:]+: / && (named($0) in ca) { depth++; print; next }
        /^Action ended [0-9:]+: / && (named($0) in ca) { if (depth > 0) depth--; print; next }
        depth > 0 || /: INSTALL\. Return value / { print }' | awk 'NR <= 200; NR == 201 { print "(cut after 200 lines)" }'
    echo "---- end of excerpt"
}

finish() {
    local status=$? msi entry
    trap - EXIT
    # A case that stopped early must still leave the prefix as it found it.
    for msi in "${installed[@]}"; do
        echo "cleanup: msiexec /x $(basename "$msi")"
        timeout $wine_timeout wine msiexec /x "$(windows_path "$msi")" /qn \
            /l*v "$(windows_path "$work_dir/cleanup-$(basename "$msi" .msi).log")" </dev/null >/dev/null 2>&1 || true
    done
    remove_test_services
    if [ $status -ne 0 ] || [ $failures -ne 0 ]; then
        for entry in "${run_logs[@]}"; do
            print_excerpt "${entry%%|*}" "${entry#*|}"
        done
        [ $status -ne 0 ] && echo "msi-case: the case stopped with status $status"
        echo "FAILED: $failures of $checks checks ($(basename "$case_file"), logs in $work_dir)"
        exit 1
    fi
    echo "PASSED: $checks checks ($(basename "$case_file"))"
    exit 0
}
trap finish EXIT

# ---------------------------------------------------------------- case commands

# package NAME [-D VAR=VALUE]...: builds packages/NAME.wxs into WORK_DIR/NAME.msi
# and makes it the current package; $(var.CustomActionDll) names the DLL.
package() {
    local name=$1
    shift
    local wxs="$e2e_dir/packages/$name.wxs"
    current_msi="$work_dir/$name.msi"
    if ! (cd "$work_dir" && wixl -a x64 -D "CustomActionDll=$(realpath --relative-to="$work_dir" "$dll")" "$@" \
            -o "$current_msi" "$wxs") >"$work_dir/$name.wixl.txt" 2>&1 || [ ! -f "$current_msi" ]; then
        cat "$work_dir/$name.wixl.txt"
        echo "msi-case: wixl could not build $wxs" >&2
        exit 2
    fi
    echo "package: $name.msi (product $(product_code "$current_msi"))"
}

# install [--exit CODE] [PUBLIC_NAME=VALUE]...: msiexec /i of the current
# package, expecting CODE (default 0).
install() {
    local expected=0
    if [ "${1:-}" = "--exit" ]; then
        expected=$2
        shift 2
    fi
    run_msiexec /i "$expected" install "$@"
    if [ "$last_code" = 0 ] || [ "$last_code" = 3010 ]; then
        forget_installed "$current_msi"
        installed+=("$current_msi")
    fi
}

# uninstall [--exit CODE] [PUBLIC_NAME=VALUE]...: msiexec /x of the current package.
uninstall() {
    local expected=0
    if [ "${1:-}" = "--exit" ]; then
        expected=$2
        shift 2
    fi
    run_msiexec /x "$expected" uninstall "$@"
    if [ "$last_code" = 0 ] || [ "$last_code" = 3010 ]; then
        forget_installed "$current_msi"
    fi
}

# line_check COMMAND yes|no log|dll ERE TEXT: whether some line in scope (of
# the log, or of the DLL's bodies) matches ERE is what the check wants.
line_check() {
    local command=$1 want=$2 what=$3 pattern=$4 text=$5 noun=line verb=matches hit
    if [ "$what" = dll ]; then noun="DLL line" verb=reads; fi
    if ! scoped_lines "$what"; then
        fail "$command: action $scope did not run"
    elif hit=$(grep -E -e "$pattern" <<<"$scoped"); then
        if [ "$want" = yes ]; then
            pass "a $noun $(scope_text) $verb: $text"
        else
            fail "a $noun $(scope_text) $verb $text: ${hit%%$'\n'*}"
        fi
    elif [ "$want" = yes ]; then
        fail "no $noun $(scope_text) $verb: $text"
    else
        pass "no $noun $(scope_text) $verb: $text"
    fi
}

# expect_log [--in ACTION] ERE: some line of the current log matches.
expect_log() {
    require_log expect_log
    read_scope "$@"
    [ -n "$scope" ] && shift 2
    line_check expect_log yes log "$1" "$1"
}

# expect_no_log [--in ACTION] ERE: no line of the current log matches.
expect_no_log() {
    require_log expect_no_log
    read_scope "$@"
    [ -n "$scope" ] && shift 2
    line_check expect_no_log no log "$1" "$1"
}

# expect_dll_line [--in ACTION] TEXT: a line of the DLL reads TEXT once date,
# process and thread are cut off and the source line number is masked as "#";
# "*" in TEXT stands for any characters.
expect_dll_line() {
    require_log expect_dll_line
    read_scope "$@"
    [ -n "$scope" ] && shift 2
    line_check expect_dll_line yes dll "$(wildcard_regex "$1")" "$1"
}

# expect_no_dll_line [--in ACTION] TEXT: no line of the DLL reads TEXT.
expect_no_dll_line() {
    require_log expect_no_dll_line
    read_scope "$@"
    [ -n "$scope" ] && shift 2
    line_check expect_no_dll_line no dll "$(wildcard_regex "$1")" "$1"
}

# property_value NAME: the property's final value, from the log's property dump.
property_value() {
    require_log property_value
    log_lines | awk -v p="Property(S): $1 = " 'substr($0, 1, length(p)) == p { v = substr($0, length(p) + 1); found = 1 }
        END { if (!found) exit 1; print v }'
}

# expect_property NAME VALUE: the property ended the session holding VALUE.
expect_property() {
    local value
    if ! value=$(property_value "$1"); then
        fail "property $1 is not set at the end of the session"
    elif [ "$value" = "$2" ]; then
        pass "property $1 = $2"
    else
        fail "property $1 = $value, expected $2"
    fi
}

# expect_reg KEY NAME VALUE: the value exists with that data (as `reg query`
# prints it: REG_DWORD as 0x..). An empty NAME is the key's default value.
expect_reg() {
    local data
    if ! data=$(reg_value "$1" "$2"); then
        fail "registry value $1 [$2] is missing, expected '$3'"
    elif [ "$data" = "$3" ]; then
        pass "registry $1 [$2] = '$3'"
    else
        fail "registry $1 [$2] = '$data', expected '$3'"
    fi
}

# expect_no_reg KEY [NAME]: the value (without NAME: the key) does not exist.
expect_no_reg() {
    if [ $# -ge 2 ]; then
        expect_absent "registry value $1 [$2]" "$1" "$2"
    else
        expect_absent "registry key $1" "$1"
    fi
}

# expect_file / expect_no_file WINDOWS_PATH: a file of the prefix exists or not.
expect_file() {
    local unix
    unix=$(timeout $wine_timeout winepath -u "$1" 2>/dev/null) || true
    if [ -n "$unix" ] && [ -f "$unix" ]; then pass "file $1 exists"; else fail "file $1 is missing"; fi
}
expect_no_file() {
    local unix
    unix=$(timeout $wine_timeout winepath -u "$1" 2>/dev/null) || true
    if [ -n "$unix" ] && [ ! -e "$unix" ]; then pass "no file $1"; else fail "file $1 exists"; fi
}

# expect_product_installed / expect_product_absent: the current package's
# product is registered (its Uninstall key exists) or not.
expect_product_installed() {
    if timeout $wine_timeout wine reg query "$(product_key)" >/dev/null 2>&1; then
        pass "product is registered"
    else
        fail "product is not registered"
    fi
}
expect_product_absent() {
    expect_absent "registered product" "$(product_key)"
}

# show_dll_lines [ACTION]: prints the DLL's lines of the current log, each
# under the custom action (and its DLL entry) that wrote it.
show_dll_lines() {
    require_log show_dll_lines
    local entries
    entries=$(msiinfo export "$current_msi" CustomAction 2>/dev/null | tr -d '\r' | tail -n +4 | cut -f1,4 | tr '\t\n' '= ')
    echo "Custom action lines in $(basename "$current_log")${1:+ (action $1)}:"
    log_lines "$@" | awk -v entries="$entries" '
        BEGIN { n = split(entries, list, " "); for (i = 1; i <= n; i++) { split(list[i], kv, "="); entry[kv[1]] = kv[2] } }
        function named(s,   name) { name = s; sub(/^Action (start|ended) [0-9:]+: /, "", name); sub(/\..*$/, "", name); return name }
        /^Action start [0-9:]+: / { stack[++depth] = named($0); next }
        /^Action ended [0-9:]+: / { if (depth > 0) depth--; next }
        /^[0-9][0-9]\.[0-9][0-9]\.[0-9][0-9][0-9][0-9] [0-9:]+ PID\(0x[0-9A-F]+\) TID\(0x[0-9A-F]+\) / {
            action = depth > 0 ? stack[depth] : "?"
            if (action != shown) { print "  " action (action in entry ? " (" entry[action] ")" : "") ":"; shown = action }
            print "    " $0
        }'
}

# show_property NAME: prints the property's final value.
show_property() {
    echo "$1 = $(property_value "$1" || echo '(not set)')"
}

# wine_run PROGRAM [ARGS...]: runs a Windows program in the prefix (setup steps).
wine_run() {
    timeout $wine_timeout wine "$@" </dev/null
}

# The project's test service (tests/services/QcTestService.cpp), registered
# demand-start for this case, started, and deleted when the case ends.
#   add_test_service NAME [SERVICE ARGUMENTS...]
test_services=()
add_test_service() {
    local name=$1
    shift
    wine_run sc delete "$name" >/dev/null 2>&1 || true
    wine_run sc create "$name" binPath= "$(windows_path "$QC_BIN_DIR/QcTestService.exe") $name $*" \
        start= demand >/dev/null
    test_services+=("$name")
    wine_run sc start "$name" >/dev/null
}

remove_test_services() {
    local name
    for name in "${test_services[@]}"; do
        wine_run sc stop "$name" >/dev/null 2>&1 || true
        wine_run sc delete "$name" >/dev/null 2>&1 || true
    done
    test_services=()
}

# expect_service_state NAME STATE: as `sc query` reports it (RUNNING, STOPPED, ...).
expect_service_state() {
    local state
    state=$(wine_run sc query "$1" 2>/dev/null | tr -d '\r' | sed -n 's/^ *STATE *: *[0-9]* *//p')
    if [ "$state" = "$2" ]; then pass "service $1 is $2"; else fail "service $1 is '${state}', not $2"; fi
}

echo "case: $(basename "$case_file" .sh)"
# shellcheck source=/dev/null
source "$case_file"

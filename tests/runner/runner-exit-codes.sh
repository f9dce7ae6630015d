#!/usr/bin/env bash
# The action runner's command line as a newcomer meets it: one row per case,
# the arguments, the exit code and the texts its output (stdout and stderr)
# must hold, in that order when several are joined by " >> ".
#   runner-exit-codes.sh RUNNER.exe   (QC_WINEPREFIX names the prefix)
set -uo pipefail
runner=$1
export WINEPREFIX=$QC_WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
failures=0
holds_in_order() {
    local rest=$1 fragment
    while IFS= read -r fragment; do
        [[ "$rest" == *"$fragment"* ]] || return 1
        rest=${rest#*"$fragment"}
    done < <(sed 's/ >> /\n/g' <<<"$2")
}
check() {
    local expected=$1 text=$2 output code
    shift 2
    output=$(wine "$runner" "$@" 2>&1 </dev/null | tr -d '\r')
    code=${PIPESTATUS[0]}
    if [ "$code" = "$expected" ] && holds_in_order "$output" "$text"; then
        echo "ok    [$*] -> $code"
    else
        echo "FAIL  [$*] -> $code (expected $expected with '$text'):"
        printf '%s\n' "$output" | sed 's/^/      /'
        failures=$((failures + 1))
    fi
}
stop=";MESSAGE=Stop?;TYPE=4"
hang=(--property ShowMessageTextProperty=Hang --property ShowMessageQuietModeProperty=1)
check 0 "usage: QcActionRunner [options] ACTION >> 5 the action did not return within --timeout" --help
check 1 "result: 1603" --null-handle CompareVersionString
check 0 "property: CompareResult=1" --property=VersionA=1.10 --property=VersionB=1.9 --show=CompareResult \
    CompareVersionString
# Records as they happen: logged, asked, logged again; each answer says where it came from.
asked="message: 0x03000004: [1]|Stop?| -> 7 (IDNO; from --answer)"
check 1 "Argument[TYPE] = 4. >> $asked >> [ERROR] Various ( >> ) Stop?. >> result: 1602" --data "$stop" --answer 7 \
    ShowMessageDeferred
check 0 "-> 1 (IDOK; the default answer) >> result: 0" --data="$stop" ShowMessageDeferred
check 0 "-> 0 (none, as in a silent install; the default answer) >> result: 0" --default-answer=0 --data="$stop" \
    ShowMessageDeferred
# A quiet-mode box in the headless prefix waits for a click that never comes.
check 5 "dwShowInQuietMode = 1. >> timeout: ShowMessageImmediately did not return within 2 s" "${hang[@]}" \
    --timeout 2 ShowMessageImmediately
# A deferred action sees "CustomActionData" only.
# (A service that does not exist: with the rule broken the rows run and change nothing.)
missing=";SERVICENAME=QcNoSuchService;X1=;X2="
check 2 'ServiceStop reads "CustomActionData" only' --data "$missing" --property=SERVICENAME=x ServiceStop
check 2 'ServiceStop reads "CustomActionData" only' --property SERVICENAME=Spooler ServiceStop
check 1 "result: 1603" --allow-properties --property X=1 --data "$missing" ServiceStop
# --check: the package checker's "CustomActionData" rules and two typing slips, nothing run.
check 0 "check: ServiceRestart, 0 errors, 0 warnings" --check --data ";servicename=Spooler;X1=;Timeout=3" ServiceRestart
check 6 "error: ServiceRestart needs 3 pairs (SERVICENAME, DEPENDENCIES, TIMEOUT), the value gives 2 >> 1 error," \
    --check --data=";SERVICENAME=Spooler;TIMEOUT=30" ServiceRestart
check 6 "error: SERVICENAME is empty, and ServiceStart fails without it" --check --data ";SERVICENAME=;X1=;X2=" \
    ServiceStart
check 6 "warning: the first character, 'S', is the separator >> error: ServiceStart needs SERVICENAME, the value" \
    --check --data "SERVICENAME=Spooler;X1=;X2=" ServiceStart
check 7 "warning: SERVICENAME is empty unless SVC is set at install time" --check --data "|SERVICENAME=[SVC]|X1=|X2=" \
    ServiceStart
check 7 "warning: TIMEOUT is given 2 times: the first value counts >> 0 errors, 1 warning" \
    --check --data ";SERVICENAME=Spooler;TIMEOUT=30;timeout=5" ServiceStart
check 7 "warning: DEPENDENCY is not a key of ServiceStart: did you mean DEPENDENCIES?" \
    --check --data ";SERVICENAME=Spooler;DEPENDENCY=1;TIMEOUT=30" ServiceStart
web="|RULENAME=Web|X1=|PROFILE=all|LOCALPORTS=80|X2=|X3=|X4=|X5="
check 6 'error: PROFILE "all" is not decimal digits' --check --data "$web" AddPortException
check 7 'warning: GetDomain reads no "CustomActionData"' --check --data ";X=1" GetDomain
check 3 "the action table has no action servicerestart; did you mean ServiceRestart?" --check servicerestart
# Usage errors.
check 2 "no action named"
check 2 "--dll needs a value" --dll
# Not loadable: the closest export is suggested, case first.
check 3 "cannot load no-such.dll (error 126)" --dll no-such.dll GetCustomActionVersion
check 3 "the DLL has no export NoSuchExport (--list shows the actions)" NoSuchExport
check 3 "the DLL has no export SERVICESTART; did you mean ServiceStart?" SERVICESTART
check 3 "the DLL has no export ServiceStrat; did you mean ServiceStart?" ServiceStrat
[ $failures -eq 0 ] && echo "PASSED" || echo "FAILED: $failures cases"
exit $((failures != 0))

#!/usr/bin/env bash
# The package checker, one row per rule: the sample package (tests/e2e/packages/sample.wxs, made with the
# include; the checker finds nothing in it) with one mistake put into its built tables by msibuild, the exit
# code and exactly the findings expected. The rules of a "CustomActionData" value alone are rows of the action
# runner's --check (tests/runner), which shares them.
#   checker-packages.sh WORK_DIR   (QC_WINEPREFIX, QC_BIN_DIR, QC_SOURCE_DIR as CTest sets them)
set -uo pipefail
work=$1
rm -rf "$work" && mkdir -p "$work" && work=$(realpath "$work")
export WINEPREFIX=$QC_WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
cp "$QC_BIN_DIR/Quillcast.Common.System.dll" "$work/" && echo "not a DLL" >"$work/notes.txt"
failures=0
windows_path() { printf 'Z:%s' "${1//\//\\}"; }
fail() { failures=$((failures + 1)) && echo "FAIL  $*"; }

# check LABEL PACKAGE EXIT [FINDINGS]: the checker's exit code (an ERE), and its finding lines exactly.
check() {
    local output code
    output=$(wine "$QC_BIN_DIR/QcPackageCheck.exe" "$(windows_path "$2")" 2>&1 </dev/null | tr -d '\r')
    code=${PIPESTATUS[0]}
    if [[ "$code" =~ ^($3)$ ]] && { [ $# -lt 4 ] || [ "$(grep -E '^(error|warning) ' <<<"$output")" = "$4" ]; }; then
        echo "ok    $1 -> $code"
    else
        fail "$1 -> $code (expected $3${4:+ with: $4}):" && sed 's/^/      /' <<<"$output"
    fi
}

(cd "$work" && wixl -a x64 -I "$QC_SOURCE_DIR/authoring" -D QcCustomActionDll=Quillcast.Common.System.dll \
    -D 'HelperProgram=C:\qc.exe' -D 'SampleApp=C:\Qc' -o sample.msi "$QC_SOURCE_DIR/tests/e2e/packages/sample.wxs" &&
    "$QC_SOURCE_DIR/authoring/fix-rollback-types.sh" sample.msi) || fail "sample.wxs: could not build it"
check sample-package "$work/sample.msi" 0 ''

# row NAME EXIT FINDINGS [MSIBUILD_OPTION ARGUMENT]...: the sample with msibuild's edits (-q SQL, -a STREAM FILE).
row() {
    cp "$work/sample.msi" "$work/$1.msi"
    msibuild "$work/$1.msi" "${@:4}" || fail "$1: msibuild ${*:4}"
    check "$1" "$work/$1.msi" "$2" "$3"
}
# The SQL that sets one column of one row, and the one that adds a property.
set_column() { printf "UPDATE \`%s\` SET \`%s\` = %s WHERE \`Action\` = '%s'" "$1" "$2" "$3" "$4"; }
data() { set_column CustomAction Target "'$2'" "$1"; } # data SETTER VALUE: the setter's "CustomActionData"
property() { printf "INSERT INTO \`Property\` (\`Property\`, \`Value\`) VALUES ('%s', '%s')" "$1" "$2"; }

row export-missing 2 'error QcServiceRestart: the DLL in Binary row QuillcastCommonSystem has no export serviceRestart (entry names match case: the DLL exports ServiceRestart)' \
    -q "$(set_column CustomAction Target "'serviceRestart'" QcServiceRestart)"
row binary-not-a-dll 2 'error QcGetCustomActionVersion: Binary row QcNotes is not a DLL' -a Binary.QcNotes "$work/notes.txt" \
    -q "INSERT INTO \`Binary\` (\`Name\`) VALUES ('QcNotes')" \
    -q "$(set_column CustomAction Source "'QcNotes'" QcGetCustomActionVersion)"
row data-action-immediate 2 'error QcServiceRestart: ServiceRestart reads "CustomActionData", which only a deferred action gets: make the row deferred (its type 2049 runs it immediately)' \
    -q "$(set_column CustomAction Type 2049 QcServiceRestart)"
row property-action-deferred 2 'error QcCompareVersionString: CompareVersionString works on installer properties, which a deferred action can neither read nor set: make the row immediate (its type 1025 runs it in the script)' \
    -q "$(set_column CustomAction Type 1025 QcCompareVersionString)" \
    -q "$(set_column InstallExecuteSequence Sequence 5000 QcCompareVersionString)"
row deferred-after-finalize 2 'error QcServiceRestart: a deferred action runs only in InstallExecuteSequence between InstallInitialize (1500) and InstallFinalize (6600); it is at InstallExecuteSequence 6700' \
    -q "$(set_column InstallExecuteSequence Sequence 6700 QcServiceRestart)"
row no-setter 2 'error QcServiceRestart: nothing sets its "CustomActionData": add a type 51 action that sets the property QcServiceRestart before it' \
    -q "DELETE FROM \`CustomAction\` WHERE \`Action\` = 'QcSetServiceRestart'"
row setter-after-action 2 'error QcServiceRestart: its setter QcSetServiceRestart is not scheduled before it in InstallExecuteSequence (QcServiceRestart is at 5923)' \
    -q "$(set_column InstallExecuteSequence Sequence 5950 QcSetServiceRestart)"
row setter-of-no-action 2 'error QcSetStray: sets "CustomActionData" for QcServiceRestrat, which is no custom action: the property must be the Id of the action that reads it' \
    -q "INSERT INTO \`CustomAction\` (\`Action\`, \`Type\`, \`Source\`, \`Target\`) VALUES ('QcSetStray', 51, 'QcServiceRestrat', '|SERVICENAME=Spooler')"
# What only a package tells: a pair inside a [...] block, a property nothing in the package sets.
row pair-missing-while-unset 1 'warning QcSetServiceRestart: ServiceRestart needs 3 pairs (SERVICENAME, DEPENDENCIES, TIMEOUT), the value gives 2 unless QC_TIMEOUT is set at install time' \
    -q "$(data QcSetServiceRestart '|SERVICENAME=[QC_SERVICE_RESTART_SERVICENAME]|DEPENDENCIES=0{|TIMEOUT=[QC_TIMEOUT]}')"
row required-value-unset 1 'warning QcSetServiceRestart: SERVICENAME is empty unless QC_SERVICE is set at install time (nothing in the package sets it), and ServiceRestart fails without it' \
    -q "$(data QcSetServiceRestart '|SERVICENAME=[QC_SERVICE]|DEPENDENCIES=0|TIMEOUT=30')"
row separator-at-install-time 1 'warning QcSetServiceRestart: the value'\''s separator is known only at install time ([QC_RESTART_DATA]): its pairs are not checked' \
    -q "$(data QcSetServiceRestart '[QC_RESTART_DATA]')"
row servicename-on-a-rule 1 'warning QcSetAddPortException: SERVICENAME replaces LOCALADDRESSES: the rule'\''s local addresses become "Spooler", which the firewall refuses unless it is an address list' \
    -q "$(data QcSetAddPortException '|RULENAME=Qc|RULEDESCRIPTION=|PROFILE=3|LOCALPORTS=8080|LOCALADDRESSES=*|REMOTEPORTS=*|REMOTEADDRESSES=*|SERVICENAME=Spooler')"
row local-ports-on-a-program-rule 2 'error QcSetAddProgramException: LOCALPORTS on a program rule: its protocol (any) takes no ports, and adding the rule fails' \
    -q "$(data QcSetAddProgramException '|RULENAME=Qc|RULEDESCRIPTION=|PROFILE=3|PROGRAMNAME=C:\qc.exe|LOCALPORTS=8080|LOCALADDRESSES=*|REMOTEPORTS=|REMOTEADDRESSES=*|SERVICENAME=')"
row remote-config-semicolons 2 'error QcSetSetRemoteConfigDeferred: REMOTECONFIG is passed with ";" as the separator, which ends the value at the list'\''s first ";": begin the value with another separator, such as "|"' \
    -q "$(data QcSetSetRemoteConfigDeferred ';REMOTECONFIG=[QC_SET_REMOTE_CONFIG_DEFERRED_REMOTECONFIG]')"
row message-type-above-flags 2 'error QcSetShowMessageDeferred: TYPE 16777220 has bits above the message-box flags (0xFF000000): they change the kind of installer message' \
    -q "$(data QcSetShowMessageDeferred '|MESSAGE=Welcome|TYPE=16777220')"
row hidden-property-logged 1 'warning QcSetShowMessageDeferred: the value names [QC_SHOW_MESSAGE_DEFERRED_MESSAGE], a hidden property (MsiHiddenProperties), and ShowMessageDeferred writes its arguments into the installer log' \
    -q "$(property MsiHiddenProperties QC_SHOW_MESSAGE_DEFERRED_MESSAGE)"
row secret-property-logged 1 'warning QcSetShowMessageDeferred: the value names [QC_DB_PASSWORD], whose name says it holds a secret, and ShowMessageDeferred writes its arguments into the installer log' \
    -q "$(data QcSetShowMessageDeferred '|MESSAGE=[QC_DB_PASSWORD]|TYPE=0')" -q "$(property QC_DB_PASSWORD x)"
row quiet-mode-box 1 'warning QcShowMessageImmediately: ShowMessageQuietModeProperty is 1: in an unattended install ShowMessageImmediately shows a system-modal box that waits for a click' \
    -q "$(property ShowMessageQuietModeProperty 1)"
row picker-result-checked 1 'warning QcDirectoryObjectPick: DirectoryObjectPick runs from InstallUISequence with its result checked: a cancelled picker (or an install without a dialog) fails the install; call it from a dialog'\''s DoAction event' \
    -q "$(set_column CustomAction Type 1 QcDirectoryObjectPick)" \
    -q "INSERT INTO \`InstallUISequence\` (\`Action\`, \`Sequence\`) VALUES ('QcDirectoryObjectPick', 1200)"
check not-a-package "$work/notes.txt" 3 ''

[ $failures -eq 0 ] && echo "PASSED" || echo "FAILED: $failures cases"
exit $((failures != 0))

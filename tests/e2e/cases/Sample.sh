# The sample of scripts/sample.sh: the package authored with the include alone, every action that
# runs under Wine switched on, installed and removed; the case's arguments (PUBLIC_NAME=VALUE, such as
# SAMPLE_VERSIONA=2.0) go to the install. The machine gets what the actions work on: the sample
# service (the test service), the test firewall (Wine's is a stub), the ICA client's list, the
# client's configuration key, the 7.6 print engine's entry and the auto-connect service's image path;
# QcSampleApp.exe and QCAutoConnect.exe are copies of the test program, which holds until closed.
service=QuillcastSampleService journal="$work_dir/service-journal.txt"
add_test_service "$service" "--journal=$(windows_path "$journal")"
: >"$journal"
use_test_firewall
app="$work_dir/app" helper=$(windows_path "$QC_BIN_DIR/QcTestProgram.exe")
mkdir -p "$app"
for copy in QcSampleApp.exe QCAutoConnect.exe; do cp "$QC_BIN_DIR/QcTestProgram.exe" "$app/$copy"; done
# CloseAutoConnect waits for each of its two runs to end, on install and on removal.
end_each_start "$app/QCAutoConnect.exe" 4
client='HKLM\SOFTWARE\Quillcast\Client'
machine_key 64 "$client"
machine_key 64 'HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\.lumen Engine' DisplayVersion 7.6
machine_key 32 "$ica" VirtualDriver DrvA
machine_key 32 'HKLM\SYSTEM\CurrentControlSet\Services\QCAutoConnSvc' ImagePath "\"$(windows_path "$app")\\QCAutoConnSvc.exe\""

package sample -D HelperProgram="$helper" -D SampleApp="$(windows_path "$app")"
expect_include_authoring
install "$@"
# Action | the values of its "Argument[...]" lines (NOT DEFINED: an input the package left out).
expect_arguments <<EOF
QcShowMessageDeferred|Quillcast Sample is configuring the machine.|NOT DEFINED
QcCloseProcessDeferred|QcSampleApp.exe|5
QcServiceStop|$service|NOT DEFINED|30
QcSetRemoteConfigDeferred|host1;host2
QcAddPortException|Quillcast Sample|Quillcast sample ports|2147483647|8080,8081|NOT DEFINED|NOT DEFINED|LocalSubnet|NOT DEFINED
QcAddProgramException|Quillcast Sample App|NOT DEFINED|3|$(windows_path "$app")\\QcSampleApp.exe|NOT DEFINED|NOT DEFINED|NOT DEFINED|NOT DEFINED|NOT DEFINED
QcServiceStart|$service|0|30
QcServiceRestart|$service|1|30
QcCreateProcessDeferred|$helper --run-ms=300 --exit-code=0
QcShellExecuteDeferred|$(windows_path "$app")\\QcSampleApp.exe|$(windows_path "$app")
EOF
# The others show in what they leave; the version and domain ones in ImmediateResultsSteer....
for action in ShowMessageImmediately CloseProcessImmediately SetRemoteConfigImmediately; do
    expect_dll_line --in "Qc$action" "Workbench (#) Processing custom action: $action."
done
expect_no_dll_line "*Got less arguments than expected*"
expect_no_dll_line "*] is invalid*"
expect_reg "$test_firewall_key\\Rules\\1" Name 'Quillcast Sample'
expect_reg "$test_firewall_key\\Rules\\2" Name 'Quillcast Sample App'
expect_reg "$ica32" VirtualDriver 'DrvA,QCClnIca'
# ServiceStop, ServiceStart and ServiceRestart (with its dependents), no error of the service controller.
expect_lines "service journal" "$(cat "$journal")" "$service stopped" "$service running" "$service stopped" "$service running"
expect_no_dll_line "*Daemon (*"
expect_service_state "$service" RUNNING
expect_dll_line --in QcCreateProcessImmediately "Various (#) Exit code of process is 0."
expect_dll_line --in QcCreateProcessDeferred "Various (#) Exit code of process is 0."
expect_lines "starts of QCAutoConnect.exe" "$(cut -f1 "$app/QCAutoConnect.exe.record" | tr -d '\r')" \
    "$(windows_path "$app")\\QCAutoConnect.exe -d all -q" "$(windows_path "$app")\\QCAutoConnect.exe -r -q"
expect_lines "starts of QcSampleApp.exe" "$(wc -l <"$app/QcSampleApp.exe.record")" 2
# Wine's reg shows a list with a single terminator one character short.
expect_reg "$client" RmtConf 'host1\0host'

uninstall
expect_arguments <<EOF
QcUninstallSignedCertificate|Quillcast Sample Root
QcUninstallRootCertificate|Quillcast Sample Root
QcRemoveProgramException|Quillcast Sample App|$(windows_path "$app")\\QcSampleApp.exe
QcRemovePortException|Quillcast Sample|8080,8081
EOF
expect_dll_line --in QcRemoveIcaClient "Workbench (#) Processing custom action: RemoveIcaClient."
expect_no_dll_line "*Got less arguments than expected*"
expect_service_state "$service" STOPPED
for rule in 1 2; do expect_no_reg "$test_firewall_key\\Rules\\$rule"; done
expect_reg "$ica32" VirtualDriver DrvA
expect_lines "starts of QCAutoConnect.exe" "$(wc -l <"$app/QCAutoConnect.exe.record")" 4
# The removal's close actions ended both copies of the app that the shell actions opened.
outcome "$(! wine_run taskkill /f /im QcSampleApp.exe >/dev/null 2>&1; echo $?)" "no QcSampleApp.exe runs" \
    "a QcSampleApp.exe still ran"
expect_removed Sample

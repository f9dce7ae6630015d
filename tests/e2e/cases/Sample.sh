# The sample of scripts/sample.sh: the arguments (PUBLIC_NAME=VALUE, such as
# SAMPLE_VERSIONA=2.0) go to msiexec; the package's defaults compare 1.10 with
# 1.9, read the machine's domain (Wine: the workgroup WORKGROUP), restart the
# sample service on install and stop it on removal, run the helper program
# (the project's test program) on install and close any running copy of it on
# removal.
service=QuillcastSampleService
add_test_service "$service"
# Wine's firewall is a stub: the firewall actions meet the project's test firewall.
use_test_firewall

# SetRemoteConfigDeferred writes into the client's key; it never creates it.
client='HKLM\SOFTWARE\Quillcast\Client'
wine_run reg add "$client" /reg:64 /f >/dev/null

package sample -D HelperProgram="$(windows_path "$QC_BIN_DIR/QcTestProgram.exe")"
install "$@"
show_dll_lines
show_property VersionA
show_property VersionB
show_property CompareResult
show_property GFV_Result
show_property MACHINEDOMAIN

expect_dll_line --in CompareVersions "Workbench (#) Processing custom action: CompareVersionString."
expect_dll_line --in GetDomain "Workbench (#) Processing custom action: GetDomain."
expect_dll_line --in InstallFinalize "Workbench (#) Custom Action Dll '*' has version '$QC_PROJECT_VERSION'."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: ServiceRestart."
expect_dll_line --in InstallFinalize "Various (#) Exit code of process is 0."
expect_service_state "$service" RUNNING
expect_dll_line --in ReadFileVersion "Workbench (#) Processing custom action: GetFileVersion."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: SetRemoteConfigDeferred."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: AddPortException."
expect_reg "$test_firewall_key\\Rules\\1" Name 'Quillcast Sample'
if [ $# -eq 0 ]; then
    expect_property CompareResult 1
    expect_reg 'HKLM\Software\Quillcast\Sample' CompareResult 1
    # Wine's reg shows a list with a single terminator one character short.
    expect_reg "$client" RmtConf 'host1\0host'
    expect_reg 'HKLM\Software\Quillcast\Sample' MachineDomain WORKGROUP
fi

uninstall
show_dll_lines
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: ServiceStop."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: CloseProcessDeferred."
expect_service_state "$service" STOPPED
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: RemovePortException."
expect_no_reg "$test_firewall_key\\Rules\\1"
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: UninstallSignedCertificate."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: UninstallRootCertificate."
expect_no_reg 'HKLM\Software\Quillcast\Sample'
expect_product_absent
wine_run reg delete "$client" /reg:64 /f >/dev/null

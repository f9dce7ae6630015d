# The sample of scripts/sample.sh: the arguments (PUBLIC_NAME=VALUE, such as
# SAMPLE_VERSIONA=2.0) go to msiexec; the package's defaults compare 1.10 with
# 1.9, restart the sample service on install and stop it on removal.
service=QuillcastSampleService
add_test_service "$service"

package sample
install "$@"
show_dll_lines
show_property VersionA
show_property VersionB
show_property CompareResult

expect_dll_line --in CompareVersions "Workbench (#) Processing custom action: CompareVersionString."
expect_dll_line --in InstallFinalize "Workbench (#) Custom Action Dll '*' has version '$QC_PROJECT_VERSION'."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: ServiceRestart."
expect_service_state "$service" RUNNING
if [ $# -eq 0 ]; then
    expect_property CompareResult 1
    expect_reg 'HKLM\Software\Quillcast\Sample' CompareResult 1
fi

uninstall
show_dll_lines
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: ServiceStop."
expect_service_state "$service" STOPPED
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: UninstallSignedCertificate."
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: UninstallRootCertificate."
expect_no_reg 'HKLM\Software\Quillcast\Sample'
expect_product_absent

# Two of the include's rows changed with msibuild, as a package may change them. GetCustomActionVersion
# made deferred (no impersonation, result checked, between InstallInitialize and InstallFinalize)
# writes the version line of the DLL from the install script, and nothing of the validation frame.
# ServiceStop with its result checked (the include's row has Return="ignore") of a service that is
# not registered logs the service controller's errors and fails the installation with 1603.
package include -D Name=Script -D QcSlotGetCustomActionVersion=650
for action in QcGetCustomActionVersion QcServiceStop; do
    msibuild "$current_msi" -q "UPDATE \`CustomAction\` SET \`Type\` = 3073 WHERE \`Action\` = '$action'"
done
install QC_GET_CUSTOM_ACTION_VERSION=1
# Its line inside InstallFinalize: the run from the script, not its scheduling.
expect_dll_line --in InstallFinalize "Workbench (#) Custom Action Dll '*' has version '$QC_PROJECT_VERSION'."
expect_no_dll_line "* Processing custom action: *"
uninstall
expect_removed 'E2E\Script'

install --exit 1603 QC_SERVICE_STOP=1 QC_SERVICE_STOP_SERVICENAME=QcE2eNoSuchService
# Wine's log formats "[ERROR]" as the (empty) property ERROR, which leaves a blank where the level was.
expect_dll_line --in InstallFinalize " Daemon (#) OpenService failed."
expect_removed 'E2E\Script'

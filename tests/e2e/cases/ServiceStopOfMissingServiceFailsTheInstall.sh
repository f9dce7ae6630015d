# A deferred ServiceStop of a service that is not registered, its result checked (the include's
# row has Return="ignore"), logs the service controller's errors and fails the installation with
# 1603, which rolls it back. (The sample restarts a running service.)
package include -D Name=ServiceStop
msibuild "$current_msi" -q "UPDATE \`CustomAction\` SET \`Type\` = 3073 WHERE \`Action\` = 'QcServiceStop'"
install --exit 1603 QC_SERVICE_STOP=1 QC_SERVICE_STOP_SERVICENAME=QcE2eNoSuchService
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: ServiceStop."
# Wine's log formats "[ERROR]" as the (empty) property ERROR, which leaves a blank where the level was.
expect_dll_line --in InstallFinalize " Daemon (#) OpenService failed."
expect_dll_line --in InstallFinalize " Daemon (#) QueryServiceStatus failed with error 6."
expect_removed 'E2E\ServiceStop'

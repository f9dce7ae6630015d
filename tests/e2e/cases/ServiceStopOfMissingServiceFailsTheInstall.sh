# A deferred ServiceStop of a service that is not registered logs the service
# controller's errors and fails the installation with 1603, which rolls it back.
service=QcE2eNoSuchService

package service-stop-missing
install --exit 1603 E2E_SERVICENAME="$service"
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: ServiceStop."
# Wine's log formats "[ERROR]" as the (empty) property ERROR, which leaves a
# blank where the level was.
expect_dll_line --in InstallFinalize " Daemon (#) OpenService failed."
expect_dll_line --in InstallFinalize " Daemon (#) QueryServiceStatus failed with error 6."
expect_no_reg 'HKLM\Software\Quillcast\E2E\ServiceStop'
expect_product_absent

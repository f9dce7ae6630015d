# Wine's PFXExportCertStoreEx is a stub, and msiexec runs the DLL in a process of its own that no test
# redirection reaches: the deferred root creation makes its key and certificate, fails at the export and with
# it the installation (1603), and leaves no certificate and no key container behind. The include's undo of the
# root creation, sequenced before it, runs in the rollback.
root="Quillcast E2E Stub Root"
containers_before=$(wine_run "$certificate_tool" containers | tr -d '\r')

package include -D Name=Certificates
with creating CREATE_AND_INSTALL_ROOT_CERTIFICATE ROOTCERTNAME="$root" \
    CREATE_AND_INSTALL_SIGNED_SERVER_CERTIFICATE ROOTCERTNAME="$root"
install --exit 1603 "${creating[@]}"
expect_arguments <<<"QcCreateAndInstallRootCertificate|$root"
# Wine's log formats "[ERROR]" as the (empty) property ERROR.
expect_dll_line --in InstallFinalize " QcCryptLog (#) CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx1 failed (0).."
expect_dll_line --in InstallFinalize " Certificates (#) CreateCertificate failed with error -6."
expect_dll_line --in QcUndoCreateAndInstallRootCertificate "Workbench (#) Processing custom action: UninstallRootCertificate."
expect_arguments <<<"QcUndoCreateAndInstallRootCertificate|$root"
# The failed root creation ends the script: the server certificate is never tried. (Wine's
# rollback also runs the server's undo, which Windows keeps for actions the script reached.)
expect_no_dll_line "*Processing custom action: CreateAndInstallSignedServerCertificate*"
expect_removed 'E2E\Certificates'

expect_store Root "^$root\\|"
expect_lines "key containers" "$(wine_run "$certificate_tool" containers | tr -d '\r')" "$containers_before"

# Wine's PFXExportCertStoreEx is a stub, and msiexec runs the DLL in a process of
# its own that no test redirection reaches: the deferred root creation makes its
# key and certificate, fails at the export and with it the installation (1603),
# and leaves no certificate and no key container behind.
root="Quillcast E2E Stub Root"
tool=$(windows_path "$QC_BIN_DIR/QcCertStoreTool.exe")
containers_before=$(wine_run "$tool" containers | tr -d '\r')

package certificates
install --exit 1603 E2E_ROOTCERTNAME="$root"
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: CreateAndInstallRootCertificate."
expect_dll_line --in InstallFinalize "QcCryptLog (#) CreateCertAndConvertToPFX()."
# Wine's log formats "[ERROR]" as the (empty) property ERROR.
expect_dll_line --in InstallFinalize " QcCryptLog (#) CreateCertAndConvertToPFX() - ERROR: PFXExportCertStoreEx1 failed (0).."
expect_dll_line --in InstallFinalize " QcCryptLog (#) InternalCreateCertificate() - ERROR: CreateCertAndConvertToPFX failed.."
expect_dll_line --in InstallFinalize " Certificates (#) CreateCertificate failed with error -6."
# The failed root creation ends the script: the server certificate is never tried.
expect_no_dll_line "*Processing custom action: CreateAndInstallSignedServerCertificate*"
expect_no_reg 'HKLM\Software\Quillcast\E2E\Certificates'
expect_product_absent

expect_lines "roots '$root' in the machine's Root store" "$(wine_run "$tool" list Root | tr -d '\r' | grep -F "$root|")"
expect_lines "key containers" "$(wine_run "$tool" containers | tr -d '\r')" "$containers_before"

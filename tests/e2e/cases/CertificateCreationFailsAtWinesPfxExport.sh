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

if wine_run "$tool" list Root | tr -d '\r' | grep -qF "$root|"; then
    fail "a root '$root' is in the machine's Root store"
else
    pass "no root '$root' in the machine's Root store"
fi
containers_after=$(wine_run "$tool" containers | tr -d '\r')
if [ "$containers_after" = "$containers_before" ]; then
    pass "key containers unchanged"
else
    fail "key containers changed: $(diff <(echo "$containers_before") <(echo "$containers_after") | paste -sd' ' -)"
fi

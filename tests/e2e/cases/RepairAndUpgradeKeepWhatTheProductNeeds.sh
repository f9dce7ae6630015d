# A repair and a major upgrade keep what the product set up: one firewall rule and one ICA registration (in
# the 32-bit view only). The certificate creations are switched on for the repair and the upgrade, where they
# must not run. The removal goes last and takes everything away. Wine's RemoveExistingProducts removes the old
# product without setting UPGRADINGPRODUCTCODE, which Windows sets: the upgrade package has none, and the case
# removes the old product the Windows way, after the new one is in place (a late RemoveExistingProducts).
use_test_firewall
machine_key 32 "$ica" VirtualDriver DrvA
with on_install ADD_ICA_CLIENT ADD_PORT_EXCEPTION RULENAME="QC E2E Upgrade" LOCALPORTS=8080
with create CREATE_AND_INSTALL_ROOT_CERTIFICATE ROOTCERTNAME="Quillcast E2E Upgrade Root" \
    CREATE_AND_INSTALL_SIGNED_SERVER_CERTIFICATE ROOTCERTNAME="Quillcast E2E Upgrade Root"
with on_removal REMOVE_ICA_CLIENT REMOVE_PORT_EXCEPTION RULENAME="QC E2E Upgrade" LOCALPORTS=8080
# expect_setup: what the product set up is there, once.
expect_setup() {
    expect_reg "$test_firewall_key\\Rules\\1" Name 'QC E2E Upgrade'
    expect_no_reg "$test_firewall_key\\Rules\\2"
    expect_reg "$ica32" VirtualDriver 'DrvA,QCClnIca'
    expect_no_reg "$ica" VirtualDriver
}

package include --as version1 -D Name=Upgrade
install "${on_install[@]}"
expect_setup
# The installed product again, every file and value rewritten (Installed is set).
msiexec_run /i repair REINSTALL=ALL REINSTALLMODE=omus "${on_install[@]}" "${create[@]}"
expect_dll_line --in QcAddIcaClient "*Found QCClnIca registry value."
expect_no_dll_line "*Processing custom action: CreateAndInstall*"
expect_setup

package include --as version2 -D Name=Upgrade -D Version=2.0.0.0
msibuild "$current_msi" -q "DELETE FROM \`InstallExecuteSequence\` WHERE \`Action\` = 'RemoveExistingProducts'"
install "${on_install[@]}" "${create[@]}"
expect_no_dll_line "*Processing custom action: CreateAndInstall*"
current_msi=$work_dir/version1.msi
uninstall UPGRADINGPRODUCTCODE="$(product_code "$work_dir/version2.msi")" "${on_removal[@]}"
expect_no_dll_line "*Processing custom action: *"
expect_setup

current_msi=$work_dir/version2.msi
uninstall "${on_removal[@]}"
expect_no_reg "$test_firewall_key\\Rules\\1"
expect_reg "$ica32" VirtualDriver DrvA
expect_removed 'E2E\Upgrade'

# A repair and a major upgrade keep what the product set up: one firewall rule,
# one ICA registration, the running service, the one root certificate and its
# server certificate (made by OpenSSL and placed beforehand, standing in for the
# first install's: Wine cannot make them). The certificate creations are
# switched on for the repair and the upgrade, where they must not run (they
# would fail under Wine). The removal goes last and takes everything away.
# Wine's RemoveExistingProducts removes the old product without setting
# UPGRADINGPRODUCTCODE, which Windows sets: the upgrade package here has no
# RemoveExistingProducts, and the case removes the old product the Windows way,
# after the new one is in place, as a late RemoveExistingProducts does.
service=QcE2eUpgrade root="Quillcast E2E Upgrade Root" certs="$work_dir/certs"
add_test_service "$service"
use_test_firewall
machine_key 32 "$ica" VirtualDriver DrvA
mkdir -p "$certs"
make_root "$root" "$certs/root"
make_leaf qc-e2e-server "$certs/root" "$certs/server"
place_certificate Root "$certs/root"
place_certificate MY "$certs/server"

on_install=(QC_ADD_ICA_CLIENT=1 QC_ADD_PORT_EXCEPTION=1 QC_ADD_PORT_EXCEPTION_RULENAME="QC E2E Upgrade"
    QC_ADD_PORT_EXCEPTION_LOCALPORTS=8080 QC_SERVICE_RESTART=1 QC_SERVICE_RESTART_SERVICENAME="$service")
create=(QC_CREATE_AND_INSTALL_ROOT_CERTIFICATE=1 QC_CREATE_AND_INSTALL_ROOT_CERTIFICATE_ROOTCERTNAME="$root"
    QC_CREATE_AND_INSTALL_SIGNED_SERVER_CERTIFICATE=1
    QC_CREATE_AND_INSTALL_SIGNED_SERVER_CERTIFICATE_ROOTCERTNAME="$root")
on_removal=(QC_REMOVE_ICA_CLIENT=1 QC_REMOVE_PORT_EXCEPTION=1 QC_REMOVE_PORT_EXCEPTION_RULENAME="QC E2E Upgrade"
    QC_REMOVE_PORT_EXCEPTION_LOCALPORTS=8080 QC_SERVICE_STOP=1 QC_SERVICE_STOP_SERVICENAME="$service"
    QC_UNINSTALL_SIGNED_CERTIFICATE=1 QC_UNINSTALL_SIGNED_CERTIFICATE_ROOTCERTNAME="$root"
    QC_UNINSTALL_ROOT_CERTIFICATE=1 QC_UNINSTALL_ROOT_CERTIFICATE_ROOTCERTNAME="$root")
# expect_setup: what the product set up is there, once.
expect_setup() {
    expect_reg "$test_firewall_key\\Rules\\1" Name 'QC E2E Upgrade'
    expect_no_reg "$test_firewall_key\\Rules\\2"
    expect_reg "$ica32" VirtualDriver 'DrvA,QCClnIca'
    expect_no_reg "$ica" VirtualDriver
    expect_service_state "$service" RUNNING
    expect_store Root "^$root\\|" "$root|$root"
    expect_store MY "\\|$root\$" "qc-e2e-server|$root"
}

package include --as version1 -D Name=Upgrade
install "${on_install[@]}"
expect_setup
repair "${on_install[@]}" "${create[@]}"
expect_dll_line --in QcAddIcaClient "*Found QCClnIca registry value."
expect_no_dll_line "*Processing custom action: CreateAndInstall*"
expect_setup

package include --as version2 -D Name=Upgrade -D Version=2.0.0.0
msibuild "$current_msi" -q "DELETE FROM \`InstallExecuteSequence\` WHERE \`Action\` = 'RemoveExistingProducts'"
install "${on_install[@]}" "${create[@]}"
expect_property WIX_UPGRADE_DETECTED '\{.*'
expect_no_dll_line "*Processing custom action: CreateAndInstall*"
use_package version1
uninstall UPGRADINGPRODUCTCODE="$(product_code "$work_dir/version2.msi")" "${on_removal[@]}"
expect_no_dll_line "*Processing custom action: *"
expect_setup

use_package version2
uninstall "${on_removal[@]}"
for action in RemoveIcaClient RemovePortException ServiceStop UninstallSignedCertificate UninstallRootCertificate; do
    expect_dll_line --in "Qc$action" "Workbench (#) Processing custom action: $action."
done
expect_no_reg "$test_firewall_key\\Rules\\1"
expect_reg "$ica32" VirtualDriver DrvA
expect_service_state "$service" STOPPED
expect_store Root "^$root\\|"
expect_store MY "\\|$root\$"
expect_removed Upgrade

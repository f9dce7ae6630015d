# GetDomain runs immediately and writes MACHINEDOMAIN (Wine: the workgroup
# WORKGROUP, no PARTOFDOMAIN); a later condition of the same install reads it and
# installs the feature "Workgroup". Uninstalling removes both values.
package domain
install
expect_dll_line --in QcGetDomain "Workbench (#) Processing custom action: GetDomain."
expect_dll_line --in QcGetDomain "WmiConnection (#) Connecting to namespace ROOT\\CIMV2."
expect_dll_line --in QcGetDomain "WmiConnection (#) Processing query Select * from Win32_ComputerSystem."
# Wine's log leaves "[ERROR] " out.
expect_dll_line --in QcGetDomain " WmiClassObject (#) Get for property 'PartOfDomain' failed."
expect_reg 'HKLM\Software\Quillcast\E2E\Domain' MachineDomain WORKGROUP
expect_reg 'HKLM\Software\Quillcast\E2E\Domain' Workgroup 'WORKGROUP member'
expect_product_installed

uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\Domain'
expect_product_absent

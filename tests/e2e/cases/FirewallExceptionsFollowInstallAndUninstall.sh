# Deferred AddPortException and AddProgramException on install, the two
# removals on uninstall, run by Wine's msiexec against the test firewall
# (tests/firewall/QcTestFirewall.c): one rule per exception, gone afterwards.
use_test_firewall
firewall=$test_firewall_key

package include -D Name=Firewall -D Switches=firewall
install
expect_dll_line --in QcAddPortException "Workbench (#) Processing custom action: AddPortException."
expect_arguments QcAddPortException "QC E2E Port" "Quillcast print server" 3 8080,8081 "*" "*" LocalSubnet "*"
expect_dll_line --in QcAddProgramException "Workbench (#) Processing custom action: AddProgramException."
expect_arguments QcAddProgramException "QC E2E Program" "Quillcast client" 2147483647 'C:\Program Files\Quillcast\qc.exe' \
    "NOT DEFINED" "*" "NOT DEFINED" "*" "*"
expect_no_dll_line "*Firewall (*"
expect_reg "$firewall\\Rules\\1" Name 'QC E2E Port'
expect_reg "$firewall\\Rules\\1" LocalPorts '8080,8081'
expect_reg "$firewall\\Rules\\1" Profiles 0x3
expect_reg "$firewall\\Rules\\1" EdgeTraversalOptions 0x2
expect_reg "$firewall\\Rules\\2" Name 'QC E2E Program'
expect_reg "$firewall\\Rules\\2" ApplicationName 'C:\Program Files\Quillcast\qc.exe'
expect_reg "$firewall\\Rules\\2" Protocol 0x100

uninstall
expect_dll_line --in QcRemovePortException "Workbench (#) Processing custom action: RemovePortException."
expect_dll_line --in QcRemoveProgramException "Workbench (#) Processing custom action: RemoveProgramException."
expect_no_dll_line "*Firewall (*"
expect_no_reg "$firewall\\Rules\\1"
expect_no_reg "$firewall\\Rules\\2"
expect_no_reg 'HKLM\Software\Quillcast\E2E\Firewall'
expect_product_absent

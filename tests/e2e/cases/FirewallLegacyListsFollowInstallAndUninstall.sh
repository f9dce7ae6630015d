# The firewall package where the rule interface is missing (the test
# firewall's NoPolicy2 switch): each port and the program go into the legacy
# lists on install and out again on uninstall.
use_test_firewall NoPolicy2
firewall=$test_firewall_key

package include -D Name=Firewall -D Switches=firewall
install
# Wine's log formats "[WARNING] " away (see README.md).
expect_dll_line --in InstallFinalize "*Firewall (#) Failed to get firewall exceptions object with error 2147746132."
expect_reg "$firewall\\OpenPorts\\8080-6" Name 'QC E2E Port'
expect_reg "$firewall\\OpenPorts\\8081-6" Enabled 0x1
expect_reg "$firewall\\AuthorizedApplications\\1" ProcessImageFileName 'C:\Program Files\Quillcast\qc.exe'
expect_reg "$firewall\\AuthorizedApplications\\1" RemoteAddresses '*'
expect_no_reg "$firewall\\Rules"

uninstall
expect_no_reg "$firewall\\OpenPorts\\8080-6"
expect_no_reg "$firewall\\OpenPorts\\8081-6"
expect_no_reg "$firewall\\AuthorizedApplications\\1"
expect_product_absent

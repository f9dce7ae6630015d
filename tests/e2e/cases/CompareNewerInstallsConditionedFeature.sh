# 1.10 against 1.9: CompareVersionString writes "1" during the install, and the
# feature conditioned on it is installed with the rest; uninstalling removes both.
package compare
install E2E_VERSIONA=1.10 E2E_VERSIONB=1.9
expect_dll_line --in CompareVersions "Workbench (#) Processing custom action: CompareVersionString."
expect_property CompareResult 1
expect_reg 'HKLM\Software\Quillcast\E2E\Compare' CompareResult 1
expect_reg 'HKLM\Software\Quillcast\E2E\Compare' Newer '1.10 > 1.9'
expect_product_installed

uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\Compare'
expect_product_absent

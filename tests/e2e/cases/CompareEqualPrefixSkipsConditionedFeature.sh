# 1.2 against 1.2.5: only the fields both versions have count, so the result is
# "0" and the feature conditioned on "1" stays out of the install.
package compare
install E2E_VERSIONA=1.2 E2E_VERSIONB=1.2.5
expect_dll_line --in CompareVersions "Workbench (#) Processing custom action: CompareVersionString."
expect_property CompareResult 0
expect_reg 'HKLM\Software\Quillcast\E2E\Compare' CompareResult 0
expect_no_reg 'HKLM\Software\Quillcast\E2E\Compare' Newer
expect_product_installed

uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\Compare'
expect_product_absent

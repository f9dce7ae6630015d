# GetCustomActionVersion run from the install script writes the version line of
# the DLL into the installer log, and nothing of the validation frame.
package version-deferred
install
# The action's last block is its run inside InstallFinalize, not its scheduling.
expect_dll_line --in InstallFinalize "Workbench (#) Custom Action Dll '*' has version '$QC_PROJECT_VERSION'."
expect_dll_line --in LogVersion "Workbench (#) Custom Action Dll '*' has version '$QC_PROJECT_VERSION'."
expect_no_dll_line "* Processing custom action: *"
expect_reg 'HKLM\Software\Quillcast\E2E\Version' Installed 1.0.0.0

uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\Version'
expect_product_absent

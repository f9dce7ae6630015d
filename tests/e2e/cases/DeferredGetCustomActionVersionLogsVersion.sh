# GetCustomActionVersion run from the install script (the include's row made deferred, without
# impersonation, its result checked, between InstallInitialize and InstallFinalize) writes the
# version line of the DLL into the installer log, and nothing of the validation frame.
package include -D Name=Version -D QcSlotGetCustomActionVersion=650
msibuild "$current_msi" -q "UPDATE \`CustomAction\` SET \`Type\` = 3073 WHERE \`Action\` = 'QcGetCustomActionVersion'"
install QC_GET_CUSTOM_ACTION_VERSION=1
# The action's last block is its run inside InstallFinalize, not its scheduling.
expect_dll_line --in InstallFinalize "Workbench (#) Custom Action Dll '*' has version '$QC_PROJECT_VERSION'."
expect_dll_line --in QcGetCustomActionVersion "Workbench (#) Custom Action Dll '*' has version '$QC_PROJECT_VERSION'."
expect_no_dll_line "* Processing custom action: *"
expect_reg 'HKLM\Software\Quillcast\E2E\Version' Shows 1.0.0.0
uninstall
expect_removed 'E2E\Version'

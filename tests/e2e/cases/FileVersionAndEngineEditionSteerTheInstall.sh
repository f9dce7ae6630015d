# GetFileVersion reads 1.2.3.4 and GetEngineVersion finds the 7.6 engine during
# the immediate phase; the condition on both installs the feature "Matched".
# The deferred SetRemoteConfigDeferred writes the client's list.
engine='HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\.lumen Engine'
client='HKLM\SOFTWARE\Quillcast\Client'
wine_run reg add "$engine" /v DisplayVersion /d 7.6 /reg:64 /f >/dev/null
wine_run reg add "$client" /reg:64 /f >/dev/null

package utility
install E2E_FILEPATH="$(windows_path "$QC_BIN_DIR")" E2E_FILENAME=QcVersion_1_2_3_4.exe \
    QC_SET_REMOTE_CONFIG_DEFERRED_REMOTECONFIG='host1;host2'
expect_dll_line --in QcGetFileVersion "Workbench (#) Processing custom action: GetFileVersion."
expect_dll_line --in QcGetEngineVersion "Workbench (#) Processing custom action: GetEngineVersion."
expect_property GFV_Result 1.2.3.4
expect_property SERVERKIT76 1
expect_reg 'HKLM\Software\Quillcast\E2E\Utility' FileVersion 'version 1.2.3.4'
expect_reg 'HKLM\Software\Quillcast\E2E\Utility' Matched '1.2.3.4 on 1'
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: SetRemoteConfigDeferred."
expect_dll_line --in InstallFinalize "Workbench (#) Argument = host1;host2."
# The value ends in one zero character, not two: Wine's reg takes the last
# character for the list's second terminator and shows 'host1\0host'.
expect_reg "$client" RmtConf 'host1\0host'

uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\Utility'
expect_product_absent

# Another version of the file: the condition fails and "Matched" stays out.
install E2E_FILEPATH="$(windows_path "$QC_BIN_DIR")" E2E_FILENAME=QcVersion_7_1_0_0.exe \
    QC_SET_REMOTE_CONFIG_DEFERRED_REMOTECONFIG=host3
expect_property GFV_Result 7.1.0.0
expect_reg 'HKLM\Software\Quillcast\E2E\Utility' FileVersion 'version 7.1.0.0'
expect_no_reg 'HKLM\Software\Quillcast\E2E\Utility' Matched
uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\Utility'
wine_run reg delete "$engine" /reg:64 /f >/dev/null
wine_run reg delete "$client" /reg:64 /f >/dev/null

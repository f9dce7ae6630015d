# The ICA client's list (32-bit view) holds DrvA: installing appends the
# product's virtual driver, uninstalling restores the list.
ica='HKLM\SOFTWARE\Citrix\ICA Client\Engine\Configuration\Advanced\Modules\ICA 3.0'
ica32='HKLM\SOFTWARE\Wow6432Node\Citrix\ICA Client\Engine\Configuration\Advanced\Modules\ICA 3.0'
wine_run reg add "$ica" /v VirtualDriver /d DrvA /reg:32 /f >/dev/null

package include -D Name=Ica -D Switches=ica
install
expect_dll_line --in QcAddIcaClient "Workbench (#) Processing custom action: AddIcaClient."
expect_reg "$ica32" VirtualDriver 'DrvA,QCClnIca'
expect_no_reg "$ica" VirtualDriver
expect_product_installed

uninstall
expect_dll_line --in QcRemoveIcaClient "Workbench (#) Processing custom action: RemoveIcaClient."
expect_reg "$ica32" VirtualDriver 'DrvA'
expect_no_reg 'HKLM\Software\Quillcast\E2E\Ica'
expect_product_absent
wine_run reg delete "$ica" /reg:32 /f >/dev/null

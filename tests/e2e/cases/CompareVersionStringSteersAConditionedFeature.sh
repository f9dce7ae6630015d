# CompareVersionString writes its result during the install, and the feature
# conditioned on "1" follows it: 1.10 against 1.9 installs it; 1.2 against 1.2.5
# compares only the fields both have, gives "0" and leaves it out.
package compare
for run in '1.10 1.9 1' '1.2 1.2.5 0'; do
    read -r a b result <<<"$run"
    install E2E_VERSIONA="$a" E2E_VERSIONB="$b"
    expect_dll_line --in QcCompareVersionString "Workbench (#) Processing custom action: CompareVersionString."
    expect_property CompareResult "$result"
    expect_reg 'HKLM\Software\Quillcast\E2E\Compare' CompareResult "$result"
    if [ "$result" = 1 ]; then
        expect_reg 'HKLM\Software\Quillcast\E2E\Compare' Newer "$a > $b"
    else
        expect_no_reg 'HKLM\Software\Quillcast\E2E\Compare' Newer
    fi
    expect_product_installed
    uninstall
    expect_no_reg 'HKLM\Software\Quillcast\E2E\Compare'
    expect_product_absent
done

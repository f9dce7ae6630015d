# The immediate GetFileVersion, GetEngineVersion, CompareVersionString and GetDomain write their
# properties in time for a later condition of the same install, which holds only for a file at
# 1.2.3.4, the 7.6 engine, a newer first version and the workgroup WORKGROUP (Wine's answer, without
# PARTOFDOMAIN). 1.2 against 1.2.5 compares only the fields both have: "0".
machine_key 64 'HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\.lumen Engine' DisplayVersion 7.6
steer='GFV_Result = "1.2.3.4" AND SERVERKIT76 = "1" AND CompareResult = "1"'
steer+=' AND MACHINEDOMAIN = "WORKGROUP" AND NOT PARTOFDOMAIN'
while read -r file a b shows; do
    package include --as "$file" --set GFV_FILEPATH="$(windows_path "$QC_BIN_DIR")" \
        --set GFV_FILENAME="QcVersion_$file.exe" --set VersionA="$a" --set VersionB="$b" -D Name=Steer -D "Steer=$steer" \
        -D 'Shows=[E2E_STEERED]:[GFV_Result] [SERVERKIT76] [CompareResult] [MACHINEDOMAIN]'
    install QC_GET_FILE_VERSION=1 QC_GET_ENGINE_VERSION=1 QC_COMPARE_VERSION_STRING=1 QC_GET_DOMAIN=1
    expect_reg 'HKLM\Software\Quillcast\E2E\Steer' Shows "$shows"
    uninstall
    expect_removed 'E2E\Steer'
done <<EOF
1_2_3_4 1.10 1.9 steered:1.2.3.4 1 1 WORKGROUP
7_1_0_0 1.2 1.2.5 :7.1.0.0 1 0 WORKGROUP
EOF

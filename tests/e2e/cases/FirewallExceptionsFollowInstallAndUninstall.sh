# Deferred AddPortException and AddProgramException on install, the two removals on uninstall, run
# by Wine's msiexec against the test firewall (tests/firewall/QcTestFirewall.c): one rule per
# exception, gone afterwards. Where the rule interface is missing (the test firewall's NoPolicy2
# switch) each port and the program go into the legacy lists and out again. The program's ports
# are left out: the include pads them.
program='C:\Program Files\Quillcast\qc.exe' firewall=$test_firewall_key
package include -D Name=Firewall
for switches in "" NoPolicy2; do
    use_test_firewall $switches
    install QC_ADD_PORT_EXCEPTION=1 QC_ADD_PORT_EXCEPTION_RULENAME="QC E2E Port" \
        QC_ADD_PORT_EXCEPTION_RULEDESCRIPTION="Quillcast print server" QC_ADD_PORT_EXCEPTION_PROFILE=3 \
        QC_ADD_PORT_EXCEPTION_LOCALPORTS=8080,8081 QC_ADD_PORT_EXCEPTION_LOCALADDRESSES="*" \
        QC_ADD_PORT_EXCEPTION_REMOTEPORTS="*" QC_ADD_PORT_EXCEPTION_REMOTEADDRESSES=LocalSubnet \
        QC_ADD_PORT_EXCEPTION_SERVICENAME="*" QC_ADD_PROGRAM_EXCEPTION=1 QC_ADD_PROGRAM_EXCEPTION_RULENAME="QC E2E Program" \
        QC_ADD_PROGRAM_EXCEPTION_RULEDESCRIPTION="Quillcast client" QC_ADD_PROGRAM_EXCEPTION_PROGRAMNAME="$program" \
        QC_ADD_PROGRAM_EXCEPTION_LOCALADDRESSES="*" QC_ADD_PROGRAM_EXCEPTION_REMOTEADDRESSES="*" \
        QC_ADD_PROGRAM_EXCEPTION_SERVICENAME="*"
    expect_dll_line --in QcAddPortException "Workbench (#) Processing custom action: AddPortException."
    expect_dll_line --in QcAddProgramException "Workbench (#) Processing custom action: AddProgramException."
    expect_arguments <<EOF
QcAddPortException|QC E2E Port|Quillcast print server|3|8080,8081|*|*|LocalSubnet|*
QcAddProgramException|QC E2E Program|Quillcast client|2147483647|$program|NOT DEFINED|*|NOT DEFINED|*|*
EOF
    if [ -z "$switches" ]; then
        expect_no_dll_line "*Firewall (*"
        expect_reg "$firewall\\Rules\\1" Name 'QC E2E Port'
        expect_reg "$firewall\\Rules\\1" LocalPorts '8080,8081'
        expect_reg "$firewall\\Rules\\1" Profiles 0x3
        expect_reg "$firewall\\Rules\\1" EdgeTraversalOptions 0x2
        expect_reg "$firewall\\Rules\\2" Name 'QC E2E Program'
        expect_reg "$firewall\\Rules\\2" ApplicationName "$program"
        expect_reg "$firewall\\Rules\\2" Protocol 0x100
    else
        # Wine's log formats "[WARNING] " away (see README.md).
        expect_dll_line --in InstallFinalize "*Firewall (#) Failed to get firewall exceptions object with error 2147746132."
        expect_reg "$firewall\\OpenPorts\\8080-6" Name 'QC E2E Port'
        expect_reg "$firewall\\OpenPorts\\8081-6" Enabled 0x1
        expect_reg "$firewall\\AuthorizedApplications\\1" ProcessImageFileName "$program"
        expect_reg "$firewall\\AuthorizedApplications\\1" RemoteAddresses '*'
        expect_no_reg "$firewall\\Rules"
    fi
    uninstall QC_REMOVE_PORT_EXCEPTION=1 QC_REMOVE_PORT_EXCEPTION_RULENAME="QC E2E Port" \
        QC_REMOVE_PORT_EXCEPTION_LOCALPORTS=8080,8081 QC_REMOVE_PROGRAM_EXCEPTION=1 \
        QC_REMOVE_PROGRAM_EXCEPTION_RULENAME="QC E2E Program" QC_REMOVE_PROGRAM_EXCEPTION_PROGRAMNAME="$program"
    expect_dll_line --in QcRemovePortException "Workbench (#) Processing custom action: RemovePortException."
    expect_dll_line --in QcRemoveProgramException "Workbench (#) Processing custom action: RemoveProgramException."
    [ -n "$switches" ] || expect_no_dll_line "*Firewall (*"
    for entry in Rules\\1 Rules\\2 OpenPorts\\8080-6 OpenPorts\\8081-6 AuthorizedApplications\\1; do
        expect_no_reg "$firewall\\$entry"
    done
    expect_removed Firewall
done

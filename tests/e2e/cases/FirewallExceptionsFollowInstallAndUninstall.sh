# Deferred AddPortException and AddProgramException on install, the two removals on uninstall, run
# by Wine's msiexec against the test firewall (tests/firewall/QcTestFirewall.cpp): one rule per
# exception, gone afterwards. Where the rule interface is missing (the test firewall's NoPolicy2
# switch) each port and the program go into the legacy lists and out again. The program's ports
# are left out: the include pads them.
# The firewall takes only a fully qualified path to an existing program.
program='C:\windows\notepad.exe' firewall=$test_firewall_key
with adding ADD_PORT_EXCEPTION RULENAME="QC E2E Port" RULEDESCRIPTION="Quillcast print server" PROFILE=3 \
    LOCALPORTS=8080,8081 LOCALADDRESSES="*" REMOTEPORTS="*" REMOTEADDRESSES=LocalSubnet SERVICENAME="*" \
    ADD_PROGRAM_EXCEPTION RULENAME="QC E2E Program" RULEDESCRIPTION="Quillcast client" PROGRAMNAME="$program" \
    LOCALADDRESSES="*" REMOTEADDRESSES="*" SERVICENAME="*"
with removing REMOVE_PORT_EXCEPTION RULENAME="QC E2E Port" LOCALPORTS=8080,8081 \
    REMOVE_PROGRAM_EXCEPTION RULENAME="QC E2E Program" PROGRAMNAME="$program"
package include -D Name=Firewall
for switches in "" NoPolicy2; do
    use_test_firewall $switches
    install "${adding[@]}"
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
    uninstall "${removing[@]}"
    expect_dll_line --in QcRemovePortException "Workbench (#) Processing custom action: RemovePortException."
    expect_dll_line --in QcRemoveProgramException "Workbench (#) Processing custom action: RemoveProgramException."
    [ -n "$switches" ] || expect_no_dll_line "*Firewall (*"
    for entry in Rules\\1 Rules\\2 OpenPorts\\8080-6 OpenPorts\\8081-6 AuthorizedApplications\\1; do
        expect_no_reg "$firewall\\$entry"
    done
    expect_removed 'E2E\Firewall'
done

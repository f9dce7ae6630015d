# An install that fails after its additions (ServiceStart of a missing service returns 1603) is rolled back:
# the include's rollback actions take the firewall rules (or, without the rule interface, the legacy list
# entries) and the ICA registration away and start the stopped service again: the machine is as it was.
service=QcE2eRollback journal="$work_dir/service-journal.txt"
add_test_service "$service" "--journal=$(windows_path "$journal")"
machine_key 32 "$ica" VirtualDriver DrvA
program='C:\windows\notepad.exe' # an existing program: the firewall takes no other

with failing ADD_ICA_CLIENT ADD_PORT_EXCEPTION RULENAME="QC E2E Rollback Port" LOCALPORTS=8080 \
    ADD_PROGRAM_EXCEPTION RULENAME="QC E2E Rollback Program" PROGRAMNAME="$program" SERVICE_STOP SERVICENAME="$service" \
    SERVICE_START SERVICENAME=QcE2eNoSuchService TIMEOUT=5
package include -D Name=Rollback
for switches in "" NoPolicy2; do
    use_test_firewall $switches
    : >"$journal"
    install --exit 1603 "${failing[@]}"
    expect_dll_line --in QcServiceStart " Daemon (#) OpenService failed."
    # Each addition ran, then its undo with the addition's own inputs.
    for action in AddIcaClient:RemoveIcaClient AddPortException:RemovePortException \
        AddProgramException:RemoveProgramException ServiceStop:ServiceStart; do
        expect_dll_line --in "Qc${action%:*}" "Workbench (#) Processing custom action: ${action%:*}."
        expect_dll_line --in "QcUndo${action%:*}" "Workbench (#) Processing custom action: ${action#*:}."
    done
    expect_arguments <<EOF
QcUndoAddIcaClient|
QcUndoAddPortException|QC E2E Rollback Port|8080
QcUndoAddProgramException|QC E2E Rollback Program|$program
QcUndoServiceStop|$service|NOT DEFINED|NOT DEFINED
EOF
    for entry in Rules\\1 Rules\\2 OpenPorts\\8080-6 AuthorizedApplications\\1; do
        expect_no_reg "$test_firewall_key\\$entry"
    done
    expect_reg "$ica32" VirtualDriver DrvA
    expect_lines "service journal" "$(cat "$journal")" "$service stopped" "$service running"
    expect_service_state "$service" RUNNING
    expect_removed 'E2E\Rollback'
done

# A deferred ServiceRestart ("|SERVICENAME=<name>|DEPENDENCIES=1|TIMEOUT=30")
# run by the install script stops a running service and starts it again. The
# test service (tests/services/QcTestService.cpp) notes each transition in a
# journal; it is registered for this case only.
service=QcE2eServiceRestart
journal="$work_dir/service-journal.txt"

add_test_service "$service" "--journal=$(windows_path "$journal")"
expect_service_state "$service" RUNNING
: >"$journal"

package include -D Name=ServiceRestart -D Switches=service-restart
install QC_SERVICE_RESTART_SERVICENAME="$service"
expect_dll_line --in QcServiceRestart "Workbench (#) Processing custom action: ServiceRestart."
expect_arguments QcServiceRestart "$service" 1 30
# No warning or error of the service controller (see the stop case for how
# Wine shows them).
expect_no_dll_line "*Daemon (*"
expect_lines "service journal" "$(cat "$journal" 2>/dev/null || true)" "$service stopped" "$service running"
expect_service_state "$service" RUNNING
expect_reg 'HKLM\Software\Quillcast\E2E\ServiceRestart' Installed 1.0.0.0

uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\ServiceRestart'
expect_product_absent

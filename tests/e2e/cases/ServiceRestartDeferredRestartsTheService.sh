# A deferred ServiceRestart (";SERVICENAME=<name>;DEPENDENCIES=1;TIMEOUT=30")
# run by the install script stops a running service and starts it again. The
# test service (tests/services/QcTestService.cpp) notes each transition in a
# journal; it is registered for this case only.
service=QcE2eServiceRestart
journal="$work_dir/service-journal.txt"

add_test_service "$service" "--journal=$(windows_path "$journal")"
expect_service_state "$service" RUNNING
: >"$journal"

package service-restart
install E2E_SERVICENAME="$service"
expect_dll_line --in InstallFinalize "Workbench (#) Processing custom action: ServiceRestart."
# No warning or error of the service controller (see the stop case for how
# Wine shows them).
expect_no_dll_line "*Daemon (*"
expect_lines "service journal" "$(cat "$journal" 2>/dev/null || true)" "$service stopped" "$service running"
expect_service_state "$service" RUNNING
expect_reg 'HKLM\Software\Quillcast\E2E\ServiceRestart' Installed 1.0.0.0

uninstall
expect_no_reg 'HKLM\Software\Quillcast\E2E\ServiceRestart'
expect_product_absent

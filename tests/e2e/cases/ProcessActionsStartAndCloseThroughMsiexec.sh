# CloseProcessImmediately closes a running instance of a program (started here, windowless, so it is
# terminated without a wait), and the install script's CreateProcessDeferred starts the test program
# hidden and waits for its end. The program (tests/process/QcTestProgram.cpp) records each start in
# <program>.record: command line, directory, show command.
program="$work_dir/QcE2eProgram.exe"
cp "$QC_BIN_DIR/QcTestProgram.exe" "$program"
record="$program.record"

# The running instance: the wine launcher ends with the program and passes on
# its exit code (0: terminated by the action; 4: it ended by itself).
timeout 150 wine "$program" --hold --release-event=QcE2eNeverReleased </dev/null >/dev/null 2>&1 &
running=$! && background+=("$running")
for _ in $(seq 100); do [ -s "$record" ] && break; sleep 0.1; done
: >"$record"

# The command line has no quotes (msiexec's command line cannot carry them): the path has no blanks.
package include --set CloseProcessProperty=QcE2eProgram.exe --set CloseProcessTimeout=5 -D Name=Processes
install QC_CLOSE_PROCESS_IMMEDIATELY=1 QC_CREATE_PROCESS_DEFERRED=1 \
    QC_CREATE_PROCESS_DEFERRED_CMDLINE="$(windows_path "$program") --run-ms=1500 --exit-code=3"
expect_dll_line --in QcCloseProcessImmediately "Workbench (#) Processing custom action: CloseProcessImmediately."
expect_no_dll_line --in QcCloseProcessImmediately "*Process (*"
expect_dll_line --in InstallFinalize "Various (#) Exit code of process is 3."

# A running instance left open ends at the launcher's time-out (124).
status=0
wait "$running" || status=$?
outcome "$status" "the running instance was terminated" "the running instance ended with $status"
# The record: command line, directory, show command (0: hidden).
expect_lines "the started program's record" "$(cut -f1,3 <"$record" | tr -d '\r')" \
    "$(windows_path "$program") --run-ms=1500 --exit-code=3"$'\t'0

uninstall
expect_removed 'E2E\Processes'

# The test programs the sample package (scripts/demo.sh, e2e_Sample) uses as
# well as the tests: the test service, the helper program and the test
# firewall. Built with and without the test tree, so the demo needs neither
# GoogleTest nor the tests.
set(QC_KIT_DIR ${CMAKE_CURRENT_LIST_DIR})

add_executable(QcTestService ${QC_KIT_DIR}/services/QcTestService.cpp)
target_link_libraries(QcTestService PRIVATE advapi32 shell32)

add_executable(QcTestProgram ${QC_KIT_DIR}/process/QcTestProgram.cpp)
target_link_options(QcTestProgram PRIVATE -municode)
target_link_libraries(QcTestProgram PRIVATE user32)

add_library(QcTestFirewall SHARED ${QC_KIT_DIR}/firewall/QcTestFirewall.cpp ${QC_KIT_DIR}/firewall/QcTestFirewall.def)
set_target_properties(QcTestFirewall PROPERTIES PREFIX "")
target_include_directories(QcTestFirewall PRIVATE ${QC_KIT_DIR} ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(QcTestFirewall PRIVATE ole32 oleaut32 uuid advapi32 ws2_32)

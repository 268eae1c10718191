# The runs of the monitor that the tests make: short ones, as fast as possible. What it says when
# something is wrong, and its exit statuses, are in tests/monitor/program_test.py.

# monitor_test(name SECONDS argument...)
function(monitor_test name seconds)
    add_test(NAME monitor.${name} COMMAND monitor ${ARGN})
    set_tests_properties(monitor.${name} PROPERTIES LABELS "monitor" TIMEOUT ${seconds})
endfunction()

monitor_test(headless 60 --headless --speed max --frames 320)
monitor_test(real-time 60 --headless --speed 4 --duration 2)
monitor_test(one-frame 60 --headless --speed max --frames 1)
monitor_test(fail-block 60 --headless --speed max --frames 60 --fail-block 3)
monitor_test(drop-token 60 --headless --speed max --frames 12 --drop-token 6)
monitor_test(silent 60 --headless --speed max --silent)

add_test(NAME monitor.record COMMAND ${CMAKE_COMMAND}
    -DMONITOR=$<TARGET_FILE:monitor> -DRECORD=$<TARGET_FILE:kiroweb_record>
    -DFILE=${CMAKE_CURRENT_BINARY_DIR}/recorded.mcap
    -P ${CMAKE_CURRENT_SOURCE_DIR}/ExpectRecord.cmake)
set_tests_properties(monitor.record PROPERTIES LABELS "monitor" TIMEOUT 60)

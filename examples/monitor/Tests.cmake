# The runs of the monitor that the tests make: short ones, as fast as possible.

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
monitor_test(help 10 --help)

# A wrong option: one line on standard error that names it, and exit status 2.
# monitor_rejects(name EXIT MESSAGE argument...)
function(monitor_rejects name status message)
    add_test(NAME monitor.${name} COMMAND ${CMAKE_COMMAND}
        -DMONITOR=$<TARGET_FILE:monitor> -DSTATUS=${status} "-DMESSAGE=${message}"
        "-DARGUMENTS=${ARGN}" -P ${CMAKE_CURRENT_SOURCE_DIR}/ExpectOneLine.cmake)
    set_tests_properties(monitor.${name} PROPERTIES LABELS "monitor" TIMEOUT 10)
endfunction()

monitor_rejects(bad-option 2 "--frames" --headless --frames=-1)
monitor_rejects(unknown-option 2 "--frobnicate" --headless --frobnicate)
monitor_rejects(fault-for-page 2 "need --headless" --drop-token=3)
monitor_rejects(headless-page 2 "--port" --headless --port=1)
if(TARGET kiroweb::gateway)
    monitor_rejects(no-client 1 "cannot read" --client=nowhere)
    monitor_rejects(no-diagnostics 1 "cannot be written" --diagnostics=nowhere/file)
else()
    monitor_rejects(no-gateway 2 "without the gateway" --no-browser)
endif()
monitor_rejects(endless-wait 2 "--timeout 0" --headless --silent --timeout=0)
monitor_rejects(no-data 1 "cannot be opened" --headless --data=nowhere)

add_test(NAME monitor.record COMMAND ${CMAKE_COMMAND}
    -DMONITOR=$<TARGET_FILE:monitor> -DFILE=${CMAKE_CURRENT_BINARY_DIR}/recorded.json
    -P ${CMAKE_CURRENT_SOURCE_DIR}/ExpectRecord.cmake)
set_tests_properties(monitor.record PROPERTIES LABELS "monitor" TIMEOUT 60)

# Runs MONITOR with ARGUMENTS; it must end with STATUS and one line on standard error that holds
# MESSAGE.
execute_process(COMMAND ${MONITOR} ${ARGUMENTS}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE error)
if(NOT status STREQUAL STATUS)
    message(FATAL_ERROR "exit status ${status} instead of ${STATUS}: ${error}")
endif()
string(FIND "${error}" "${MESSAGE}" place)
if(place EQUAL -1 OR NOT error MATCHES "^monitor: [^\n]*\n$" OR NOT out STREQUAL "")
    message(FATAL_ERROR "not one clear line: ${error}${out}")
endif()

# Runs MONITOR with --record FILE: RECORD must find a whole recording of as many frames.
set(frames 3)
execute_process(COMMAND ${MONITOR} --headless --speed max --frames ${frames} --record ${FILE}
    COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${RECORD} info ${FILE} OUTPUT_VARIABLE info COMMAND_ERROR_IS_FATAL ANY)
# A reconnection and a new view repeat one frame each.
math(EXPR sent "${frames} + 2")
if(NOT info MATCHES "\nframes +${sent} +" OR NOT info MATCHES "\ntokens +${frames} +")
    message(FATAL_ERROR "Not ${sent} frames and ${frames} tokens:\n${info}")
endif()

# Installs BUILD_DIR below WORK_DIR, moves the installed tree, and fails when a file in it still
# knows where it was built or first installed.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/staged
                OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
file(RENAME ${WORK_DIR}/staged ${WORK_DIR}/moved)

execute_process(
    COMMAND grep -rlF -e ${BUILD_DIR} -e ${SOURCE_DIR} -e ${WORK_DIR} ${WORK_DIR}/moved
    OUTPUT_VARIABLE _files RESULT_VARIABLE _result)
if(NOT _result EQUAL 1)
    message(FATAL_ERROR "Paths of the build in installed files:\n${_files}")
endif()

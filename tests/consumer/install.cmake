# Installs BUILD_DIR below WORK_DIR, moves the installed tree, and fails when a file in it still
# knows where it was built or first installed, or when the README shows another program than the one
# that is built with it.
file(READ ${SOURCE_DIR}/README.md _readme)
file(READ ${CMAKE_CURRENT_LIST_DIR}/project/figure.cpp _program)
string(FIND "${_readme}" "```cpp\n${_program}```" _place)
if(_place EQUAL -1)
    message(FATAL_ERROR "The README's program is not tests/consumer/project/figure.cpp")
endif()

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

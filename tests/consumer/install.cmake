# Installs BUILD_DIR below WORK_DIR, moves the installed tree, and fails when a file in it still
# knows where it was built or first installed, or when the documentation, the page's modules or the
# declarations of one are not there. Makes projects of the programs in README.md and docs/library.md.
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

set(_wanted doc/kiroweb/protocol.md)
if(HAS_GATEWAY)
    list(APPEND _wanted kiroweb/client/protocol.mjs)
endif()
foreach(_file IN LISTS _wanted)
    if(NOT EXISTS ${WORK_DIR}/moved/share/${_file})
        message(FATAL_ERROR "Not installed: share/${_file}")
    endif()
endforeach()
file(GLOB _modules ${WORK_DIR}/moved/share/kiroweb/client/*.mjs)
foreach(_module IN LISTS _modules)
    string(REGEX REPLACE "mjs$" "d.mts" _declaration ${_module})
    if(NOT EXISTS ${_declaration})
        message(FATAL_ERROR "No declarations beside ${_module}; see client/README.md")
    endif()
endforeach()

# The text of the first block in `language` below `heading` in `page`.
function(block_of page heading language result)
    file(READ ${SOURCE_DIR}/${page} _rest)
    string(FIND "${_rest}" "\n## ${heading}\n" _begin)
    string(SUBSTRING "${_rest}" ${_begin} -1 _rest)
    set(_open "\n```${language}\n")
    string(FIND "${_rest}" "${_open}" _begin)
    string(LENGTH "${_open}" _length)
    math(EXPR _begin "${_begin} + ${_length}")
    string(SUBSTRING "${_rest}" ${_begin} -1 _rest)
    string(FIND "${_rest}" "```\n" _end)
    string(SUBSTRING "${_rest}" 0 ${_end} _block)
    set(${result} "${_block}" PARENT_SCOPE)
endfunction()

# The program and the project below `heading`, as WORK_DIR/name.
function(make_project page heading name)
    block_of(${page} "${heading}" cpp _program)
    block_of(${page} "${heading}" cmake _project)
    file(WRITE ${WORK_DIR}/${name}/${name}.cpp "${_program}")
    file(WRITE ${WORK_DIR}/${name}/CMakeLists.txt
         "cmake_minimum_required(VERSION 3.25)\nproject(${name} LANGUAGES CXX)\n${_project}")
endfunction()

make_project(docs/library.md "A library in thirty lines" figure)
make_project(docs/library.md "Serving pages" page)
make_project(README.md "Ten lines" oscillation)

# The modules that a page needs to speak to the gateway. The only list of them is what protocol.mjs
# imports, and what that imports in turn.
#
# kiroweb_client_modules(RESULT): their files, sorted. Configures anew when one of them changes.
function(kiroweb_client_modules result)
    set(_todo ${PROJECT_SOURCE_DIR}/client/protocol.mjs)
    set(_done "")
    while(_todo)
        list(POP_FRONT _todo _file)
        if(_file IN_LIST _done)
            continue()
        endif()
        list(APPEND _done ${_file})
        set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_file})
        file(STRINGS ${_file} _lines REGEX "from \"\\./[a-z0-9_]+\\.mjs\"|^import \"\\./[a-z0-9_]+\\.mjs\"")
        foreach(_line IN LISTS _lines)
            string(REGEX REPLACE "^.*\"\\./([a-z0-9_]+\\.mjs)\".*$" "\\1" _name "${_line}")
            list(APPEND _todo ${PROJECT_SOURCE_DIR}/client/${_name})
        endforeach()
    endwhile()
    list(SORT _done)
    set(${result} ${_done} PARENT_SCOPE)
endfunction()

# The page of figures as a source file. It is built by "npm run build" in client/, into client/dist.
#
# kiroweb_embed_page(RESULT): the source of kiropage::files(). Where the page was not built, a notice
# stands in for it, and a warning says so.
function(kiroweb_embed_page result)
    set(_dist ${PROJECT_SOURCE_DIR}/client/dist)
    file(GLOB _files CONFIGURE_DEPENDS ${_dist}/*.html ${_dist}/*.js ${_dist}/*.css ${_dist}/*.svg)
    foreach(_name index.html single.html page.js worker.js page.css)
        if(NOT ${_dist}/${_name} IN_LIST _files)
            set(_missing ${_name})
        endif()
    endforeach()
    if(_missing)
        message(WARNING "client/dist has no ${_missing}: programs will serve a notice. "
                        "\"npm ci && npm run build\" in client/ makes the page.")
        set(_files ${PROJECT_SOURCE_DIR}/client/no_page/index.html)
    endif()
    set(_source ${CMAKE_CURRENT_BINARY_DIR}/PageFiles.cpp)
    add_custom_command(OUTPUT ${_source}
        COMMAND ${CMAKE_COMMAND} -DOUTPUT=${_source} "-DFILES=${_files}"
                -P ${PROJECT_SOURCE_DIR}/cmake/embed_page.cmake
        DEPENDS ${_files} ${PROJECT_SOURCE_DIR}/cmake/embed_page.cmake
        VERBATIM)
    set_source_files_properties(${_source} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    set(${result} ${_source} PARENT_SCOPE)
endfunction()

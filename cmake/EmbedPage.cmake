# The page of figures as a source file. It is built by "npm run build" in client/, into client/dist.
#
# kiroweb_embed_page(RESULT NAMESPACE TYPE HEADER): the source of NAMESPACE::pageAssets(), which returns
# a std::vector<TYPE> of {path, content type, text}; HEADER declares both. Where the page was not
# built, a notice stands in for it, and a warning says so.
function(kiroweb_embed_page result namespace type header)
    set(_dist ${PROJECT_SOURCE_DIR}/client/dist)
    file(GLOB _files CONFIGURE_DEPENDS ${_dist}/*.html ${_dist}/*.js ${_dist}/*.css ${_dist}/*.svg)
    if(NOT ${_dist}/index.html IN_LIST _files)
        message(WARNING "client/dist has no page: windows will serve a notice. "
                        "\"npm ci && npm run build\" in client/ makes the page.")
        set(_files ${PROJECT_SOURCE_DIR}/figures/no_page/index.html)
    endif()
    set(_source ${CMAKE_CURRENT_BINARY_DIR}/PageAssets.cpp)
    add_custom_command(OUTPUT ${_source}
        COMMAND ${CMAKE_COMMAND} -DOUTPUT=${_source} "-DFILES=${_files}"
                -DNAMESPACE=${namespace} -DTYPE=${type} -DHEADER=${header}
                -P ${PROJECT_SOURCE_DIR}/cmake/embed_page.cmake
        DEPENDS ${_files} ${PROJECT_SOURCE_DIR}/cmake/embed_page.cmake
        VERBATIM)
    set(${result} ${_source} PARENT_SCOPE)
endfunction()

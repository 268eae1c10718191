# cmake -DOUTPUT=FILE -DFILES=LIST -DNAMESPACE=N -DTYPE=T -DHEADER=H -P embed_page.cmake: writes the
# source of N::pageAssets(), which H declares: a vector of T with the bytes of each file in it. As bytes, since a literal has
# a largest length and a file may hold what ends it.
set(_html "text/html; charset=utf-8")
set(_js "text/javascript; charset=utf-8")
set(_css "text/css; charset=utf-8")
set(_svg "image/svg+xml")

set(_arrays "")
set(_assets "")
set(_number 0)
foreach(_file IN LISTS FILES)
    get_filename_component(_name ${_file} NAME)
    get_filename_component(_ending ${_file} LAST_EXT)
    string(SUBSTRING "${_ending}" 1 -1 _ending)
    if(NOT DEFINED _${_ending})
        message(FATAL_ERROR "${_name}: no type is known for \".${_ending}\"")
    endif()
    set(_path "/${_name}")
    if(_name STREQUAL "index.html")
        set(_path "/")
    endif()
    file(READ ${_file} _bytes HEX)
    string(REGEX REPLACE "(..)" "0x\\1," _bytes "${_bytes}")
    string(APPEND _arrays "constexpr unsigned char kFile${_number}[] = {${_bytes}};\n")
    string(APPEND _assets "        {\"${_path}\", \"${_${_ending}}\", textOf(kFile${_number})},\n")
    math(EXPR _number "${_number} + 1")
endforeach()
file(WRITE ${OUTPUT} "// Written by embed_page.cmake.
#include <span>
#include <string>

#include \"${HEADER}\"

namespace ${NAMESPACE} {

namespace {

std::string textOf(std::span<const unsigned char> bytes) {
    return {bytes.begin(), bytes.end()};
}

${_arrays}
}  // namespace

std::vector<${TYPE}> pageAssets() {
    return {
${_assets}    };
}

}  // namespace ${NAMESPACE}
")

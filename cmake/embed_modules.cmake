# cmake -DOUTPUT=FILE -DMODULES=LIST -P embed_modules.cmake: writes the source of
# kirogateway::clientAssets(), with the text of each module in it.
set(_source "// Written by embed_modules.cmake from the modules in client/.
#include \"kirogateway/Options.hpp\"

namespace kirogateway {

std::vector<Asset> clientAssets() {
    static constexpr const char* kType = \"text/javascript; charset=utf-8\";
    return {
")
foreach(_module IN LISTS MODULES)
    file(READ ${_module} _text)
    get_filename_component(_name ${_module} NAME)
    string(FIND "${_text}" ")module\"" _place)
    if(NOT _place EQUAL -1)
        message(FATAL_ERROR "${_name} has what ends the literal that it is to stand in")
    endif()
    string(APPEND _source "        {\"/kiroweb/${_name}\", kType, R\"module(${_text})module\"},\n")
endforeach()
string(APPEND _source "    };
}

}  // namespace kirogateway
")
file(WRITE ${OUTPUT} "${_source}")

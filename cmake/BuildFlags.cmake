# The one home of this project's compiler flags: warnings and instrumentation on a private interface
# target. Every target of the project links it privately, so consumers never see it.
add_library(kiroweb_flags INTERFACE)
add_library(kiroweb::flags ALIAS kiroweb_flags)

target_compile_features(kiroweb_flags INTERFACE cxx_std_20)
target_compile_options(kiroweb_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wold-style-cast
    -Woverloaded-virtual
    # GCC 12 sees overlaps in "text" + std::string() that are not there.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
    $<$<BOOL:${KIROWEB_WARNINGS_AS_ERRORS}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Werror=thread-safety>)
target_include_directories(kiroweb_flags INTERFACE ${PROJECT_SOURCE_DIR}/common)
# As the host's headers have it, whichever header of Boost.Thread comes first.
target_compile_definitions(kiroweb_flags INTERFACE BOOST_THREAD_VERSION=4)
# Where several sources are compiled as one, a type of a source's own is as private as it was.
target_compile_options(kiroweb_flags INTERFACE
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:${CMAKE_UNITY_BUILD}>>:-Wno-subobject-linkage>)
# Preconditions and the order of locks are checked where a wrong call should stop at once.
target_compile_definitions(kiroweb_flags INTERFACE
    $<$<OR:$<CONFIG:Debug>,$<BOOL:${KIROWEB_SANITIZE}>>:KIROWEB_CHECKED>)

if(KIROWEB_SANITIZE)
    list(JOIN KIROWEB_SANITIZE "," _sanitize)
    target_compile_options(kiroweb_flags INTERFACE
        -fsanitize=${_sanitize} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(kiroweb_flags INTERFACE -fsanitize=${_sanitize})
endif()
if(KIROWEB_BUILD_FUZZ)
    # Lets a fuzzer see which edges of our code it reaches; the fuzzer itself is linked to its
    # targets only, see fuzz/.
    target_compile_options(kiroweb_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(KIROWEB_COVERAGE)
    target_compile_options(kiroweb_flags INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(kiroweb_flags INTERFACE --coverage)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

# What `cmake --install` writes: the library, the stand-in host and the gateway when they are built,
# their headers, the modules of a page, a CMake package, pkg-config files and the documentation. All
# of it can be moved to another prefix afterwards.
include(CMakePackageConfigHelpers)

set(_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kiroweb)

# The host has an export of its own, so that somebody with another host leaves it out.
if(NOT KIROWEB_HOST_TARGET)
    install(TARGETS kiroweb_host EXPORT kirowebhostTargets)
    install(EXPORT kirowebhostTargets NAMESPACE kiroweb:: DESTINATION ${_cmake_dir})
    install(DIRECTORY host/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
            FILES_MATCHING PATTERN "*.hpp")
endif()

# A component, for it needs more than the library does.
if(TARGET kiroweb_gateway)
    install(TARGETS kiroweb_gateway EXPORT kirowebgatewayTargets)
    install(EXPORT kirowebgatewayTargets NAMESPACE kiroweb:: DESTINATION ${_cmake_dir})
    install(DIRECTORY gateway/include/ ${PROJECT_BINARY_DIR}/gateway/include/
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.hpp")
    # The modules are in the library, too; here they are for build tools and editors, which look
    # for a module's declarations beside it.
    kiroweb_client_modules(_client_files)
    foreach(_module IN LISTS _client_files)
        get_filename_component(_name ${_module} NAME_WE)
        set(_declaration ${PROJECT_SOURCE_DIR}/client/declarations/${_name}.d.mts)
        if(EXISTS ${_declaration})
            list(APPEND _client_files ${_declaration})
        endif()
    endforeach()
    install(FILES ${_client_files} DESTINATION ${CMAKE_INSTALL_DATADIR}/kiroweb/client)
endif()

# Needs neither gateway nor library.
if(TARGET kiroweb_recording)
    install(TARGETS kiroweb_recording EXPORT kirowebrecordingTargets)
    install(TARGETS kiroweb_record kiroweb_replay kiroweb_export)
    install(EXPORT kirowebrecordingTargets NAMESPACE kiroweb:: DESTINATION ${_cmake_dir})
    install(DIRECTORY recording/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
            FILES_MATCHING PATTERN "*.hpp")
endif()

# The way to gateways on other machines.
if(TARGET kiroweb_link)
    install(TARGETS kiroweb_link kiroweb_link_core EXPORT kiroweblinkTargets)
    install(EXPORT kiroweblinkTargets NAMESPACE kiroweb:: DESTINATION ${_cmake_dir})
    install(DIRECTORY link/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
            FILES_MATCHING PATTERN "*.hpp")
endif()

# A component as well, above the gateway, the link and the recording.
if(TARGET kiroweb_figures)
    install(TARGETS kiroweb_figures EXPORT kirowebfiguresTargets)
    install(EXPORT kirowebfiguresTargets NAMESPACE kiroweb:: DESTINATION ${_cmake_dir})
    install(DIRECTORY figures/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
            FILES_MATCHING PATTERN "*.hpp")
endif()

# The host's library lies beside this one, wherever the two are moved.
set_target_properties(kiroweb PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS kiroweb EXPORT kirowebTargets)
install(EXPORT kirowebTargets NAMESPACE kiroweb:: DESTINATION ${_cmake_dir})
install(DIRECTORY include/ ${PROJECT_BINARY_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.hpp")

configure_package_config_file(cmake/kirowebConfig.cmake.in kirowebConfig.cmake
    INSTALL_DESTINATION ${_cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(kirowebConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kirowebConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kirowebConfigVersion.cmake
        DESTINATION ${_cmake_dir})

# The .pc files name their prefix relative to where they lie.
file(RELATIVE_PATH _pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" _pc_to_prefix ${_pc_to_prefix})
set(_pc_modules kiroweb)
set(_pc_requires "")
if(NOT KIROWEB_HOST_TARGET)
    list(APPEND _pc_modules kirowebhost)
    set(_pc_requires "kirowebhost = ${PROJECT_VERSION}")
endif()
if(TARGET kiroweb_gateway)
    list(APPEND _pc_modules kirowebgateway)
endif()
if(TARGET kiroweb_link)
    list(APPEND _pc_modules kiroweblink)
endif()
if(TARGET kiroweb_recording)
    list(APPEND _pc_modules kirowebrecording)
endif()
if(TARGET kiroweb_figures)
    list(APPEND _pc_modules kirowebfigures)
endif()
foreach(_module IN LISTS _pc_modules)
    configure_file(cmake/${_module}.pc.in ${_module}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${_module}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR})

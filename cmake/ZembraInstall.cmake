# What `cmake --install` puts in place. Components: Runtime (shared libraries), Development, Sandbox (the program),
# SandboxDevelopment.
include(CMakePackageConfigHelpers)

# zembra_install_config(<package> <component> [<file>...]): its CMake package, and files beside it
function(zembra_install_config package component)
    set(directory "${CMAKE_INSTALL_LIBDIR}/cmake/${package}")
    configure_package_config_file("cmake/${package}Config.cmake.in" "${PROJECT_BINARY_DIR}/${package}Config.cmake"
                                  INSTALL_DESTINATION "${directory}")
    write_basic_package_version_file("${PROJECT_BINARY_DIR}/${package}ConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
    install(
        FILES "${PROJECT_BINARY_DIR}/${package}Config.cmake" "${PROJECT_BINARY_DIR}/${package}ConfigVersion.cmake" ${ARGN}
        DESTINATION "${directory}"
        COMPONENT ${component})
    install(
        EXPORT ${package}Targets
        NAMESPACE Zembra::
        DESTINATION "${directory}"
        COMPONENT ${component})
endfunction()

install(
    TARGETS ZembraPlatform ZembraCoreSDK
    EXPORT ZembraCoreSDKTargets
    LIBRARY COMPONENT Runtime NAMELINK_COMPONENT Development
    ARCHIVE COMPONENT Development
    FILE_SET HEADERS COMPONENT Development)
zembra_install_config(ZembraCoreSDK Development cmake/ZembraBundle.cmake)

# Who links static libraries links what they are built on, too.
if(BUILD_SHARED_LIBS)
    set(ZEMBRA_PC_REQUIRES "Requires.private")
    set(ZEMBRA_PC_THREADS "")
else()
    set(ZEMBRA_PC_REQUIRES "Requires")
    set(ZEMBRA_PC_THREADS " -pthread")
endif()
file(RELATIVE_PATH ZEMBRA_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/zembra-core-sdk.pc.in "${PROJECT_BINARY_DIR}/zembra-core-sdk.pc" @ONLY)
install(
    FILES "${PROJECT_BINARY_DIR}/zembra-core-sdk.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT Development)

if(ZEMBRA_BUILD_SANDBOX)
    install(TARGETS zembra-sandbox COMPONENT Sandbox)
    install(
        FILES sandbox/README.md
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/zembra-sandbox"
        COMPONENT Sandbox)
    install(
        TARGETS ZembraSandbox
        EXPORT ZembraSandboxTargets
        ARCHIVE COMPONENT SandboxDevelopment
        FILE_SET HEADERS COMPONENT SandboxDevelopment)
    zembra_install_config(ZembraSandbox SandboxDevelopment)
endif()

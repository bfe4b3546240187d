# What `cmake --install` puts in place and what cpack makes packages of. Components: Runtime, Development, Sandbox.
include(CMakePackageConfigHelpers)

set(config_directory "${CMAKE_INSTALL_LIBDIR}/cmake/ZembraCoreSDK")
install(
    TARGETS ZembraPlatform ZembraCoreSDK
    EXPORT ZembraCoreSDKTargets
    LIBRARY COMPONENT Runtime NAMELINK_COMPONENT Development
    ARCHIVE COMPONENT Development
    FILE_SET HEADERS COMPONENT Development)
install(
    EXPORT ZembraCoreSDKTargets
    NAMESPACE Zembra::
    DESTINATION "${config_directory}"
    COMPONENT Development)

configure_package_config_file(cmake/ZembraCoreSDKConfig.cmake.in "${PROJECT_BINARY_DIR}/ZembraCoreSDKConfig.cmake"
                              INSTALL_DESTINATION "${config_directory}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/ZembraCoreSDKConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(
    FILES "${PROJECT_BINARY_DIR}/ZembraCoreSDKConfig.cmake" "${PROJECT_BINARY_DIR}/ZembraCoreSDKConfigVersion.cmake"
          cmake/ZembraBundle.cmake
    DESTINATION "${config_directory}"
    COMPONENT Development)

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

if(TARGET zembra-sandbox)
    install(TARGETS zembra-sandbox COMPONENT Sandbox)
    install(
        FILES sandbox/README.md
        DESTINATION "${CMAKE_INSTALL_DOCDIR}/sandbox"
        COMPONENT Sandbox)
endif()

# Packages ---------------------------------------------------------------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The ZembraCoreSDK developers")
set(CPACK_PACKAGE_CONTACT "The ZembraCoreSDK developers <maintainers@zembra.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")
set(CPACK_COMPONENTS_ALL Development)
if(BUILD_SHARED_LIBS)
    list(APPEND CPACK_COMPONENTS_ALL Runtime)
endif()
if(TARGET zembra-sandbox)
    list(APPEND CPACK_COMPONENTS_ALL Sandbox)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/ios-sdk/ZembraPlatform"
                                                "${PROJECT_BINARY_DIR}/ios-sdk/ZembraCoreSDK")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libzembra-core-sdk${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzembra-core-sdk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_SANDBOX_PACKAGE_NAME zembra-sandbox)
set(CPACK_DEBIAN_SANDBOX_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: the shared libraries")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: headers and what building against them needs")
set(CPACK_COMPONENT_SANDBOX_DESCRIPTION "A local stand-in for the Zembra platform's API")
if(BUILD_SHARED_LIBS)
    set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)
endif()
include(CPack)

# What `cpack` makes Debian packages of, one a component, and what stands with each of them in share/doc: its copyright, its
# changelogs, its bill of materials. The same sources make the same packages, byte by byte.

set(runtime_package "libzembra-core-sdk${PROJECT_VERSION_MAJOR}")
set(package_of_Development libzembra-core-sdk-dev)
set(package_of_Runtime "${runtime_package}")
set(package_of_Sandbox zembra-sandbox)
set(package_of_SandboxDevelopment libzembra-sandbox-dev)
set(components Development)
if(BUILD_SHARED_LIBS)
    list(APPEND components Runtime)
endif()
if(ZEMBRA_BUILD_SANDBOX)
    list(APPEND components Sandbox SandboxDevelopment)
endif()

# The release and its day, as CHANGELOG.md has them.
file(STRINGS CHANGELOG.md releases REGEX "^## [0-9]")
list(FILTER releases INCLUDE REGEX "^## ${PROJECT_VERSION} - [0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]$")
if(NOT releases)
    message(FATAL_ERROR "CHANGELOG.md has no section \"## ${PROJECT_VERSION} - <year>-<month>-<day>\"")
endif()
string(REGEX REPLACE "^.* " "" release_date "${releases}")

# Documents of the packages -----------------------------------------------------------------------------------------
set(documents "${PROJECT_BINARY_DIR}/package-documents")
set(maintainer "The ZembraCoreSDK developers <maintainers@zembra.example>")
file(READ LICENSE license)
string(REGEX REPLACE "^MIT License\n\nCopyright [(]c[)] ([^\n]*)\n\n" "" license "${license}")
set(copyright_line "${CMAKE_MATCH_1}")
string(REGEX REPLACE "\n+$" "" license "${license}")
string(REPLACE "\n\n" "\n.\n" license "${license}")
string(REPLACE "\n" "\n " license "${license}")
file(
    GENERATE
    OUTPUT "${documents}/copyright"
    CONTENT
        "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ${PROJECT_NAME}

Files: *
Copyright: ${copyright_line}
License: Expat
 ${license}
")
# The day as Debian's changelog wants it, and as the time of all that is packed.
set(ENV{LC_ALL} C)
execute_process(COMMAND date --utc --date=${release_date} "+%a, %d %b %Y %H:%M:%S +0000;%s"
                OUTPUT_VARIABLE release_time OUTPUT_STRIP_TRAILING_WHITESPACE)
list(GET release_time 0 release_day)
list(GET release_time 1 release_time)
find_program(GZIP gzip REQUIRED)
add_custom_command(
    OUTPUT "${documents}/changelog.gz"
    COMMAND "${GZIP}" -9 --no-name --stdout "${PROJECT_SOURCE_DIR}/CHANGELOG.md" > "${documents}/changelog.gz"
    DEPENDS CHANGELOG.md)
set(document_files "${documents}/changelog.gz")

# Who links static libraries links what they are built on: linked once, they show what that is.
if(BUILD_SHARED_LIBS)
    set(library_binaries "$<TARGET_FILE:ZembraPlatform>" "$<TARGET_FILE:ZembraCoreSDK>")
else()
    file(WRITE "${PROJECT_BINARY_DIR}/nothing.cpp" "")
    add_library(zembra_linked MODULE "${PROJECT_BINARY_DIR}/nothing.cpp")
    target_link_libraries(zembra_linked PRIVATE ZembraCoreSDK ZembraPlatform zembra_build_options)
    set_target_properties(zembra_linked PROPERTIES LINK_LIBRARY_OVERRIDE "WHOLE_ARCHIVE,ZembraPlatform,ZembraCoreSDK")
    set(library_binaries "$<TARGET_FILE:zembra_linked>")
endif()
find_file(DATE_HEADER date/date.h REQUIRED)
set(library_headers "${DATE_HEADER}")
if(ZEMBRA_BUILD_SANDBOX)
    find_file(NLOHMANN_HEADER nlohmann/json.hpp REQUIRED)
endif()

foreach(component IN LISTS components)
    set(package "${package_of_${component}}")
    set(folder "${documents}/${package}")
    file(GENERATE OUTPUT "${folder}/changelog.Debian"
         CONTENT "zembra-core-sdk (${PROJECT_VERSION}-1) unstable; urgency=medium

  * Release ${PROJECT_VERSION}; changelog.gz says what is new.

 -- ${maintainer}  ${release_day}
")
    if(component MATCHES Sandbox)
        set(binaries "$<TARGET_FILE:zembra-sandbox>")
        set(headers "${NLOHMANN_HEADER}")
    else()
        set(binaries "${library_binaries}")
        set(headers "${library_headers}")
    endif()
    set(bill "${folder}/${package}.spdx.json")
    add_custom_command(
        OUTPUT "${bill}" "${folder}/changelog.Debian.gz"
        COMMAND "${GZIP}" -9 --no-name --stdout "${folder}/changelog.Debian" > "${folder}/changelog.Debian.gz"
        COMMAND
            "${CMAKE_COMMAND}" -D NAME=${package} -D VERSION=${PROJECT_VERSION} -D DATE=${release_date} -D "BINARIES=${binaries}"
            -D "HEADERS=${headers}" -D "READELF=${CMAKE_READELF}" -D ARCHITECTURE=${CMAKE_LIBRARY_ARCHITECTURE} -D
            "OUTPUT=${bill}" -P "${PROJECT_SOURCE_DIR}/cmake/BillOfMaterials.cmake"
        DEPENDS "${binaries}" "${PROJECT_SOURCE_DIR}/cmake/BillOfMaterials.cmake" "${folder}/changelog.Debian"
        VERBATIM)
    list(APPEND document_files "${bill}" "${folder}/changelog.Debian.gz")
    install(
        FILES "${documents}/copyright" "${documents}/changelog.gz" "${folder}/changelog.Debian.gz" "${bill}"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}"
        COMPONENT ${component}
        OPTIONAL)
endforeach()
add_custom_target(zembra_package_documents ALL DEPENDS ${document_files})

# Packages ---------------------------------------------------------------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The ZembraCoreSDK developers")
set(CPACK_PACKAGE_CONTACT "${maintainer}")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")
set(CPACK_COMPONENTS_ALL ${components})
set(ZEMBRA_PACKAGE_TIME "${release_time}")
configure_file(cmake/ZembraPackageContents.cmake.in "${PROJECT_BINARY_DIR}/ZembraPackageContents.cmake" @ONLY)
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/ZembraPackageContents.cmake")
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_BINARY_DIR}/ZembraPackageContents.cmake")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://zembra.example/sdk")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/ios-sdk/ZembraPlatform"
                                                "${PROJECT_BINARY_DIR}/ios-sdk/ZembraCoreSDK")
foreach(component IN LISTS components)
    string(TOUPPER "${component}" upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME "${package_of_${component}}")
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION libdevel)
endforeach()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SANDBOX_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
file(WRITE "${documents}/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${documents}/triggers")
# Without the authorities no server is trusted.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ca-certificates)
set(CPACK_DEBIAN_SANDBOXDEVELOPMENT_PACKAGE_DEPENDS "libcpp-httplib-dev, libssl-dev, pkg-config")
if(BUILD_SHARED_LIBS)
    set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)
else()
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
        "ca-certificates, libcurl4-openssl-dev (>= 7.85) | libcurl4-gnutls-dev (>= 7.85), libplist-dev (>= 2.2), libsimdjson-dev, pkg-config")
endif()
# Each package has a description of its own: its first line is the summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "${PROJECT_DESCRIPTION}: shared libraries
A host application registers with the Zembra platform in one call, and keeps
its app token and account identifier for itself and for modules beside it.
This package holds the libraries that such a host runs with.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "${PROJECT_DESCRIPTION}: development files
A host application registers with the Zembra platform in one call, and keeps
its app token and account identifier for itself and for modules beside it.
This package holds the headers, the CMake package and the pkg-config file.")
set(CPACK_COMPONENT_SANDBOX_DESCRIPTION
    "Local stand-in for the Zembra platform's API
An HTTPS server on the loopback interface, for hosts of the Zembra client SDK
to work with offline. Well-known values rehearse every outcome.")
set(CPACK_COMPONENT_SANDBOXDEVELOPMENT_DESCRIPTION
    "Local stand-in for the Zembra platform's API: development files
The sandbox server as a static library, for a host's own tests to embed, with
its header and its CMake package.")
include(CPack)

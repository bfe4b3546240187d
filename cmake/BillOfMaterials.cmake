# cmake -D NAME=<package> -D VERSION=<version> -D DATE=<2026-11-22> -D BINARIES=<file;...> [-D HEADERS=<file;...>]
#       -D READELF=<tool> -D COMPILER=<path> -D ARCHITECTURE=<multiarch triple> -D OUTPUT=<file> -P BillOfMaterials.cmake
#
# Writes the bill of materials of a package, SPDX 2.3 in JSON: the libraries that its binaries say they need, and the
# libraries whose headers alone are compiled in, each as the Debian package that holds it. On another system a library
# stands under its own name, without a version.
cmake_minimum_required(VERSION 3.25)

set(packages "")
set(links "")
set(seen "")

# <relationship> <file>: adds the package that holds the file, once.
function(add_package relationship file)
    get_filename_component(name "${file}" NAME)
    set(version "NOASSERTION")
    set(locator "")
    find_program(DPKG_QUERY dpkg-query)
    if(DPKG_QUERY)
        string(REGEX MATCH "[^/]+/[^/]+$" end "${file}")
        execute_process(COMMAND "${DPKG_QUERY}" --search "*/${end}" OUTPUT_VARIABLE owner ERROR_QUIET)
        if(owner MATCHES "^([^:, ]+)")
            set(owner "${CMAKE_MATCH_1}")
            string(REGEX MATCH "^[^:, ]+(:[a-z0-9]+)?" qualified "${owner}")
            execute_process(COMMAND "${DPKG_QUERY}" --show --showformat "\${Version} \${Architecture}\n" "${qualified}"
                            OUTPUT_VARIABLE facts)
            if(facts MATCHES "^([^ ]+) ([^ \n]+)")
                set(name "${owner}")
                set(version "${CMAKE_MATCH_1}")
                set(locator "pkg:deb/debian/${owner}@${version}?arch=${CMAKE_MATCH_2}")
                string(REPLACE "+" "%2B" locator "${locator}")
            endif()
        endif()
    endif()
    if(name IN_LIST seen)
        return()
    endif()
    set(seen ${seen} "${name}" PARENT_SCOPE)
    string(REGEX REPLACE "[^A-Za-z0-9.-]" "-" id "SPDXRef-${name}")
    set(references "")
    if(locator)
        set(references ",
      \"externalRefs\": [
        { \"referenceCategory\": \"PACKAGE-MANAGER\", \"referenceType\": \"purl\", \"referenceLocator\": \"${locator}\" }
      ]")
    endif()
    set(packages "${packages},
    {
      \"SPDXID\": \"${id}\", \"name\": \"${name}\", \"versionInfo\": \"${version}\",
      \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false${references}
    }" PARENT_SCOPE)
    set(links "${links},
    { \"spdxElementId\": \"SPDXRef-Package\", \"relationshipType\": \"${relationship}\", \"relatedSpdxElement\": \"${id}\" }"
        PARENT_SCOPE)
endfunction()

set(needed "")
set(own "")
foreach(binary IN LISTS BINARIES)
    execute_process(COMMAND "${READELF}" --dynamic --wide "${binary}" OUTPUT_VARIABLE entries COMMAND_ERROR_IS_FATAL ANY)
    # A bracket would keep the elements of a list together.
    string(REPLACE "[" "<" entries "${entries}")
    string(REPLACE "]" ">" entries "${entries}")
    string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*<[^>\n]+" entries_needed "${entries}")
    list(TRANSFORM entries_needed REPLACE "^.*<" "")
    list(APPEND needed ${entries_needed})
    if(entries MATCHES "\\(SONAME\\)[^\n]*<([^>\n]+)")
        list(APPEND own "${CMAKE_MATCH_1}")
    endif()
endforeach()
list(REMOVE_DUPLICATES needed)
list(REMOVE_ITEM needed ${own})
list(SORT needed)
foreach(library IN LISTS needed)
    if(library MATCHES "^libZembra")
        add_package(DYNAMIC_LINK "${library}")
    else()
        add_package(DYNAMIC_LINK "${ARCHITECTURE}/${library}")
    endif()
endforeach()
foreach(header IN LISTS HEADERS)
    add_package(STATIC_LINK "${header}")
endforeach()

string(SHA256 hash "${packages}${links}")
file(WRITE "${OUTPUT}" "{
  \"spdxVersion\": \"SPDX-2.3\",
  \"dataLicense\": \"CC0-1.0\",
  \"SPDXID\": \"SPDXRef-DOCUMENT\",
  \"name\": \"${NAME}-${VERSION}\",
  \"documentNamespace\": \"https://zembra.example/spdx/${NAME}-${VERSION}-${hash}\",
  \"creationInfo\": { \"created\": \"${DATE}T00:00:00Z\", \"creators\": [\"Organization: The ZembraCoreSDK developers\"] },
  \"packages\": [
    {
      \"SPDXID\": \"SPDXRef-Package\", \"name\": \"${NAME}\", \"versionInfo\": \"${VERSION}\",
      \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false, \"licenseDeclared\": \"MIT\"
    }${packages}
  ],
  \"relationships\": [
    { \"spdxElementId\": \"SPDXRef-DOCUMENT\", \"relationshipType\": \"DESCRIBES\", \"relatedSpdxElement\": \"SPDXRef-Package\" }${links}
  ]
}
")

# zembra_bundle(<executable target>
#               [CLIENT_ID <client identifier>] [BUNDLE_ID <bundle identifier>] [VERSION <version>] [NAME <name>]
#               [INSTALL])
#
# States the target's bundle configuration: writes <executable name>.Info.plist beside the executable, where
# NSBundle::mainBundle() looks first. With INSTALL it is also installed, as share/<executable name>/Info.plist, where
# it looks next. An argument that is left out leaves out its key.
if(POLICY CMP0174)
    cmake_policy(SET CMP0174 NEW) # An empty argument is no mistake.
endif()
function(zembra_bundle target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "INSTALL" "CLIENT_ID;BUNDLE_ID;VERSION;NAME" "")
    if(arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "zembra_bundle(${target}): unknown arguments: ${arg_UNPARSED_ARGUMENTS}")
    endif()
    set(entries "")
    foreach(pair IN ITEMS "CLIENT_ID=ZMBSDKClientID" "BUNDLE_ID=CFBundleIdentifier"
                          "VERSION=CFBundleShortVersionString" "NAME=CFBundleName")
        string(REGEX MATCH "^([A-Z_]+)=(.*)$" _ "${pair}")
        set(key "${CMAKE_MATCH_2}")
        set(variable "arg_${CMAKE_MATCH_1}")
        # An empty value leaves its variable undefined.
        if(DEFINED ${variable} OR "${CMAKE_MATCH_1}" IN_LIST ARGN)
            set(text "${${variable}}")
            string(REPLACE "&" "&amp;" text "${text}")
            string(REPLACE "<" "&lt;" text "${text}")
            string(REPLACE ">" "&gt;" text "${text}")
            string(APPEND entries "    <key>${key}</key>\n    <string>${text}</string>\n")
        endif()
    endforeach()
    set(file "$<TARGET_FILE_DIR:${target}>/$<TARGET_FILE_NAME:${target}>.Info.plist")
    file(
        GENERATE
        OUTPUT "${file}"
        CONTENT
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>
<plist version=\"1.0\">
<dict>
${entries}</dict>
</plist>
")
    if(arg_INSTALL)
        install(
            FILES "${file}"
            DESTINATION "share/$<TARGET_FILE_NAME:${target}>"
            RENAME Info.plist)
    endif()
endfunction()

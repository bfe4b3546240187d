# cmake -DCOMPILER=<path> -DINCLUDE=<directory> -P WrongDeclarations.cmake
#
# Compiles WrongDeclarations.cpp with each fault in turn: the compiler must report one error, with the right text.
set(ownLine "a class with properties must start with ZMB_DATA_OBJECT")
set(baseClass "ZMB_DATA_OBJECT must name the data-object class that this one derives from")
set(propertyType "a property is a tag such as NSString, a Value, a scalar or a class that is complete")
set(arrayHook "the hook is: zembra::Value arrayPropertyForKey")
set(faults
    "" # none
    "${ownLine}"
    "${ownLine}"
    "ZMB_DATA_OBJECT must name the class that it stands in"
    "${baseClass}"
    "${baseClass}"
    "${baseClass}"
    "${propertyType}"
    "${propertyType}"
    "${propertyType}"
    "the name of a property must be ASCII"
    "${arrayHook}"
    "${arrayHook}"
    "the hook is: std::shared_ptr<const zembra::NSDateFormatter> dateFormatter"
    "${baseClass}")

set(number 0)
foreach(expected IN LISTS faults)
    execute_process(
        COMMAND "${COMPILER}" -std=c++20 -fsyntax-only "-I${INCLUDE}" -DFAULT=${number}
                "${CMAKE_CURRENT_LIST_DIR}/WrongDeclarations.cpp"
        ERROR_VARIABLE output
        RESULT_VARIABLE result)
    string(REPLACE ";" "," output "${output}")
    string(REGEX MATCHALL "error: [^\n]*" errors "${output}")
    # Of a class that is no data object at all, that it does not override anything is the second error.
    list(FILTER errors EXCLUDE REGEX "override")
    list(LENGTH errors errorCount)
    if(expected STREQUAL "")
        if(NOT result EQUAL 0)
            message(SEND_ERROR "the right declaration does not compile:\n${output}")
        endif()
    elseif(NOT errorCount EQUAL 1 OR NOT errors MATCHES "${expected}")
        message(SEND_ERROR "fault ${number}: expected the one error \"${expected}\", not:\n${output}")
    endif()
    math(EXPR number "${number} + 1")
endforeach()

# cmake -DCOMPILER=<path> -DINCLUDE=<directory> -P WrongDeclarations.cmake
#
# Compiles each declaration on top of WrongDeclarations.h: the compiler must report one error, with the right text. The header
# is compiled once, in the folder where this runs.
set(header "${CMAKE_CURRENT_BINARY_DIR}/WrongDeclarations.h")
configure_file("${CMAKE_CURRENT_LIST_DIR}/WrongDeclarations.h" "${header}" COPYONLY)
execute_process(COMMAND "${COMPILER}" -std=c++20 "-I${INCLUDE}" -x c++-header "${header}" -o "${header}.gch"
                        COMMAND_ERROR_IS_FATAL ANY)

function(check expected declaration)
    file(WRITE "${header}.cpp" "${declaration}\n")
    execute_process(
        COMMAND "${COMPILER}" -std=c++20 -fsyntax-only "-I${INCLUDE}" -include "${header}" "${header}.cpp"
        ERROR_VARIABLE output
        RESULT_VARIABLE result)
    string(REPLACE ";" "," output "${output}")
    string(REGEX MATCHALL "error: [^\n]*" errors "${output}")
    # Of a class that is no data object at all, that it does not override anything is the second error.
    list(FILTER errors EXCLUDE REGEX "override")
    # A property that is declared twice is an error of each of the macro's lines; one of them names it.
    if(errors MATCHES "duplicate member|redeclaration of .*PropertyMember")
        list(FILTER errors INCLUDE REGEX "${expected}")
    endif()
    list(LENGTH errors errorCount)
    if(expected STREQUAL "none" AND result EQUAL 0)
        return()
    endif()
    if(NOT errorCount EQUAL 1 OR NOT errors MATCHES "${expected}")
        message(SEND_ERROR "${declaration}: expected \"${expected}\", not:\n${output}")
    endif()
endfunction()

# A class named Model of that base; its first line and the rest.
function(check_model expected base line)
    check("${expected}" "class Model : public ${base} { ${line} ${ARGN} };")
endfunction()

set(line "ZMB_DATA_OBJECT(Model, Middle)")
# Lines
check_model("none" Middle "${line}" "ZMB_PROPERTY(NSString, name);")

check_model("a class with properties must start with ZMB_DATA_OBJECT" Middle "ZMB_PROPERTY(NSString, name);")

check_model("ZMB_DATA_OBJECT must name the class that it stands in" Middle "ZMB_DATA_OBJECT(Middle, Base)")

set(expected "ZMB_DATA_OBJECT must name the data-object class that this one derives from")
check_model("${expected}" Middle "ZMB_DATA_OBJECT(Model, Base)")
check_model("${expected}" Lineless "ZMB_DATA_OBJECT(Model, Lineless)")
check_model("${expected}" std::string "ZMB_DATA_OBJECT(Model, std::string)")

# Properties
set(expected "a property is a tag such as NSString, a Value, a scalar or a class that is complete")
foreach(type IN ITEMS Lineless Incomplete std::string)
    check_model("${expected}" Middle "${line}" "ZMB_PROPERTY(${type}, other);")
endforeach()
check_model("the name of a property must be ASCII" Middle "${line}" "ZMB_PROPERTY(NSString, größe);")

check("redeclaration of .*PropertyMember.*name|duplicate member 'name'"
      "class Model : public Middle { ${line} ZMB_PROPERTY(NSString, name); ZMB_PROPERTY(NSString, name); };")

# Hooks
set(expected "the hook is: zembra::Value arrayPropertyForKey")
check_model("${expected}" Middle "${line}" "Value arrayPropertyForKey(const Value& values);")
check_model("${expected}" Middle "${line}" "bool arrayPropertyForKey(std::string_view key, const Value& values);")
check_model("the hook is: std::shared_ptr<const zembra::NSDateFormatter> dateFormatter" Middle "${line}"
            "Value dateFormatter() const;")

# Creation
set(expected "a class whose objects the mapping makes must start with ZMB_DATA_OBJECT")
foreach(call IN ITEMS objectWithJSON objectsWithArrayOfJSON objectWithUntrustedJSON)
    check("${expected}" "auto made = ${call}<Lineless>({});")
endforeach()
check("no matching function" "auto made = Lineless::objectWithJSON<Lineless>({});")
check("conversion|no viable|requested" "std::shared_ptr<Lineless> made = Lineless::objectWithJSON({});")
file(REMOVE "${header}.gch")

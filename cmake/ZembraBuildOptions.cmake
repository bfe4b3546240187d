# What this project's own targets are compiled with. Linked as
#     target_link_libraries(<target> PRIVATE $<BUILD_INTERFACE:zembra_build_options>)
# so that none of it reaches a consumer.
add_library(zembra_build_options INTERFACE)
target_compile_options(
    zembra_build_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
                                   -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # It fires on the standard library's own `"text" + string` (GCC bug 105651).
    target_compile_options(zembra_build_options INTERFACE -Wno-restrict)
endif()

option(ZEMBRA_WARNINGS_AS_ERRORS "Treat warnings as errors" OFF)
if(ZEMBRA_WARNINGS_AS_ERRORS)
    target_compile_options(zembra_build_options INTERFACE -Werror)
endif()

set(ZEMBRA_SANITIZERS
    ""
    CACHE STRING "Sanitizers of this build, as -fsanitize takes them: address,undefined or thread")
if(ZEMBRA_SANITIZERS)
    target_compile_options(zembra_build_options INTERFACE -fsanitize=${ZEMBRA_SANITIZERS}
                                                          -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(zembra_build_options INTERFACE -fsanitize=${ZEMBRA_SANITIZERS})
endif()

# Release builds resist exploits: checked stacks and buffers, and nothing of a library is writable that need not be.
# The linker's options are this tree's alone, so that an including project keeps its own.
include(CheckCXXCompilerFlag)
set(release "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
target_compile_options(
    zembra_build_options
    INTERFACE "$<${release}:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>"
              # No path of the machine that builds stands in what is shipped. The last map that fits counts: the build
              # folder may lie within the sources.
              "$<${release}:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.;-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>")
foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "ZEMBRA_HAS${flag}" has_flag)
    check_cxx_compiler_flag(${flag} ${has_flag})
    if(${has_flag})
        target_compile_options(zembra_build_options INTERFACE "$<${release}:${flag}>")
    endif()
endforeach()
add_link_options("$<${release}:LINKER:-z,relro,-z,now>")

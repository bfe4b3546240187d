# cmake -DPROGRAM=<path> -DINPUT=<file> -DEXPECTED=<file> -P ProgramOutput.cmake
#
# Runs PROGRAM on INPUT: it must succeed and print what EXPECTED holds.
execute_process(COMMAND "${PROGRAM}" "${INPUT}" OUTPUT_VARIABLE output RESULT_VARIABLE result)
file(READ "${EXPECTED}" expected)
if(NOT result EQUAL 0 OR NOT output STREQUAL expected)
    message(FATAL_ERROR "${PROGRAM} ended with ${result} and printed:\n${output}")
endif()

# Runs corvida-pb once and compares its exit status, standard output and
# standard error with the expectations of one test case.
#
#   cmake -DEXE=<corvida-pb> -DARGS=<list> -DSTATUS=<n> -DEXPECTED=<dir/name>
#         -DWORK_DIR=<dir> -DBUILD_DIR=<dir> [-DSTDIN=<file>]
#         [-DSTDERR_REGEX=<regex>] -P run_case.cmake
#
# <dir/name>.out and <dir/name>.err hold the expected outputs; a missing file
# stands for empty output. In them BUILD_DIR is written "@BUILD@"; in
# standard error a "buf:0x..." address is written "buf:@ADDR@" and the
# function of a library log line ("[error] Function: ...") "@FUNC@", as it
# names an internal function of the library. With STDERR_REGEX, standard
# error must instead match the regular expression, function names included.
#
# With the environment variable CORVIDA_PB_UPDATE_EXPECTED set, the outputs
# are written to the expectation files instead of being compared.
cmake_minimum_required(VERSION 3.25)

foreach(var EXE STATUS EXPECTED WORK_DIR BUILD_DIR)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "run_case.cmake: ${var} is not set")
    endif()
endforeach()

set(input_args "")
if(DEFINED STDIN)
    set(input_args INPUT_FILE "${STDIN}")
endif()
execute_process(
    COMMAND "${EXE}" ${ARGS}
    WORKING_DIRECTORY "${WORK_DIR}"
    ${input_args}
    RESULT_VARIABLE status
    OUTPUT_VARIABLE out
    ERROR_VARIABLE err)

string(REPLACE "${BUILD_DIR}" "@BUILD@" out "${out}")
string(REPLACE "${BUILD_DIR}" "@BUILD@" err "${err}")
string(REGEX REPLACE "buf:0x[0-9a-f]+" "buf:@ADDR@" err "${err}")
set(raw_err "${err}")
string(REGEX REPLACE "(^|\n)\\[([a-z]+)\\] [A-Za-z_][A-Za-z_0-9]*: " "\\1[\\2] @FUNC@: " err "${err}")

if(DEFINED ENV{CORVIDA_PB_UPDATE_EXPECTED})
    foreach(stream out err)
        if(stream STREQUAL "err" AND DEFINED STDERR_REGEX)
            continue()
        endif()
        if(${stream} STREQUAL "")
            file(REMOVE "${EXPECTED}.${stream}")
        else()
            file(WRITE "${EXPECTED}.${stream}" "${${stream}}")
        endif()
    endforeach()
endif()

set(failures "")
if(NOT status STREQUAL STATUS)
    string(APPEND failures "exit status ${status}, expected ${STATUS}\n")
endif()

function(expect_stream stream actual)
    set(expected "")
    if(EXISTS "${EXPECTED}.${stream}")
        file(READ "${EXPECTED}.${stream}" expected)
    endif()
    if(NOT actual STREQUAL expected)
        string(CONCAT failures "${failures}" "${stream} differs from ${EXPECTED}.${stream}\n"
                              "--- expected\n${expected}--- actual\n${actual}---\n")
        set(failures "${failures}" PARENT_SCOPE)
    endif()
endfunction()

expect_stream(out "${out}")
if(DEFINED STDERR_REGEX)
    if(NOT raw_err MATCHES "${STDERR_REGEX}")
        string(APPEND failures "stderr does not match ${STDERR_REGEX}\n--- actual\n${raw_err}---\n")
    endif()
else()
    expect_stream(err "${err}")
endif()

if(NOT failures STREQUAL "")
    string(JOIN " " command_line ${ARGS})
    message(FATAL_ERROR "corvida-pb ${command_line}\n${failures}")
endif()

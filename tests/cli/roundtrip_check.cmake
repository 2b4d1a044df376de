# Cuts every singular value field of a message into a packed value set with
# corvida-pb cut, merges the set into a message that holds only the key with
# corvida-pb merge, and checks that the result is the original message: the
# merged message in text format equals protoc's own rendering of TEXT
# (protoc --encode, then --decode), and no path failed.
#
#   cmake -DEXE=<corvida-pb> -DPROTOC=<protoc> -DWORK_DIR=<dir> -DPROTO=<file>
#         -DIMPORT_DIRS=<list> -DTABLE=<full name> -DTEXT=<file>
#         -DKEY_TEXT=<file> -DPATHS=<a,b.c> -DTMP_DIR=<dir>
#         -P roundtrip_check.cmake
cmake_minimum_required(VERSION 3.25)

include("${CMAKE_CURRENT_LIST_DIR}/protoc_support.cmake")
set(encoded "${TMP_DIR}/${TABLE}.roundtrip.bin")
set(decoded "${TMP_DIR}/${TABLE}.roundtrip.txt")
set(packed "${TMP_DIR}/${TABLE}.roundtrip.pvs")

function(run_checked)
    cmake_parse_arguments(PARSE_ARGV 0 RUN "" "OUTPUT_VARIABLE" "")
    execute_process(COMMAND ${RUN_UNPARSED_ARGUMENTS}
        WORKING_DIRECTORY "${WORK_DIR}"
        RESULT_VARIABLE status
        OUTPUT_VARIABLE out
        ERROR_VARIABLE err)
    if(NOT status EQUAL 0)
        string(JOIN " " command_line ${RUN_UNPARSED_ARGUMENTS})
        message(FATAL_ERROR "${command_line} failed (${status}):\n${out}${err}")
    endif()
    if(RUN_OUTPUT_VARIABLE)
        set(${RUN_OUTPUT_VARIABLE} "${out}" PARENT_SCOPE)
    endif()
endfunction()

protoc_table(encode "${WORK_DIR}/${TEXT}" "${encoded}")
protoc_table(decode "${encoded}" "${decoded}")
file(READ "${decoded}" original)

run_checked("${EXE}" cut --proto "${PROTO}" --table "${TABLE}" --text-file "${TEXT}" --paths "${PATHS}"
            --packed "${packed}")
run_checked("${EXE}" merge --proto "${PROTO}" --table "${TABLE}" --text-file "${KEY_TEXT}" --packed "${packed}"
            OUTPUT_VARIABLE merged)

if(NOT merged MATCHES "^[^\n]* after merging [0-9]+ records:\n(.*)failed paths: ([^\n]*)\n$")
    message(FATAL_ERROR "corvida-pb merge printed no message and failed paths:\n${merged}")
endif()
set(message_text "${CMAKE_MATCH_1}")
set(failed "${CMAKE_MATCH_2}")
if(NOT failed STREQUAL "none")
    message(FATAL_ERROR "the merge failed for paths ${failed}")
endif()
if(NOT message_text STREQUAL original)
    message(FATAL_ERROR "the merged ${TABLE} differs from the original:\n"
                        "--- merged\n${message_text}--- original\n${original}---")
endif()

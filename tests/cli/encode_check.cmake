# Checks the key that corvida-pb prints against protoc:
#   - the key bytes equal what "protoc --encode" gives for the message that
#     holds only the key fields (KEY_TEXT), while corvida-pb reads a message
#     with value fields too (FULL_TEXT);
#   - the decoded view equals what "protoc --decode_raw" prints for them.
#
#   cmake -DEXE=<corvida-pb> -DPROTOC=<protoc> -DWORK_DIR=<dir> -DPROTO=<file>
#         -DIMPORT_DIRS=<list> -DTABLE=<full name> -DKEY_TEXT=<file>
#         -DFULL_TEXT=<file> -DTMP_DIR=<dir> -P encode_check.cmake
#
# PROTO, KEY_TEXT and FULL_TEXT are relative to WORK_DIR; PROTO is compiled
# with its own directory and IMPORT_DIRS as proto path.
cmake_minimum_required(VERSION 3.25)

include("${CMAKE_CURRENT_LIST_DIR}/protoc_support.cmake")
set(encoded "${TMP_DIR}/${TABLE}.key.bin")

protoc_table(encode "${WORK_DIR}/${KEY_TEXT}" "${encoded}")
file(READ "${encoded}" expected_hex HEX)

execute_process(
    COMMAND "${EXE}" key --proto "${PROTO}" --table "${TABLE}" --text-file "${FULL_TEXT}" --check
    WORKING_DIRECTORY "${WORK_DIR}"
    RESULT_VARIABLE status
    OUTPUT_VARIABLE out
    ERROR_VARIABLE err)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "corvida-pb key failed (${status}):\n${out}${err}")
endif()
if(NOT out MATCHES "\nhex: ([0-9a-f]*)\ndecoded:\n(.*)$")
    message(FATAL_ERROR "corvida-pb key printed no hex and decoded view:\n${out}")
endif()
set(actual_hex "${CMAKE_MATCH_1}")
set(actual_decoded "${CMAKE_MATCH_2}")
if(NOT actual_hex STREQUAL expected_hex)
    message(FATAL_ERROR "key of ${TABLE} differs from protoc --encode:\n"
                        "corvida-pb: ${actual_hex}\nprotoc:     ${expected_hex}")
endif()

execute_process(
    COMMAND "${PROTOC}" --decode_raw
    INPUT_FILE "${encoded}"
    RESULT_VARIABLE status
    OUTPUT_VARIABLE expected_decoded
    ERROR_VARIABLE err)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "protoc --decode_raw failed (${status}):\n${err}")
endif()
if(NOT actual_decoded STREQUAL expected_decoded)
    message(FATAL_ERROR "decoded view of ${TABLE}'s key differs from protoc --decode_raw:\n"
                        "--- corvida-pb\n${actual_decoded}--- protoc\n${expected_decoded}---")
endif()

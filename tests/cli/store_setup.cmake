# Makes a fresh store for the store cases: the example Player table holding
# two players, alice (tests/cli/data/player.txt) and bob.
#
#   cmake -DEXE=<corvida-pb> -DWORK_DIR=<dir> -DDB=<dir> -DCIPHER=<name=hexkey> -P store_setup.cmake
cmake_minimum_required(VERSION 3.25)

file(REMOVE_RECURSE "${DB}")
set(table --db "${DB}" --proto examples/tables/game.proto --table Player --cipher "${CIPHER}")
foreach(step "create" "put;--text-file;tests/cli/data/player.txt"
             "put;--text;zone: 3 uid: 1002 account: \"bob@example.com\" level: 40 faction: FACTION_SOUTH")
    list(POP_FRONT step command)
    execute_process(COMMAND "${EXE}" store ${command} ${table} ${step}
        WORKING_DIRECTORY "${WORK_DIR}"
        RESULT_VARIABLE status
        OUTPUT_VARIABLE out
        ERROR_VARIABLE err)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "store ${command} failed (${status}):\n${out}${err}")
    endif()
endforeach()

# The cases of corvida-pb store alter, build-index, tables, describe and drop,
# included by CMakeLists.txt (whose corvida_pb_cli_test and variables they
# use). Each evolution rule has a case: an allowed change as a dry run, a
# refused one with its reason at the declaration to change; then a store
# altered for real, looked at, and dropped.

# corvida_pb_game_variant(<name> <from> <to> [<from> <to>...]): writes
# ${cli_tmp}/evolve/<name>.proto, examples/tables/game.proto with each <from>
# replaced by its <to> (each must be there). The arguments are read one by
# one, so that the semicolons of .proto text stay inside them.
function(corvida_pb_game_variant name)
    file(READ "${PROJECT_SOURCE_DIR}/${game}" text)
    math(EXPR last "${ARGC} - 1")
    foreach(i RANGE 1 ${last} 2)
        math(EXPR j "${i} + 1")
        string(FIND "${text}" "${ARGV${i}}" at)
        if(at EQUAL -1)
            message(FATAL_ERROR "corvida_pb_game_variant(${name}): no \"${ARGV${i}}\" in ${game}")
        endif()
        string(REPLACE "${ARGV${i}}" "${ARGV${j}}" text "${text}")
    endforeach()
    file(WRITE "${cli_tmp}/evolve/${name}.proto" "${text}")
endfunction()

set(evolve "${cli_tmp}/evolve")
set(store_a "${cli_tmp}/store_a.db")
set(store_b "${cli_tmp}/store_b.db")
foreach(store a b)
    add_test(NAME cli_store_${store}_setup
        COMMAND "${CMAKE_COMMAND}" "-DEXE=$<TARGET_FILE:corvida-pb>" "-DWORK_DIR=${PROJECT_SOURCE_DIR}"
                "-DDB=${store_${store}}" "-DCIPHER=${game_aes}" -P "${cli_dir}/store_setup.cmake")
    set_tests_properties(cli_store_${store}_setup PROPERTIES FIXTURES_SETUP cli_store_${store} TIMEOUT 60)
endforeach()

# --- allowed changes, as dry runs (store a is never written) ---------------
corvida_pb_game_variant(new_field "  int64 last_login = 9;" "  int64 last_login = 9;\n  string title = 10;")
corvida_pb_game_variant(new_enum_value "  FACTION_SOUTH = 2;" "  FACTION_SOUTH = 2;\n  FACTION_EAST = 3;")
corvida_pb_game_variant(new_type "message Item {" "message Badge {\n  string label = 1;\n}\n\nmessage Item {"
    "  int64 last_login = 9;" "  int64 last_login = 9;\n  Badge badge = 10;")
corvida_pb_game_variant(new_subfield "  string motto = 4;" "  string motto = 4;\n  int32 rank = 5;")
corvida_pb_game_variant(new_index "\"by_level(zone,level)\";"
    "\"by_level(zone,level)\";\n  option (corvidaservice.corvida_index) = \"by_faction(faction)\";")
corvida_pb_game_variant(dropped_index "  option (corvidaservice.corvida_index) = \"by_level(zone,level)\";\n" "")
corvida_pb_game_variant(removed_field "  map<string, int64> counters = 8;\n" "")
foreach(change new_field new_enum_value new_type new_subfield new_index dropped_index removed_field)
    corvida_pb_cli_test(store_alter_${change} STATUS 0 REQUIRES cli_store_a
        ARGS store alter --db ${store_a} --proto ${evolve}/${change}.proto --table Player --dry-run)
endforeach()
corvida_pb_cli_test(store_alter_dry_run_json STATUS 0 REQUIRES cli_store_a
    ARGS store alter --db ${store_a} --proto ${evolve}/new_index.proto --table Player --dry-run --format json)

# --- refused changes: exit 3, every reason at its declaration ---------------
corvida_pb_game_variant(changed_key "\"uid, zone, account\"" "\"uid, zone\"")
corvida_pb_game_variant(changed_sharding_key "corvida_sharding_key) = \"uid\"" "corvida_sharding_key) = \"zone\"")
corvida_pb_game_variant(changed_number "int32 level = 4;" "int32 level = 14;")
corvida_pb_game_variant(changed_type "int32 level = 4;" "int64 level = 4;")
corvida_pb_game_variant(changed_label "  int64 last_login = 9;" "  repeated int64 last_login = 9;")
corvida_pb_game_variant(removed_held_field "  int64 last_login = 9;\n" "")
corvida_pb_game_variant(changed_cipher_suite "corvida_field_cipher_suite) = \"game-aes\""
    "corvida_field_cipher_suite) = \"game-aes2\"")
corvida_pb_game_variant(removed_nested_field "  string motto = 4;\n" "")
corvida_pb_game_variant(changed_index "by_level(zone,level)" "by_level(level,zone)")
corvida_pb_game_variant(removed_enum_value "  FACTION_SOUTH = 2;\n" "")
corvida_pb_game_variant(many_reasons "int32 level = 4;" "int64 level = 4;"
    "corvida_sharding_key) = \"uid\"" "corvida_sharding_key) = \"zone\"" "  int64 last_login = 9;\n" ""
    "  int32 mp = 2;" "  repeated int32 mp = 2;")
# The same fields in a proto2 file.
file(READ "${PROJECT_SOURCE_DIR}/${game}" text)
string(REPLACE "syntax = \"proto3\";" "syntax = \"proto2\";" text "${text}")
string(REGEX REPLACE "\n  ([A-Za-z0-9_.]+ [a-z_]+ = )" "\n  optional \\1" text "${text}")
file(WRITE "${evolve}/changed_syntax.proto" "${text}")
foreach(change changed_key changed_sharding_key changed_number changed_type changed_label removed_held_field
               changed_cipher_suite removed_nested_field changed_index removed_enum_value changed_syntax many_reasons)
    corvida_pb_cli_test(store_alter_${change} STATUS 3 REQUIRES cli_store_a
        ARGS store alter --db ${store_a} --proto ${evolve}/${change}.proto --table Player)
endforeach()
corvida_pb_cli_test(store_alter_refused_json STATUS 3 REQUIRES cli_store_a
    ARGS store alter --db ${store_a} --proto ${evolve}/many_reasons.proto --table Player --format json)

# --- seeing the store -------------------------------------------------------
corvida_pb_cli_test(store_tables STATUS 0 REQUIRES cli_store_a ARGS store tables --db ${store_a})
corvida_pb_cli_test(store_tables_json STATUS 0 REQUIRES cli_store_a ARGS store tables --db ${store_a} --format json)
corvida_pb_cli_test(store_describe STATUS 0 REQUIRES cli_store_a ARGS store describe --db ${store_a} --table Player)
corvida_pb_cli_test(store_describe_json STATUS 0 REQUIRES cli_store_a
    ARGS store describe --db ${store_a} --table corvida.example.Player --format json)
corvida_pb_cli_test(store_describe_unknown_table STATUS 3 REQUIRES cli_store_a
    ARGS store describe --db ${store_a} --table Monster)

# --- store b: altered for real, looked at, then dropped --------------------
corvida_pb_game_variant(new_index_and_field "\"by_level(zone,level)\";"
    "\"by_level(zone,level)\";\n  option (corvidaservice.corvida_index) = \"by_faction(faction)\";"
    "  int64 last_login = 9;" "  int64 last_login = 9;\n  string title = 10;")
corvida_pb_cli_test(store_alter STATUS 0 REQUIRES cli_store_b SETUP cli_store_b_altered
    ARGS store alter --db ${store_b} --proto ${evolve}/new_index_and_field.proto --table Player
         --cipher ${game_aes}
    STDERR_REGEX "^index by_faction: 2 records indexed in [0-9.e-]+ s\n$")
corvida_pb_cli_test(store_find_new_index STATUS 0 REQUIRES cli_store_b_altered SETUP cli_store_b_seen
    ARGS store find --db ${store_b} --proto ${evolve}/new_index_and_field.proto --table Player --cipher ${game_aes}
         --index by_faction --text "faction: FACTION_SOUTH")
corvida_pb_cli_test(store_describe_altered STATUS 0 REQUIRES cli_store_b_altered SETUP cli_store_b_seen
    ARGS store describe --db ${store_b} --table Player)
corvida_pb_cli_test(store_build_index_ready STATUS 0 REQUIRES cli_store_b_altered SETUP cli_store_b_seen
    ARGS store build-index --db ${store_b} --table Player --index by_faction --cipher ${game_aes})
corvida_pb_cli_test(store_build_index_unknown STATUS 1 REQUIRES cli_store_b_altered SETUP cli_store_b_seen
    ARGS store build-index --db ${store_b} --table Player --index by_colour)
corvida_pb_cli_test(store_drop_without_yes STATUS 2 REQUIRES cli_store_b_seen SETUP cli_store_b_not_dropped
    ARGS store drop --db ${store_b} --table Player)
corvida_pb_cli_test(store_drop STATUS 0 REQUIRES cli_store_b_not_dropped SETUP cli_store_b_dropped
    ARGS store drop --db ${store_b} --table Player --yes
    STDERR_REGEX "^table corvida\\.example\\.Player: 2 records removed in [0-9.e-]+ s\n$")
corvida_pb_cli_test(store_tables_after_drop STATUS 0 REQUIRES cli_store_b_dropped
    ARGS store tables --db ${store_b})

# The cases of one store run one at a time: an alter or a build holds the
# store for writing, and the cases should not depend on how a read-only open
# fares beside a writer that closes the store.
foreach(store a b)
    get_property(cases DIRECTORY PROPERTY TESTS)
    list(FILTER cases INCLUDE REGEX "^cli_store_")
    foreach(case ${cases})
        get_test_property(${case} FIXTURES_REQUIRED required)
        if(required MATCHES "cli_store_${store}")
            set_tests_properties(${case} PROPERTIES RESOURCE_LOCK cli_store_${store})
        endif()
    endforeach()
endforeach()

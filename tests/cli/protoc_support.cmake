# What the protoc-based checks share: PROTO (relative to WORK_DIR) compiled
# with its own directory and IMPORT_DIRS as proto path, scratch files under
# TMP_DIR.
get_filename_component(proto_dir "${WORK_DIR}/${PROTO}" DIRECTORY)
get_filename_component(proto_name "${PROTO}" NAME)
set(include_args "-I${proto_dir}")
foreach(dir IN LISTS IMPORT_DIRS)
    list(APPEND include_args "-I${dir}")
endforeach()
file(MAKE_DIRECTORY "${TMP_DIR}")

# Runs "protoc --<mode>=TABLE" on PROTO, reading input_file and writing
# output_file; stops the check when protoc fails.
function(protoc_table mode input_file output_file)
    execute_process(
        COMMAND "${PROTOC}" "--${mode}=${TABLE}" ${include_args} "${proto_name}"
        WORKING_DIRECTORY "${proto_dir}"
        INPUT_FILE "${input_file}"
        OUTPUT_FILE "${output_file}"
        RESULT_VARIABLE status
        ERROR_VARIABLE err)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "protoc --${mode} failed (${status}):\n${err}")
    endif()
endfunction()

# corvida_protobuf_tables(<target> <file.proto>... [IMPORT_DIRS <dir>...])
#
# Compiles table .proto files that import "corvidaservice.optionv1.proto" and
# puts the generated C++ into a static library <target>, which links
# corvida::protobuf_api publicly and exports the directory of the generated
# headers. Each file is compiled with its own directory as proto root, so
# "foo/player.proto" generates "player.pb.h"; files in other directories that
# it imports are found through IMPORT_DIRS.
#
#   corvida_protobuf_tables(game_tables protos/player.proto protos/guild.proto)
#   target_link_libraries(game_server PRIVATE game_tables)
#   // #include "player.pb.h"
include_guard(GLOBAL)

# The directories that hold google/protobuf/descriptor.proto (which the option
# file imports), however protobuf was found: FindProtobuf's variable, else the
# include directories of the protobuf target (protobuf's own CMake package).
function(_corvida_protobuf_runtime_proto_dirs out)
    set(dirs ${Protobuf_INCLUDE_DIRS})
    if(NOT dirs AND TARGET protobuf::libprotobuf)
        get_target_property(dirs protobuf::libprotobuf INTERFACE_INCLUDE_DIRECTORIES)
    endif()
    if(NOT dirs)
        message(FATAL_ERROR "corvida_protobuf_tables: protobuf's include directory is unknown; "
                            "call find_package(Protobuf) or find_package(CorvidaProtobufApi) first")
    endif()
    set(${out} "${dirs}" PARENT_SCOPE)
endfunction()

# The protobuf compiler: the imported target when there is one, else the
# program FindProtobuf found.
function(_corvida_protobuf_protoc out)
    if(TARGET protobuf::protoc)
        set(${out} protobuf::protoc PARENT_SCOPE)
    elseif(Protobuf_PROTOC_EXECUTABLE)
        set(${out} "${Protobuf_PROTOC_EXECUTABLE}" PARENT_SCOPE)
    else()
        message(FATAL_ERROR "corvida_protobuf_tables: protoc was not found; install the protobuf compiler")
    endif()
endfunction()

function(corvida_protobuf_tables target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "IMPORT_DIRS")
    if(NOT ARG_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "corvida_protobuf_tables(${target}): no .proto files given")
    endif()
    if(NOT CORVIDA_PROTOBUF_API_OPTION_PROTO_DIR)
        message(FATAL_ERROR "corvida_protobuf_tables: CORVIDA_PROTOBUF_API_OPTION_PROTO_DIR is not set")
    endif()

    set(out_dir "${CMAKE_CURRENT_BINARY_DIR}/${target}_pb")
    file(MAKE_DIRECTORY "${out_dir}")

    set(import_args "")
    foreach(dir IN LISTS ARG_IMPORT_DIRS)
        get_filename_component(abs_dir "${dir}" ABSOLUTE)
        list(APPEND import_args "-I${abs_dir}")
    endforeach()
    list(APPEND import_args "-I${CORVIDA_PROTOBUF_API_OPTION_PROTO_DIR}")
    _corvida_protobuf_runtime_proto_dirs(runtime_dirs)
    foreach(dir IN LISTS runtime_dirs)
        list(APPEND import_args "-I${dir}")
    endforeach()
    _corvida_protobuf_protoc(protoc)

    set(sources "")
    foreach(proto IN LISTS ARG_UNPARSED_ARGUMENTS)
        get_filename_component(abs_proto "${proto}" ABSOLUTE)
        get_filename_component(proto_dir "${abs_proto}" DIRECTORY)
        get_filename_component(stem "${abs_proto}" NAME_WE)
        set(cc "${out_dir}/${stem}.pb.cc")
        set(h "${out_dir}/${stem}.pb.h")
        add_custom_command(
            OUTPUT "${cc}" "${h}"
            COMMAND ${protoc} "--cpp_out=${out_dir}" "-I${proto_dir}" ${import_args} "${abs_proto}"
            DEPENDS "${abs_proto}" ${protoc}
            COMMENT "Generating C++ for table file ${proto}"
            VERBATIM)
        list(APPEND sources "${cc}" "${h}")
    endforeach()

    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${out_dir}>")
    target_link_libraries(${target} PUBLIC corvida::protobuf_api)
    target_compile_features(${target} PUBLIC cxx_std_17)
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
endfunction()

#!/bin/sh
# Checks the installed library the way an application meets it.
#
# For a static and then a shared build: configures a fresh build of the library
# and the tool, installs it into a temporary prefix, moves the prefix elsewhere
# (nothing installed may depend on where it was installed), checks the
# installed tree, and builds and runs examples/consumer against it twice: as a
# CMake project (find_package through CMAKE_PREFIX_PATH) and with its Makefile
# (pkg-config through PKG_CONFIG_PATH). Exits non-zero on the first failure.
#
# docs/guide.md quotes the commands between the START and END markers.
set -eu
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# step <what> <command>...: runs the command (a function stops at its first
# failing command) with its output in a log that is shown only on failure.
step() {
    what=$1
    shift
    set +e
    (
        set -e
        "$@"
    ) >"$work/step.log" 2>&1
    status=$?
    set -e
    if [ "$status" -ne 0 ]; then
        echo "FAIL $what"
        tail -n 60 "$work/step.log"
        exit 1
    fi
    echo "ok   $what"
}

fail() {
    echo "$*"
    exit 1
}

# install_library <build dir> <prefix> <BUILD_SHARED_LIBS>
install_library() {
    build=$1
    prefix=$2
    shared=$3
    # [START install]
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS="$shared" \
        -DCORVIDA_PB_BUILD_TESTS=OFF -DCORVIDA_PB_BUILD_EXAMPLES=OFF -DCORVIDA_PB_BUILD_BENCHMARKS=OFF
    cmake --build "$build" -j2
    cmake --install "$build" --prefix "$prefix"
    # [END install]
}

# check_tree <prefix> static|shared: public headers in their layout, each
# compiling on its own; no private header; the library; the option file; the
# CMake package; the pkg-config file; the tool and its etcd module.
check_tree() {
    prefix=$1
    inc="$prefix/include/corvida"
    for header in protobuf_api/protobuf_util.h protobuf_api/aes_siv_cipher_suite.h protobuf_api/cipher_suite_base.h \
        protobuf_api/corvida_kv_api.h protobuf_api/corvida_protobuf_define.h common/pb_value_set_buffer.h \
        common/i_pb_value_set_buffer.h common/corvida_error_code.h common/corvida_service_field.h \
        protocol/corvida_protocol_comm.h protocol/idl_tbl.h plog/plog.h corvidaservice.optionv1.pb.h \
        store/status.h store/table.h store/table_store.h; do
        [ -f "$inc/$header" ] || fail "header $header is not installed"
    done
    for private in protobuf_util_log.h protobuf_util_tokens.h protobuf_util_plans.h protobuf_util_fields.h \
        pb_value_set_buffer_internal.h key_layout.h record_codec.h store_core.h engine.h etcd_engine.h etcd_client.h \
        etcd_errors.h etcd_locator.h etcd_tls.h rpc.pb.h rpc.grpc.pb.h gogo.pb.h; do
        [ -z "$(find "$prefix" -name "$private")" ] || fail "private header $private is installed"
    done
    for header in $(cd "$inc" && find . -name '*.h' | sort); do
        echo "#include \"${header#./}\"" >"$work/one_header.cpp"
        g++ -std=c++17 -fsyntax-only -Wall -Wextra -I"$inc" "$work/one_header.cpp" ||
            fail "installed header ${header#./} does not compile on its own"
    done
    case $2 in
    static) suffix=a ;;
    *) suffix=so.1 ;;
    esac
    for library in libcorvida_protobuf_api.$suffix libcorvida_table_store.$suffix; do
        [ -f "$prefix/lib/$library" ] || fail "$library is not installed"
    done
    cmp "$prefix/share/corvida_protobuf_api/proto/corvidaservice.optionv1.proto" \
        src/protocol/corvidaservice.optionv1.proto || fail "the option file is not installed as it is"
    for file in CorvidaProtobufApiConfig.cmake CorvidaProtobufApiConfigVersion.cmake \
        CorvidaProtobufApiTables.cmake CorvidaProtobufApiTargets.cmake; do
        [ -f "$prefix/lib/cmake/CorvidaProtobufApi/$file" ] || fail "package file $file is not installed"
    done
    for pc in corvida_protobuf_api.pc corvida_table_store.pc; do
        [ -f "$prefix/lib/pkgconfig/$pc" ] || fail "the pkg-config file $pc is not installed"
    done
    "$prefix/bin/corvida-pb" --help >/dev/null || fail "the installed corvida-pb --help failed"
    # The etcd engine: a module of its own, which the tool does not link and
    # finds from where the prefix is now (nothing listens on port 1, so the
    # loaded engine reports the cluster unreachable).
    [ -f "$prefix/lib/libcorvida_store_etcd.so" ] || fail "the etcd module is not installed"
    ! ldd "$prefix/bin/corvida-pb" | grep -q -e libgrpc -e libabsl || fail "the installed corvida-pb links gRPC"
    etcd_error=$("$prefix/bin/corvida-pb" store tables --db etcd://127.0.0.1:1/check --timeout 1 2>&1) &&
        fail "the installed corvida-pb opened an etcd store nobody serves"
    case $etcd_error in
    *"no member of the cluster is reachable"*) ;;
    *) fail "the installed corvida-pb did not load its etcd module: $etcd_error" ;;
    esac
}

# consumer_cmake <build dir> <prefix>
consumer_cmake() {
    consumer=$1
    prefix=$2
    # [START consumer-cmake]
    cmake -S examples/consumer -B "$consumer" -DCMAKE_PREFIX_PATH="$prefix"
    cmake --build "$consumer" -j2
    "$consumer/consumer"
    # [END consumer-cmake]
}

# consumer_make <build dir> <prefix>
consumer_make() {
    consumer=$1
    prefix=$2
    # [START consumer-make]
    PKG_CONFIG_PATH="$prefix/lib/pkgconfig" make -C examples/consumer BUILD="$consumer"
    "$consumer/consumer"
    # [END consumer-make]
}

# run_kind static|shared
run_kind() {
    kind=$1
    shared=OFF
    [ "$kind" = shared ] && shared=ON
    stage="$work/stage-$kind"
    prefix="$work/moved/prefix-$kind"

    step "$kind: build and install into a temporary prefix" install_library "$work/build-$kind" "$stage" "$shared"
    mkdir -p "$work/moved"
    mv "$stage" "$prefix"
    step "$kind: installed tree (prefix moved)" check_tree "$prefix" "$kind"
    step "$kind: consumer with find_package" consumer_cmake "$work/consumer-cmake-$kind" "$prefix"
    step "$kind: consumer with pkg-config" consumer_make "$work/consumer-make-$kind" "$prefix"
}

start=$(date +%s)
run_kind static
run_kind shared
echo "install checks passed in $(($(date +%s) - start)) s"

#!/bin/sh
# Installs every Debian package the project needs to build, test, benchmark and fuzz.
# Safe to run again: apt-get skips packages that are already installed.
set -eu

PACKAGES="
  g++ make cmake pkg-config
  libprotobuf-dev protobuf-compiler libprotoc-dev
  libssl-dev
  libgtest-dev libgmock-dev
  libbenchmark-dev
  clang libclang-rt-14-dev
  librocksdb-dev
  libgrpc++-dev protobuf-compiler-grpc
  golang-etcd-server-dev golang-github-gogo-protobuf-dev golang-github-gogo-googleapis-dev
  etcd-server etcd-client
  libcli11-dev nlohmann-json3-dev
  rocksdb-tools hyperfine strace jq gnuplot-nox
"

if [ "$(id -u)" -eq 0 ]; then
    SUDO=""
else
    SUDO="sudo"
fi

missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

if [ -n "$missing" ]; then
    echo "setup: installing$missing"
    $SUDO apt-get update
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends $missing
else
    echo "setup: all packages present"
fi

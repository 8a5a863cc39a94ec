#!/bin/sh
# Installs the build into a fresh prefix, then builds and runs the consumer
# program against it twice: through find_package(dravinhold), and through
# pkg-config, each time with nothing added to what the package gives.
# Usage: run_consumer_test.sh BUILD_DIR SOURCE_DIR [FLAGS]
# FLAGS go to the compiler and linker of both builds (a sanitizer's, when the
# library is instrumented).
set -eu
build_dir=$1
source_dir=$2
flags=${3:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/dravinhold-consumer-XXXXXX")
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" > "$work/install.log"

# Runs the program with a data root of its own; it must exit 0 and the
# stores' destructors must run quietly at exit.
run() {  # <program> <data root>
  mkdir "$2"
  status=0
  ZERLA_DATA_ROOT="$2" "$1" 2> "$work/stderr" || status=$?
  cat "$work/stderr" >&2
  if [ "$status" -ne 0 ]; then
    echo "FAIL: $1 exited with status $status"
    exit 1
  fi
  # A second object of a store fails on LevelDB's lock of its directory.
  if grep -E 'Failed to open database|lock .*LOCK' "$work/stderr" > /dev/null; then
    echo "FAIL: a store was opened twice"
    exit 1
  fi
}

echo "== find_package(dravinhold)"
cmake -S "$source_dir" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_SHARED_LINKER_FLAGS="$flags" > "$work/configure.log"
cmake --build "$work/build" > "$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
run "$work/build/consumer" "$work/root"

echo "== pkg-config dravinhold"
# The libraries lie in the multiarch directory, lib/<triplet>.
libdir="$work/prefix/lib/$(c++ -print-multiarch)"
pc() { PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config "$@" dravinhold; }
flags_pc=$(pc --cflags --libs)
echo "$flags_pc"
case "$flags_pc" in
  *"-I$work/prefix/include/dravinhold "*"-L$libdir "*) ;;
  *) echo "pkg-config does not print the prefix's directories as plain paths" >&2; exit 1 ;;
esac
mkdir "$work/pc"
protoc --proto_path="$source_dir" --cpp_out="$work/pc" "$source_dir/consumer_records.proto"
# shellcheck disable=SC2046
c++ -std=c++17 -Wall -Wextra -Werror $flags -fPIC -shared -o "$work/pc/libconsumer_plugin.so" \
  "$source_dir/plugin.cc" $(pc --cflags) $(pc --libs)
# shellcheck disable=SC2046
c++ -std=c++17 -Wall -Wextra -Werror $flags -o "$work/pc/consumer" \
  -I"$work/pc" "$source_dir/consumer.cc" "$work/pc/consumer_records.pb.cc" \
  -L"$work/pc" -lconsumer_plugin $(pc --cflags) $(pc --libs) \
  -Wl,-rpath,"$work/pc:$libdir"
run "$work/pc/consumer" "$work/root-pc"

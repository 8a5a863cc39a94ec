#!/bin/sh
# Installs the build into a fresh prefix, then builds and runs the consumer
# program against it twice: through find_package(dravinhold), and through
# pkg-config. Usage: run_consumer_test.sh BUILD_DIR SOURCE_DIR [FLAGS]
# FLAGS go to the compiler and linker of both builds (a sanitizer's, when the
# library is instrumented).
set -eu
build_dir=$1
source_dir=$2
flags=${3:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/dravinhold-consumer-XXXXXX")
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" > "$work/install.log"

cmake -S "$source_dir" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" > "$work/configure.log"
cmake --build "$work/build" > "$work/build.log"

mkdir "$work/root" "$work/root-pc"
echo "== find_package(dravinhold)"
ZERLA_DATA_ROOT="$work/root" "$work/build/consumer"

echo "== pkg-config dravinhold"
# The libraries lie in the multiarch directory, lib/<triplet>.
libdir="$work/prefix/lib/$(c++ -print-multiarch)"
flags_pc=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs dravinhold)
echo "$flags_pc"
case "$flags_pc" in
  *"-I$work/prefix/include/dravinhold "*"-L$libdir "*) ;;
  *) echo "pkg-config does not print the prefix's directories as plain paths" >&2; exit 1 ;;
esac
c++ -std=c++17 -Wall -Wextra -Werror $flags -o "$work/consumer-pc" "$source_dir/consumer.cc" \
  $flags_pc -Wl,-rpath,"$libdir"
ZERLA_DATA_ROOT="$work/root-pc" "$work/consumer-pc"

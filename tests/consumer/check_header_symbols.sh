#!/bin/sh
# The installed interface, seen by a caller: installs the build into a fresh
# prefix and then
#
# 1. compiles every installed header alone, as a caller's first include;
# 2. compiles all of them together into one object with all their inline
#    code emitted (header_symbols.cc), and compares the object's undefined
#    symbols with what libdravinhold.so exports (nm -D --defined-only): each
#    one of the library's own must be exported;
# 3. links that object into a shared object with --no-undefined and nothing
#    but `pkg-config --libs dravinhold`;
# 4. fails on exports that are none of the library's business: LevelDB,
#    POCO, protobuf, the standard library, the common library's stand-in, and
#    test seams outside persistence::testing; and on an installed header that
#    declares a test seam.
#
# Usage: check_header_symbols.sh BUILD_DIR SOURCE_DIR [FLAGS] [NM]
# FLAGS go to the compiler and linker (a sanitizer's, when the library is
# instrumented).
set -u
build_dir=$1
source_dir=$2
flags=${3:-}
nm=${4:-nm}
[ -n "$nm" ] || nm=nm
work=$(mktemp -d "${TMPDIR:-/tmp}/dravinhold-symbols-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

cmake --install "$build_dir" --prefix "$work/prefix" > "$work/install.log" || exit 1
prefix=$work/prefix
include_dir=$prefix/include/dravinhold
# The libraries lie in the multiarch directory, lib/<triplet>.
libdir=$prefix/lib/$(c++ -print-multiarch)
library=$libdir/libdravinhold.so
pc() { PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config "$@" dravinhold; }
cflags=$(pc --cflags) || exit 1
libs=$(pc --libs) || exit 1

(cd "$include_dir" && find . -name '*.h' | sed 's|^\./||' | sort) > "$work/headers"
echo "installed headers: $(wc -l < "$work/headers")"
[ -s "$work/headers" ] || fail "no installed header"

# --- 1. Each header on its own, two at a time ------------------------------------
mkdir "$work/alone"
export cflags work
# shellcheck disable=SC2016
xargs -P 2 -I '{}' sh -c '
  name=$(echo "$1" | tr / _)
  printf "#include \"%s\"\n" "$1" > "$work/alone/$name.cc"
  c++ -std=c++17 -Wall -Wextra -Werror $cflags -fsyntax-only "$work/alone/$name.cc" \
    > "$work/alone/$name.log" 2>&1 || echo "$1" >> "$work/alone/failed"' sh '{}' \
  < "$work/headers"
if [ -s "$work/alone/failed" ]; then
  while read -r header; do
    fail "$header does not compile on its own:"
    head -n 5 "$work/alone/$(echo "$header" | tr / _).log" | sed 's/^/    /'
  done < "$work/alone/failed"
fi

# --- 2. All inline code of all headers, in one caller's object ------------------
sed 's/.*/#include "&"/' "$work/headers" > "$work/all_headers.h"
protoc --proto_path="$source_dir" --cpp_out="$work" "$source_dir/consumer_records.proto" ||
  exit 1
# shellcheck disable=SC2086
if ! c++ -std=c++17 -Wall -Wextra -Werror $flags $cflags -fPIC -fkeep-inline-functions \
  -I"$work" -include "$work/all_headers.h" -c "$source_dir/header_symbols.cc" \
  -o "$work/headers.o" > "$work/compile.log" 2>&1; then
  fail "the headers' inline code does not compile:"
  head -n 20 "$work/compile.log" | sed 's/^/    /'
else
  "$nm" -D --defined-only "$library" | awk '{ print $NF }' | sort -u > "$work/exported"
  "$nm" -u "$work/headers.o" | awk '$1 == "U" { print $2 }' | sort -u > "$work/undefined"
  # The library's own names: its namespaces, its loggers' singletons, its
  # schemas' descriptors, and the guards and tables of all of these.
  c++filt < "$work/undefined" > "$work/undefined.demangled"
  paste "$work/undefined" "$work/undefined.demangled" | awk -F '\t' '
    $2 ~ /^(persistence::|proto::|LoggerSingleton<|descriptor_table_dravinhold_|TableStruct_dravinhold_)/ ||
    $2 ~ / for (persistence::|proto::|LoggerSingleton<)/ { print $1 }' | sort -u > "$work/own"
  echo "undefined symbols of the headers' object: $(wc -l < "$work/undefined")," \
    "of them the library's own: $(wc -l < "$work/own")"
  comm -23 "$work/own" "$work/exported" > "$work/missing"
  if [ -s "$work/missing" ]; then
    fail "$(wc -l < "$work/missing") symbol(s) that the headers need are not exported:"
    c++filt < "$work/missing" | sed 's/^/    /'
  fi
  # Statics of inline code (the singletons and their guard variables) that
  # the object defines for itself and the library holds as well: the
  # library must export each, or the caller's copy of the inline code makes
  # a second object. The reporting shapes' rate-limit state is the one
  # exception: the shapes expand in the caller's code by design, each site
  # with a limit of its own.
  "$nm" "$work/headers.o" | awk '$2 ~ /^[uVv]$/ { print $3 }' | sort -u > "$work/statics"
  "$nm" --defined-only "$library" | awk '{ print $NF }' | sort -u > "$work/library_all"
  own_entity='^(guard variable for |typeinfo for |typeinfo name for |vtable for )?(persistence::|proto::|LoggerSingleton<)'
  comm -12 "$work/statics" "$work/library_all" | c++filt | grep -E "$own_entity" \
    > "$work/shared_statics"
  comm -12 "$work/statics" "$work/library_all" | comm -23 - "$work/exported" | c++filt |
    grep -E "$own_entity" | grep -v -E '::(ratelimit_lock__|last_message_time__)$' \
    > "$work/unshared"
  echo "statics of inline code that the library holds too: $(wc -l < "$work/shared_statics")"
  if [ -s "$work/unshared" ]; then
    fail "$(wc -l < "$work/unshared") static(s) of inline code that the library does not share:"
    sed 's/^/    /' "$work/unshared"
  fi
  # --- 3. Linked with what pkg-config gives, and nothing else ----------------------
  # shellcheck disable=SC2086
  if ! c++ $flags -fPIC -shared -o "$work/headers.so" "$work/headers.o" "$work/consumer_records.pb.cc" \
    $cflags -I"$work" $libs -Wl,--no-undefined > "$work/link.log" 2>&1; then
    fail "the headers' object does not link with \`pkg-config --libs dravinhold\` alone:"
    grep -v -E '^collect2|: in function' "$work/link.log" | c++filt | sort -u | head -n 20 |
      sed 's/^/    /'
  fi
fi

# --- 4. Nothing that is not the library's --------------------------------------
"$nm" -D -C --defined-only "$library" | sed -E 's/^[0-9a-fA-F]+ [A-Za-z] //' > "$work/names"
sed -E 's/^(typeinfo name for |typeinfo for |vtable for |VTT for |construction vtable for |guard variable for |non-virtual thunk to |virtual thunk to )+//' \
  "$work/names" > "$work/entities"
echo "exported symbols: $(wc -l < "$work/names")"
forbid() {  # <extended regex on exported entities> <what>
  if grep -E -- "$1" "$work/entities" > "$work/hits"; then
    fail "exports $2:"
    head -n 5 "$work/hits" | sed 's/^/    /'
  fi
}
forbid '^leveldb::' "LevelDB's symbols"
forbid '^Poco::' "POCO's symbols"
forbid '^google::' "protobuf's symbols"
forbid '^(std|__gnu_cxx)::' "the standard library's symbols"
forbid '^(zerla_common::|loggerhl::|logger_ndc_|GetDirSizeOnDisk|zerla_normalize_string)' \
  "the common library's symbols"
# Test seams: only the two of persistence::testing, nowhere else.
grep -E 'ForTesting|testing::' "$work/entities" |
  grep -v -x -E 'persistence::testing::Set(Clocks|Env)ForTesting\(.*\)' > "$work/hits"
if [ -s "$work/hits" ]; then
  fail "exports test seams outside persistence::testing:"
  head -n 5 "$work/hits" | sed 's/^/    /'
fi
if (cd "$include_dir" && grep -l -E 'ForTesting|namespace testing' $(cat "$work/headers")) \
  > "$work/hits" 2>/dev/null; then
  fail "installed headers declare test seams:"
  sed 's/^/    /' "$work/hits"
fi

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all symbol checks passed"

#!/bin/sh
# Makes the Debian packages of a build and checks them as Debian would:
#   1. lintian reports no error on any of them;
#   2. they install together with dpkg into a throw-away root (their own
#      database, the host's packages they depend on copied into it), with the
#      files, data root and dpkg state a host would get;
#   3. the pkg-config file of the installed -dev package prints plain paths;
#   4. a program built against the installed library runs, and
#      dpkg-shlibdeps gives it a dependency on the library's package from the
#      shlibs file that dpkg recorded for it.
# Usage: run_packages_test.sh BUILD_DIR SOURCE_DIR CPACK
set -eu
build_dir=$1
source_dir=$2
cpack=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/dravinhold-packages-XXXXXX")
trap 'rm -rf "$work"' EXIT
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=usr/lib/$multiarch

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

echo "== cpack -G DEB"
"$cpack" -G DEB --config "$build_dir/CPackConfig.cmake" -B "$work/out" > "$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack"; }
cd "$work/out"
packages="libdravinhold1 libdravinhold-dev dravinhold-tools libzerla-common-standin1
libzerla-common-standin-dev"
debug_packages="libdravinhold1-dbgsym dravinhold-tools-dbgsym libzerla-common-standin1-dbgsym"
files=""
for package in $packages; do
  file=$(ls "${package}"_*.deb) || fail "no package $package"
  files="$files $file"
done
for package in $debug_packages; do
  file=$(ls "${package}"_*.ddeb) || fail "no package $package"
  files="$files $file"
done
# shellcheck disable=SC2086
ls $files

echo "== lintian"
status=0
# shellcheck disable=SC2086
lintian --allow-root $files > "$work/lintian.log" 2>&1 || status=$?
cat "$work/lintian.log"
[ "$status" -le 1 ] || fail "lintian could not check the packages"
if [ "$status" -ne 0 ] || grep -q '^E: ' "$work/lintian.log"; then
  fail "lintian reports errors"
fi

echo "== dpkg --root"
root=$work/root
admin=$root/var/lib/dpkg
mkdir -p "$admin/info" "$admin/updates" "$admin/triggers"
: > "$admin/status"
# The packages' dependencies outside this project, as the host has them.
# shellcheck disable=SC2086
for dependency in $(for file in $files; do dpkg-deb --field "$file" Depends; done |
  tr ',|' '\n\n' | sed -n 's/^ *\([a-z0-9][a-z0-9+.-]*\).*/\1/p' | sort -u); do
  case " $(echo $packages) zerla-common zerla-common-dev " in
    *" $dependency "*) continue ;;
  esac
  dpkg-query --status "$dependency" >> "$admin/status" 2>/dev/null ||
    fail "$dependency, a dependency of the packages, is not installed on this host"
  echo >> "$admin/status"
done
# Maintainer scripts run outside the root and honour $DPKG_ROOT.
# shellcheck disable=SC2086
dpkg --root="$root" --force-script-chrootless --install $files > "$work/dpkg.log" 2>&1 ||
  { cat "$work/dpkg.log"; fail "dpkg --install"; }
for package in $packages $debug_packages; do
  state=$(dpkg-query --admindir="$admin" --show --showformat='${db:Status-Status}' "$package")
  [ "$state" = installed ] || fail "$package is $state"
  [ -f "$root/usr/share/doc/$package/copyright" ] || fail "no copyright file for $package"
done
[ -f "$root/usr/share/doc/libdravinhold1/changelog.Debian.gz" ] || fail "no changelog.Debian.gz"
[ -f "$root/$libdir/libdravinhold.so.1.0.0" ] || fail "no $libdir/libdravinhold.so.1.0.0"
[ -f "$root/$libdir/libzerla_common.so.1.0.0" ] || fail "no $libdir/libzerla_common.so.1.0.0"
[ -f "$root/usr/share/man/man1/dravinholdctl.1.gz" ] || fail "no manual page for dravinholdctl"
[ ! -e "$root/usr/include/dravinhold/persistence/testing" ] || fail "the test-only seams are installed"
mode=$(stat -c %a "$root/var/lib/zerla") || fail "no data root /var/lib/zerla"
[ "$mode" = 750 ] || fail "/var/lib/zerla has mode $mode"
for binary in "$libdir/libdravinhold.so.1.0.0" "$libdir/libzerla_common.so.1.0.0" usr/bin/dravinholdctl; do
  if readelf --dynamic "$root/$binary" | grep -q 'RPATH\|RUNPATH'; then
    fail "$binary has a run-time path"
  fi
  if readelf --section-headers "$root/$binary" | grep -q '\.debug_info'; then
    fail "$binary is not stripped"
  fi
done
echo "installed: $packages $debug_packages"

echo "== pkg-config dravinhold"
pc_path=$root/$libdir/pkgconfig:/usr/lib/$multiarch/pkgconfig:/usr/share/pkgconfig
flags=$(PKG_CONFIG_LIBDIR=$pc_path pkg-config --cflags --libs dravinhold)
echo "$flags"
case " $flags " in
  */../* | *pkgconfig*) fail "pkg-config prints paths that are not plain: $flags" ;;
  *" -I/usr/include/dravinhold "*) ;;
  *) fail "pkg-config does not name /usr/include/dravinhold: $flags" ;;
esac

echo "== a program built against the installed packages"
# Built where a Debian build puts a package's files, for dpkg-shlibdeps below.
consumer=$work/source/debian/consumer/usr/bin/consumer
mkdir -p "$work/source/debian/consumer/DEBIAN" "$(dirname "$consumer")"
# The consumer's own schema, and its plugin compiled into the program: only
# the packages' libraries are to be found by dpkg-shlibdeps below.
mkdir "$work/generated"
protoc --proto_path="$source_dir/consumer" --cpp_out="$work/generated" \
  "$source_dir/consumer/consumer_records.proto"
# shellcheck disable=SC2046
c++ -std=c++17 -Wall -Wextra -Werror -o "$consumer" -I"$work/generated" \
  "$source_dir/consumer/consumer.cc" "$source_dir/consumer/plugin.cc" \
  "$work/generated/consumer_records.pb.cc" \
  $(PKG_CONFIG_LIBDIR=$pc_path PKG_CONFIG_SYSROOT_DIR=$root pkg-config --cflags --libs dravinhold) \
  -Wl,-rpath-link,"$root/$libdir"
mkdir "$work/data"
ZERLA_DATA_ROOT=$work/data LD_LIBRARY_PATH=$root/$libdir "$consumer"
LD_LIBRARY_PATH=$root/$libdir "$root/usr/bin/dravinholdctl" --root "$work/data" count fvhash_store

echo "== dpkg-shlibdeps"
# dpkg-shlibdeps looks for a library's package in the host's database by its
# path on the host. The throw-away root is not the host, so the library is
# handed over as Debian's build tools hand over a package of the same build:
# a tree with the installed library and the shlibs file dpkg recorded.
mkdir -p "$work/source/debian/libdravinhold1/DEBIAN" "$work/source/debian/libdravinhold1/$libdir"
: > "$work/source/debian/control"
cp -a "$root/$libdir"/libdravinhold.so.1* "$work/source/debian/libdravinhold1/$libdir/"
cp "$admin/info/libdravinhold1.shlibs" "$work/source/debian/libdravinhold1/DEBIAN/shlibs" ||
  fail "dpkg recorded no shlibs file for libdravinhold1"
cat "$work/source/debian/libdravinhold1/DEBIAN/shlibs"
# The stand-in the same way: the program links the common library directly,
# as the installed headers call it.
standin_tree=$work/source/debian/libzerla-common-standin1
mkdir -p "$standin_tree/DEBIAN" "$standin_tree/$libdir"
cp -a "$root/$libdir"/libzerla_common.so.1* "$standin_tree/$libdir/"
cp "$admin/info/libzerla-common-standin1.shlibs" "$standin_tree/DEBIAN/shlibs" ||
  fail "dpkg recorded no shlibs file for libzerla-common-standin1"
cd "$work/source"
depends=$(dpkg-shlibdeps -O "$consumer") || fail "dpkg-shlibdeps"
echo "$depends"
case "$depends" in
  *"libdravinhold1 (>= 1.0.0-1)"*) ;;
  *) fail "dpkg-shlibdeps gives no dependency on libdravinhold1" ;;
esac

echo "== dpkg --remove"
# Nothing of the packages is left in dpkg's database (no state "rc"); the
# data root stays, with whatever the agent kept there.
# shellcheck disable=SC2086
dpkg --root="$root" --force-script-chrootless --remove $debug_packages $packages \
  > "$work/dpkg-remove.log" 2>&1 || { cat "$work/dpkg-remove.log"; fail "dpkg --remove"; }
for package in $packages $debug_packages; do
  state=$(dpkg-query --admindir="$admin" --show --showformat='${db:Status-Status}' "$package" \
    2>/dev/null) || state=not-installed
  [ "$state" = not-installed ] || fail "$package is $state after dpkg --remove"
done
[ ! -e "$root/$libdir/libdravinhold.so.1" ] || fail "libdravinhold.so.1 is left after dpkg --remove"
[ -d "$root/var/lib/zerla" ] || fail "dpkg --remove took the data root"
echo "packages: all checks passed"

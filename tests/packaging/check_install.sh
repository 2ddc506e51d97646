#!/usr/bin/env bash
# Installs the build in BUILD_DIR into a fresh temporary prefix and checks it as a user would:
# the installed files and library links, the SONAME and the exported functions, the tool's
# version, then the host project beside this script built with find_package(rulenlu) and the
# same host built with pkg-config, both run. Removes the prefix when done.
#
#   tests/packaging/check_install.sh BUILD_DIR
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 BUILD_DIR" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)

fail() {
  echo "check_install: $*" >&2
  exit 1
}

# The version has one source: project(rulenlu VERSION ...) in the root CMakeLists.txt.
version=$(sed -n 's/^project(rulenlu VERSION \([0-9]*\.[0-9]*\.[0-9]*\).*/\1/p' \
  "$source_dir/CMakeLists.txt")
[ -n "$version" ] || fail "no project version in $source_dir/CMakeLists.txt"
major=${version%%.*}
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build_dir/CMakeCache.txt")
[ -n "$libdir" ] || fail "no CMAKE_INSTALL_LIBDIR in $build_dir/CMakeCache.txt"

# The prefix and, beside it, the host's builds and the logs.
work=$(mktemp -d "${TMPDIR:-/tmp}/rulenlu-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

echo "== cmake --install $build_dir --prefix $prefix"
cmake --install "$build_dir" --prefix "$prefix" > "$work/install.log" 2>&1 ||
  { cat "$work/install.log" >&2; fail "cmake --install failed"; }

echo "== installed files"
lib="$prefix/$libdir"
expected=(
  "bin/rulenlu"
  "include/rulenlu/engine_api.h"
  "include/rulenlu/host_services.h"
  "include/rulenlu/version.h"
  "$libdir/librulenlu.so"
  "$libdir/librulenlu.so.$major"
  "$libdir/librulenlu.so.$version"
  "$libdir/cmake/rulenlu/rulenlu-config.cmake"
  "$libdir/cmake/rulenlu/rulenlu-config-version.cmake"
  "$libdir/cmake/rulenlu/rulenlu-targets.cmake"
  "$libdir/pkgconfig/rulenlu.pc"
)
for file in "${expected[@]}"; do
  [ -e "$prefix/$file" ] || fail "missing $file"
done
# Nothing else: no static layers, test programs or development host. The exported target file
# comes with one file per build type (rulenlu-targets-<type>.cmake).
unexpected=$(cd "$prefix" && find . \( -type f -o -type l \) -printf '%P\n' | sort |
  grep -v -x -F "$(printf '%s\n' "${expected[@]}")" |
  grep -v -x "$libdir/cmake/rulenlu/rulenlu-targets-[a-z]*\.cmake" || true)
[ -z "$unexpected" ] || fail "installed more than expected:"$'\n'"$unexpected"
[ -x "$prefix/bin/rulenlu" ] || fail "bin/rulenlu is not executable"

echo "== library links and SONAME"
[ -f "$lib/librulenlu.so.$version" ] && [ ! -L "$lib/librulenlu.so.$version" ] ||
  fail "librulenlu.so.$version is not a regular file"
[ "$(readlink "$lib/librulenlu.so.$major")" = "librulenlu.so.$version" ] ||
  fail "librulenlu.so.$major -> $(readlink "$lib/librulenlu.so.$major" || true)"
[ "$(readlink "$lib/librulenlu.so")" = "librulenlu.so.$major" ] ||
  fail "librulenlu.so -> $(readlink "$lib/librulenlu.so" || true)"
soname=$(readelf -d "$lib/librulenlu.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
[ "$soname" = "librulenlu.so.$major" ] || fail "SONAME is '$soname', not librulenlu.so.$major"
symbols=$(nm -D --defined-only "$lib/librulenlu.so.$version" | awk '{print $3}' | sort | paste -sd' ')
[ "$symbols" = "AttachServiceManager BuildEngin InitEngin Process" ] ||
  fail "exported functions: $symbols"

echo "== installed tool"
for args in --version version; do
  out=$("$prefix/bin/rulenlu" $args) || fail "rulenlu $args exited with $?"
  [ "$out" = "rulenlu $version" ] || fail "rulenlu $args printed '$out'"
done

# The host must find only the installed copy: no user package registry, no system prefixes.
echo "== host with find_package(rulenlu)"
cmake -S "$here" -B "$work/host-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF \
  -DCMAKE_BUILD_TYPE=Release > "$work/host-configure.log" 2>&1 ||
  { cat "$work/host-configure.log" >&2; fail "the host project does not configure"; }
found=$(sed -n 's/^rulenlu_DIR:[A-Z]*=//p' "$work/host-build/CMakeCache.txt")
[ "$found" = "$lib/cmake/rulenlu" ] || fail "find_package(rulenlu) found '$found'"
cmake --build "$work/host-build" > "$work/host-build.log" 2>&1 ||
  { cat "$work/host-build.log" >&2; fail "the host project does not build"; }
ldd "$work/host-build/host" | grep -F "librulenlu.so.$major => $lib/librulenlu.so.$major" >/dev/null ||
  fail "the host does not load the installed library: $(ldd "$work/host-build/host")"
# The library logs on stdout too; the host's verdict is the last line.
out=$("$work/host-build/host" | tail -n 1) || fail "the host (find_package) failed"
[ "$out" = "rulenlu $version: ok" ] || fail "the host (find_package) printed '$out'"

echo "== host with pkg-config"
flags=$(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --cflags --libs rulenlu) ||
  fail "pkg-config does not know rulenlu"
[ "$(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --modversion rulenlu)" = "$version" ] ||
  fail "pkg-config --modversion rulenlu is not $version"
# shellcheck disable=SC2086 # the flags are words
g++ -std=c++17 -o "$work/host-pkg-config" "$here/host.cc" $flags ||
  fail "the host does not build with: $flags"
out=$(LD_LIBRARY_PATH="$lib" "$work/host-pkg-config" | tail -n 1) ||
  fail "the host (pkg-config) failed"
[ "$out" = "rulenlu $version: ok" ] || fail "the host (pkg-config) printed '$out'"
LD_LIBRARY_PATH="$lib" ldd "$work/host-pkg-config" |
  grep -F "librulenlu.so.$major => $lib/librulenlu.so.$major" >/dev/null ||
  fail "the host (pkg-config) does not load the installed library"

echo "check_install: rulenlu $version installs and links"

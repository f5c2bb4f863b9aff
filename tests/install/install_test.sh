#!/bin/sh
# Installs a build into a scratch prefix and checks the result as a user of
# the installed library would:
#   - liborvlib.so.6 keeps its SONAME and its symbol version ORVLIB_6;
#   - headers, orvctl with its manual page and completion, the pkg-config
#     file, the CMake package, the plugin and the schema are in place;
#   - the C example builds against the prefix twice, with
#     `pkg-config --cflags --libs orvlib` and with find_package(orvlib), and
#     both programs run against the installed library;
#   - the installed orvctl runs from the prefix.
#
# usage: install_test.sh BUILD_DIR EXAMPLE_C [C_COMPILER]
set -eu
build=$1
example=$2
cc=${3:-cc}

scratch=$(mktemp -d /tmp/orvinstall.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }
# True when the program (run with LD_LIBRARY_PATH as set) loads liborvlib.so.6
# from the installed tree.
loads_installed() {
  loaded=$(ldd "$1" | awk '/liborvlib\.so\.6 =>/ { print $3 }')
  [ -n "$loaded" ] && [ "$(readlink -f "$loaded")" = "$(readlink -f "$libdir/liborvlib.so.6")" ]
}

cmake --install "$build" --prefix "$prefix" >"$scratch/install.log" 2>&1 ||
  { cat "$scratch/install.log" >&2; fail "cmake --install"; }

lib=$(find "$prefix" -name liborvlib.so.6 | head -n 1)
[ -n "$lib" ] || fail "liborvlib.so.6 not installed"
libdir=$(dirname "$lib")
[ -L "$libdir/liborvlib.so" ] || fail "no liborvlib.so development link in $libdir"
[ -f "$(readlink -f "$lib")" ] || fail "liborvlib.so.6 is a dangling link"
readelf -d "$lib" | grep -q 'SONAME.*\[liborvlib\.so\.6\]' || fail "SONAME is not liborvlib.so.6"
objdump -T "$lib" | grep -q 'ORVLIB_6[[:space:]]*orvlib_init$' || fail "orvlib_init is not versioned ORVLIB_6"
if objdump -T "$lib" | grep -q 'orv_decipher_credential'; then fail "an internal helper is exported"; fi

for f in include/orvldap.h include/orvplatforms.h bin/orvctl share/man/man1/orvctl.1 \
         share/bash-completion/completions/orvctl share/orvlib/schema/99orv.ldif \
         share/doc/orvlib/server-deployment.md; do
  [ -e "$prefix/$f" ] || fail "$f not installed"
done
[ -f "$libdir/pkgconfig/orvlib.pc" ] || fail "orvlib.pc not installed in $libdir/pkgconfig"
[ -f "$libdir/cmake/orvlib/orvlibConfig.cmake" ] || fail "CMake package not installed"
[ -f "$libdir/cmake/orvlib/orvlibConfigVersion.cmake" ] || fail "CMake package version file not installed"
find "$prefix" -name liborv-plugin.so -path '*dirsrv/plugins*' | grep -q . || fail "plugin not installed under dirsrv/plugins"

# ---- pkg-config
flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs orvlib) || fail "pkg-config orvlib"
incdir=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --variable=includedir orvlib)
[ "$(cd "$incdir" && pwd -P)" = "$(cd "$prefix/include" && pwd -P)" ] ||
  fail "pkg-config's includedir is not $prefix/include: $incdir"
[ "$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion orvlib)" = 6.0.0.1 ] || fail "pkg-config version"
# shellcheck disable=SC2086
"$cc" -std=c99 -Wall -Werror -o "$scratch/example_pc" "$example" $flags || fail "C example with pkg-config"
LD_LIBRARY_PATH=$libdir "$scratch/example_pc" >"$scratch/pc.out" || fail "C example (pkg-config) exited $?"
LD_LIBRARY_PATH=$libdir loads_installed "$scratch/example_pc" ||
  fail "C example (pkg-config) does not load the installed library"

# ---- CMake package
mkdir -p "$scratch/cmake_project"
cp "$example" "$scratch/cmake_project/link_example.c"
cat >"$scratch/cmake_project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(link_example C)
find_package(orvlib 6 REQUIRED)
add_executable(link_example link_example.c)
target_link_libraries(link_example PRIVATE orvlib::orvlib)
CMAKE
cmake -S "$scratch/cmake_project" -B "$scratch/cmake_build" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_PREFIX_PATH="$prefix" >"$scratch/cmake.log" 2>&1 || { cat "$scratch/cmake.log" >&2; fail "find_package(orvlib)"; }
cmake --build "$scratch/cmake_build" >>"$scratch/cmake.log" 2>&1 || { cat "$scratch/cmake.log" >&2; fail "C example with find_package"; }
"$scratch/cmake_build/link_example" >"$scratch/cmake.out" || fail "C example (find_package) exited $?"
loads_installed "$scratch/cmake_build/link_example" ||
  fail "C example (find_package) does not load the installed library"
# A wrong major version is refused.
sed -i 's/find_package(orvlib 6 REQUIRED)/find_package(orvlib 7 REQUIRED)/' "$scratch/cmake_project/CMakeLists.txt"
if cmake -S "$scratch/cmake_project" -B "$scratch/cmake_build7" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
  fail "find_package(orvlib 7) accepted version 6"
fi

# ---- the installed tool
version=$("$prefix/bin/orvctl" --version) || fail "installed orvctl --version"
[ "$version" = "orvctl 6.0.0.1 (liborvlib 6.0.0.1)" ] || fail "orvctl --version said: $version"
loads_installed "$prefix/bin/orvctl" || fail "installed orvctl does not load the installed library"
echo "install tree OK: $(cat "$scratch/pc.out" | head -n 1)"

#!/bin/sh
# Checks the Debian package of orvlib: its control fields, its contents, and
# that the tool runs from a scratch root that the package was unpacked into.
#
# usage: package_test.sh PACKAGE.deb
#        package_test.sh --build BUILD_DIR   (makes the package with cpack first)
set -eu
scratch=$(mktemp -d /tmp/orvpackage.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

if [ "$1" = "--build" ]; then
  # Package what the build tree installs, without letting cpack build it
  # again (tests of that tree may be running).
  DESTDIR=$scratch/stage cmake --install "$2" >"$scratch/install.log" 2>&1 ||
    { cat "$scratch/install.log" >&2; fail "cmake --install"; }
  cpack --config "$2/CPackConfig.cmake" -G DEB -B "$scratch/out" -D CPACK_INSTALL_CMAKE_PROJECTS= \
    -D "CPACK_INSTALLED_DIRECTORIES=$scratch/stage;/" >"$scratch/cpack.log" 2>&1 ||
    { cat "$scratch/cpack.log" >&2; fail "cpack"; }
  deb=$(find "$scratch/out" -maxdepth 1 -name 'orvlib_*.deb' | head -n 1)
else
  deb=$1
fi
[ -f "$deb" ] || fail "no package"

# ---- control fields
[ "$(dpkg-deb -f "$deb" Package)" = orvlib ] || fail "package name"
[ "$(dpkg-deb -f "$deb" Version)" = 6.0.0.1 ] || fail "package version: $(dpkg-deb -f "$deb" Version)"
[ "$(dpkg-deb -f "$deb" Architecture)" = "$(dpkg --print-architecture)" ] || fail "architecture"
dpkg-deb -f "$deb" Depends | grep -q 'libldap' || fail "Depends names no libldap: $(dpkg-deb -f "$deb" Depends)"
dpkg-deb --ctrl-tarfile "$deb" | tar -t | grep -q 'shlibs' || fail "no shlibs control file"

# ---- contents, unpacked into a scratch root
root=$scratch/root
dpkg-deb -x "$deb" "$root"
lib=$(find "$root" -name liborvlib.so.6 | head -n 1)
[ -n "$lib" ] || fail "liborvlib.so.6 not in the package"
libdir=$(dirname "$lib")
usr=$(dirname "$(dirname "$(find "$root" -path '*/bin/orvctl' | head -n 1)")")
[ -x "$usr/bin/orvctl" ] || fail "orvctl not in the package"
for f in include/orvldap.h share/man/man1/orvctl.1 share/bash-completion/completions/orvctl \
         share/orvlib/schema/99orv.ldif share/orvlib/orv-plugin.ldif.in; do
  [ -e "$usr/$f" ] || fail "$f not in the package"
done
[ -f "$libdir/pkgconfig/orvlib.pc" ] || fail "orvlib.pc not in the package"
[ -f "$libdir/cmake/orvlib/orvlibConfig.cmake" ] || fail "CMake package not in the package"
find "$root" -name liborv-plugin.so -path '*dirsrv/plugins*' | grep -q . || fail "plugin not in the package"

version=$(LD_LIBRARY_PATH=$libdir "$usr/bin/orvctl" --version) || fail "orvctl --version from the scratch root"
[ "$version" = "orvctl 6.0.0.1 (liborvlib 6.0.0.1)" ] || fail "orvctl --version said: $version"
loaded=$(LD_LIBRARY_PATH=$libdir ldd "$usr/bin/orvctl" | awk '/liborvlib\.so\.6 =>/ { print $3 }')
[ -n "$loaded" ] && [ "$(readlink -f "$loaded")" = "$(readlink -f "$libdir/liborvlib.so.6")" ] ||
  fail "orvctl from the scratch root does not load the packaged library"
echo "package OK: $(basename "$deb"): $version"

#!/usr/bin/env bash
# Installs the build into a temporary folder, makes the Debian package and
# unpacks it into another, and builds and runs a C and a C++ consumer against
# each: once through the CMake package, once through pkg-config, seeing
# nothing of this source or build tree. Nothing is installed on the machine.
#
# usage: install-and-consume.sh BUILD_DIR CONSUMER_DIR LIBDIR VERSION CC CXX
set -euo pipefail

build=$1 consumer=$2 libdir=$3 version=$4 cc=$5 cxx=$6
work=$(mktemp -d /tmp/lumo_install_XXXXXX)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "install-and-consume: $*" >&2
  exit 1
}

# Builds and runs both consumers against the tree at $1 ($2 names it in messages).
consume() {
  local prefix=$1 label=$2
  local out="$work/consumers-$label"
  mkdir -p "$out"

  # find_package from the prefix alone: no system paths, no registry. OpenCV
  # and Eigen must not be needed (their files are on this machine, but a
  # consumer's may have none).
  cmake -S "$consumer" -B "$out/cmake" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DLUMO_VERSION="$version" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF \
    -DCMAKE_DISABLE_FIND_PACKAGE_OpenCV=ON -DCMAKE_DISABLE_FIND_PACKAGE_Eigen3=ON \
    > "$out/cmake.log" 2>&1 || { cat "$out/cmake.log"; fail "$label: find_package(LumetraDepth) failed"; }
  cmake --build "$out/cmake" > "$out/build.log" 2>&1 ||
    { cat "$out/build.log"; fail "$label: the find_package consumers do not build"; }
  # The imported target's build RPATH finds the library.
  for program in c_consumer cxx_consumer; do
    env -u LD_LIBRARY_PATH "$out/cmake/$program" > /dev/null ||
      fail "$label: the find_package $program does not run"
  done

  # pkg-config from the prefix alone; the loader is told where the library is.
  pc() { env -u PKG_CONFIG_PATH PKG_CONFIG_LIBDIR="$prefix/$libdir/pkgconfig" pkg-config "$@"; }
  local flags
  flags=$(pc --cflags --libs lumetra_depth) || fail "$label: pkg-config does not find lumetra_depth"
  pc --exact-version="$version" lumetra_depth || fail "$label: pkg-config version is not $version"
  # shellcheck disable=SC2086 # the flags are words
  "$cc" -std=c11 -pedantic-errors -Wall -Werror "$consumer/consumer.c" $flags -o "$out/c_pkgconfig" ||
    fail "$label: the pkg-config C consumer does not build"
  # shellcheck disable=SC2086
  "$cxx" -std=c++11 -pedantic-errors -Wall -Werror "$consumer/consumer.cpp" $flags -o "$out/cxx_pkgconfig" ||
    fail "$label: the pkg-config C++ consumer does not build"
  for program in c_pkgconfig cxx_pkgconfig; do
    LD_LIBRARY_PATH=$(pc --variable=libdir lumetra_depth) "$out/$program" > /dev/null ||
      fail "$label: the pkg-config $program does not run"
  done

  # The program finds the library beside it through its own RPATH.
  env -u LD_LIBRARY_PATH "$prefix/bin/lumetra-depth" --help > /dev/null ||
    fail "$label: $prefix/bin/lumetra-depth does not run"
}

# Installed as a user would, but staged under DESTDIR so that no install rule
# can reach the machine; the files are used where they land, not at the
# prefix they were installed for, so nothing may depend on that prefix.
DESTDIR="$work/stage" cmake --install "$build" --prefix /opt/lumetra-depth > /dev/null
consume "$work/stage/opt/lumetra-depth" installed

# The package as `make package` makes it, unpacked instead of installed.
(cd "$work" && cpack --config "$build/CPackConfig.cmake" -B "$work/deb" > "$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(ls "$work"/deb/*.deb)
dpkg-deb -x "$deb" "$work/root"
root="$work/root/usr"
for file in include/lumetra_depth.h "$libdir/liblumetra_depth.so.$version" \
            "$libdir/cmake/LumetraDepth/LumetraDepthConfigVersion.cmake" bin/lumetra-depth; do
  [ -f "$root/$file" ] || fail "the package lacks /usr/$file"
done
soname="liblumetra_depth.so.${version%%.*}"
[ "$(readlink "$root/$libdir/$soname")" = "liblumetra_depth.so.$version" ] ||
  fail "the package lacks the link $soname -> liblumetra_depth.so.$version"
[ "$(readlink "$root/$libdir/liblumetra_depth.so")" = "$soname" ] ||
  fail "the package lacks the link liblumetra_depth.so -> $soname"
dpkg-deb -f "$deb" Depends | grep -q libopencv-core ||
  fail "the package's dependencies were not computed: $(dpkg-deb -f "$deb" Depends)"
consume "$root" package

echo "install-and-consume: installed tree and Debian package $(basename "$deb") both work"

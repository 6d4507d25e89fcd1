#!/usr/bin/env bash
# Installs everything the build and the tests need, from Debian's packages only.
# Idempotent: when everything is in place it only checks and returns.
#   - native packages through apt
#   - jsoncpp, built from its Debian source package with the mingw-w64 compiler
#   - GoogleTest, built from /usr/src/googletest with the mingw-w64 compiler
# The cross-built libraries go to $TPCSDK_DEPS/mingw64 (default /opt/tpcsdk-deps).
set -euo pipefail

DEPS=${TPCSDK_DEPS:-/opt/tpcsdk-deps}
PREFIX=$DEPS/mingw64
HERE=$(cd "$(dirname "$0")/.." && pwd)
TOOLCHAIN=$HERE/cmake/mingw-w64-x86_64.cmake
SUDO=""
[ "$(id -u)" = 0 ] || SUDO=sudo

PKGS=(
  build-essential cmake pkg-config make git ca-certificates curl openssl
  g++-mingw-w64-x86-64-posix wine64
  libjsoncpp-dev libcurl4-openssl-dev libssl-dev libcpp-httplib-dev libkrb5-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev libpugixml-dev libtinyxml2-dev libexpat1-dev python3
  clang libclang-rt-14-dev dpkg-dev xz-utils libcli11-dev
)

missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "bootstrap: installing ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

$SUDO mkdir -p "$PREFIX"
[ -w "$PREFIX" ] || $SUDO chown "$(id -u):$(id -g)" "$DEPS" "$PREFIX"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cross_cmake() { # source-dir build-dir extra-args...
  local src=$1 bld=$2; shift 2
  cmake -S "$src" -B "$bld" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$PREFIX" "$@" >/dev/null
  cmake --build "$bld" -j"$(nproc)" >/dev/null
  cmake --install "$bld" >/dev/null
}

if [ ! -f "$PREFIX/lib/libjsoncpp.a" ]; then
  echo "bootstrap: cross-building jsoncpp from Debian's source package"
  # A private apt state holds the source index, so the system's sources stay untouched.
  # Its one line points at the archive and release the machine's own sources name.
  apt_dir=$DEPS/apt
  mkdir -p "$apt_dir/lists/partial"
  "$HERE/scripts/apt-source-line.sh" > "$apt_dir/sources.list"
  aopt=(-o Dir::Etc::sourcelist="$apt_dir/sources.list" -o Dir::Etc::sourceparts=- \
        -o Dir::State::Lists="$apt_dir/lists" -o Dir::Cache::srcpkgcache= -o Dir::Cache::pkgcache=)
  apt-get "${aopt[@]}" update -qq
  (cd "$work" && apt-get "${aopt[@]}" source -qq libjsoncpp >/dev/null 2>&1)
  src=$(find "$work" -maxdepth 1 -type d -name 'libjsoncpp-*' | head -n1)
  [ -n "$src" ] || { echo "bootstrap: jsoncpp source not found" >&2; exit 1; }
  cross_cmake "$src" "$work/jsoncpp-build" -DBUILD_SHARED_LIBS=OFF -DBUILD_STATIC_LIBS=ON \
    -DBUILD_OBJECT_LIBS=OFF -DJSONCPP_WITH_TESTS=OFF -DJSONCPP_WITH_POST_BUILD_UNITTEST=OFF \
    -DJSONCPP_WITH_PKGCONFIG_SUPPORT=OFF -DJSONCPP_WITH_CMAKE_PACKAGE=ON -DCMAKE_INSTALL_LIBDIR=lib
fi

if [ ! -f "$PREFIX/lib/libgtest.a" ] || [ ! -f "$PREFIX/lib/libgmock.a" ]; then
  echo "bootstrap: cross-building GoogleTest from /usr/src/googletest"
  cross_cmake /usr/src/googletest "$work/gtest-build" -DBUILD_GMOCK=ON -DINSTALL_GTEST=ON \
    -DCMAKE_INSTALL_LIBDIR=lib -Dgtest_force_shared_crt=ON
fi
echo "bootstrap: ready"

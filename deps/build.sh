#!/bin/sh
# Builds the pinned libubox and libuci, static, with their own CMake files.
#   deps/build.sh PREFIX [TOOLCHAIN [COMPILER FLAGS]]
# Leaves headers, archives and the `uci` tool in PREFIX; does nothing when PREFIX already holds
# what these files and arguments describe. TOOLCHAIN, a CMake toolchain file, builds for another CPU
# ("": for this one). COMPILER and FLAGS, for instance a sanitizer's, replace the default compiler
# and are added to its flags. Called by CMake at configure time.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
prefix=$1
toolchain=${2-}
compiler=${3-}
flags=${4-}
work=$prefix.work
mkdir -p "$prefix" "$work"

# Two presets may be configured at the same time; they share one prefix.
exec 9>"$work/lock"
flock 9

wanted=$( (cat "$here/Cargo.lock" "$here/build.sh" && echo "$compiler $flags") | sha256sum)
if [ "$(cat "$prefix/stamp" 2>/dev/null)" = "$wanted" ]; then
    exit 0
fi

command -v cargo >/dev/null || {
    echo "deps/build.sh: cargo is needed to obtain libubox and libuci (Debian package: cargo)" >&2
    exit 1
}

rm -rf "$prefix" "$work/sources"
mkdir -p "$prefix"
# Debian's cargo knows the registry's HTTP index, today's default, only as an experiment; newer ones
# ignore these three. The lock file's checksums hold either way.
(cd "$here" && RUSTC_BOOTSTRAP=1 CARGO_UNSTABLE_SPARSE_REGISTRY=true \
    CARGO_REGISTRIES_CRATES_IO_PROTOCOL=sparse \
    cargo vendor --quiet --locked --versioned-dirs "$work/sources" >/dev/null)

build() { # name, source folder, further CMake arguments
    name=$1
    source=$2
    shift 2
    rm -rf "${work:?}/$name"
    cmake -S "$source" -B "$work/$name" -G Ninja -Wno-dev --log-level=WARNING \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_PREFIX_PATH="$prefix" \
        ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_FIND_ROOT_PATH="$prefix"} \
        -DCMAKE_POLICY_VERSION_MINIMUM=3.5 -DCMAKE_POSITION_INDEPENDENT_CODE=ON \
        ${compiler:+-DCMAKE_C_COMPILER="$compiler"} \
        -DCMAKE_C_FLAGS="-Wno-error -ffunction-sections -fdata-sections $flags" \
        -DBUILD_LUA=OFF "$@"
    cmake --build "$work/$name" -- --quiet
    cmake --install "$work/$name" >/dev/null
}

exec 8>&1 >"$work/log" 2>&1 # the libraries' own build output goes to a log
report_failure() {
    if [ "$1" != 0 ]; then
        tail -n 40 "$work/log" >&8
        echo "see $work/log" >&8
    fi
}
trap 'report_failure $?' EXIT

build libubox "$work"/sources/libubox-sys-*/vendor/libubox -DBUILD_EXAMPLES=OFF
# Static only: the linker prefers a shared library where both stand side by side.
rm -f "$prefix"/lib/*.so "$prefix"/bin/jshn
build libuci "$work"/sources/libuci-sys-*/uci -DBUILD_STATIC=ON
cp "$work/libuci/libuci.a" "$prefix/lib/" # its install step takes the shared one only
rm -f "$prefix"/lib/*.so

rm -rf "$work/sources"
echo "$wanted" >"$prefix/stamp"

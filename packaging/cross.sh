#!/bin/sh
# Builds the daemon, the supervisor and the unit tests for other CPUs with Debian's cross compilers,
# runs the tests in an emulator, and prints what the programs weigh and load.
#   packaging/cross.sh [CPU...]
# Without a CPU: armhf and mipsel, which routers have, and s390x for its byte order.
set -eu
cd "$(dirname "$0")/.."

[ $# -gt 0 ] || set -- armhf mipsel s390x
jobs=${JOBS:-$(nproc)}
# A program's tests mostly wait, so all programs run side by side.
test_programs=10

build_and_test() { # CPU
    deps/sysroot.sh "$1" "build/sysroots/$1"
    [ -e "build/$1/build.ninja" ] || cmake --preset "$1" ${CI:+-DCRC_WERROR=ON}
    cmake --build --preset "$1" -j "$jobs"
    ctest --preset "$1" -j "$test_programs"
}

field() { # ELF header's field, program
    readelf -h "$2" | sed -n "s/^ *$1: *//p"
}

describe() { # CPU
    for program in cloud_relay_client cloud_relay_supervisor; do
        built=build/$1/bin/$program
        triplet=$(sed -n 's/^set(CRC_TRIPLET \(.*\))/\1/p' "cmake/toolchains/$1.cmake")
        "$triplet-strip" -o "$built.stripped" "$built"
        printf '%-8s %-4s %-7s %-24s %8d  %s\n' "$1" \
            "$(field Class "$built" | tr -dc 0-9)" \
            "$(field Data "$built" | sed 's/.*, \(.*\) endian/\1/')" \
            "$program" "$(stat -c %s "$built.stripped")" \
            "$(readelf -d "$built" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')"
    done
}

deps/setup.sh cross
for cpu in "$@"; do
    build_and_test "$cpu"
done

printf '\n%-8s %-4s %-7s %-24s %8s  %s\n' CPU bits endian program bytes "shared libraries"
for cpu in "$@"; do
    describe "$cpu"
done

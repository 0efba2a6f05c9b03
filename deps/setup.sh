#!/bin/sh
# Installs the Debian packages that are missing. Quick when all are there.
#
#   setup.sh          what the build and the demo need
#   setup.sh checks   that, and what tests, benchmarks and lint need
#   setup.sh cross    what builds and runs the router's programs for other CPUs
set -eu

packages="
    g++ cmake ninja-build pkg-config
    libjson-c-dev libcjson-dev libwolfssl-dev libssl-dev libboost1.81-dev libsystemd-dev dpkg-dev
    libgtest-dev libgmock-dev
    lua5.1 lighttpd openssl iproute2 python3 python3-pytest
"
if [ "${1-}" = checks ]; then
    packages="$packages
        python3-pytest-xdist python3-selenium chromium chromium-driver
        tshark mandoc busybox
        gcovr python3-pip
        systemd debootstrap
        strace binutils valgrind curl wrk nftables nginx-light openssh-server openssh-client
        clang-format-14 clang-tidy-14 shellcheck
        clang-14 libclang-rt-14-dev llvm-14
    "
fi
if [ "${1-}" = cross ]; then
    packages="
        cmake ninja-build lua5.1 openssl iproute2 binutils qemu-user
        g++-arm-linux-gnueabihf g++-mipsel-linux-gnu g++-s390x-linux-gnu
    "
fi
# Any cargo will do to obtain libubox and libuci; Debian's where there is none.
if [ ! -e "$(dirname "$0")/../build/deps/prefix/stamp" ] && ! command -v cargo >/dev/null; then
    packages="$packages cargo ca-certificates"
fi

if ! command -v apt-get >/dev/null; then
    echo "setup: not a Debian system; what the build needs must be there already:$packages"
    exit 0
fi

missing=
for package in $packages; do
    case $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null) in
    "install ok installed") ;;
    *) missing="$missing $package" ;;
    esac
done
[ -n "$missing" ] || exit 0

as_root=
if [ "$(id -u)" != 0 ]; then
    if ! sudo -n true 2>/dev/null; then
        echo "setup: only root may install the Debian packages that are missing:$missing" >&2
        exit 1
    fi
    as_root=sudo
fi
echo "setup: installing$missing"
export DEBIAN_FRONTEND=noninteractive
# shellcheck disable=SC2086 # the list's words are separate arguments
if ! { $as_root apt-get update -qq &&
    $as_root apt-get install -y -qq --no-install-recommends $missing; } >/tmp/setup.$$ 2>&1; then
    tail -n 20 /tmp/setup.$$ >&2
    rm -f /tmp/setup.$$
    echo "setup: these Debian packages could not be installed:$missing" >&2
    exit 1
fi
rm -f /tmp/setup.$$

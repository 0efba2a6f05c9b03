#!/bin/sh
# Unpacks the Debian libraries that a cross build links and its tests load.
#   deps/sysroot.sh CPU FOLDER
# CPU is Debian's name for it. Nothing is installed and the machine's own package lists are not
# touched, so that it does not matter which versions stand beside each other. Does nothing when
# FOLDER already holds what this file describes. Also works for an ordinary user.
set -eu

# The compiler brings the C and C++ libraries' headers.
packages="
    libc6 libstdc++6 libatomic1
    libjson-c-dev libcjson-dev libwolfssl-dev libssl-dev libgtest-dev libgmock-dev
"

cpu=$1
root=$(realpath -m "$2")
apt_folder=$root.apt
# shellcheck source=/dev/null # the system's name
. /etc/os-release

wanted=$(cat "$0" /etc/os-release | sha256sum)
if [ "$(cat "$root/stamp" 2>/dev/null)" = "$wanted" ]; then
    exit 0
fi

echo "unpacking Debian's libraries for $cpu"
rm -rf "$root" "$apt_folder"
mkdir -p "$root" "$apt_folder/lists/partial" "$apt_folder/archives/partial" "$apt_folder/none"
: >"$apt_folder/status" # no package is installed, so all that is needed comes

# The machine's own mirror, and of it only the release proper: updates reach the ports at other
# times than the machine's own CPU.
# shellcheck disable=SC2016 # apt expands these
apt-get indextargets --format 'deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] '\
'$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' "Codename: $VERSION_CODENAME" \
    'Component: main' >"$apt_folder/sources.list"

foreign_apt() {
    apt-get -qq -o APT::Architecture="$cpu" -o APT::Architectures="$cpu" \
        -o Dir::State="$apt_folder" -o Dir::State::status="$apt_folder/status" \
        -o Dir::Cache="$apt_folder" -o Dir::Etc::sourcelist="$apt_folder/sources.list" \
        -o Dir::Etc::sourceparts="$apt_folder/none" \
        -o Dir::Etc::preferencesparts="$apt_folder/none" \
        -o APT::Sandbox::User="$(id -un)" -o Acquire::Languages=none -o Acquire::Retries=3 "$@"
}
foreign_apt update
# shellcheck disable=SC2086 # the list's words are separate arguments
foreign_apt install --yes --download-only --no-install-recommends $packages

for package in "$apt_folder"/archives/*.deb; do
    dpkg-deb --extract "$package" "$root"
done
rm -rf "$apt_folder"

# An emulated program looks for each file here first: nothing but libraries may stand in the way.
for folder in "$root"/*; do
    case $folder in
    */lib | */usr) ;;
    *) rm -rf "$folder" ;;
    esac
done
rm -rf "${root:?}"/usr/share "${root:?}"/usr/bin "${root:?}"/usr/sbin

# Links from /usr/lib to /lib are absolute, and would lead to the machine's own files.
find "$root" -type l -lname '/*' | while read -r link; do
    ln -sfnr "$root$(readlink "$link")" "$link"
done

echo "$wanted" >"$root/stamp"

#!/bin/sh
# SPDX-License-Identifier: MIT
# shellcheck shell=dash
#
# test.sh PACKAGE VERSION: run where the package is installed. The daemon has no way to end, so it is
# not started here. IPKG_INSTROOT, where set, is the root of the installation.

[ "$1" = cloud_relay_client ] || exit 0
root=${IPKG_INSTROOT:-}

fail() {
	echo "cloud_relay_client: $*" >&2
	exit 1
}

for program in cloud_relay_client cloud_relay_supervisor; do
	[ -x "$root/usr/sbin/$program" ] || fail "$program is not installed"
done

"$root/usr/sbin/cloud_relay_supervisor" help 2>&1 | grep -q '^usage: ' ||
	fail "the supervisor does not run"

sh -n "$root/etc/init.d/cloud_relay" || fail "the init script is broken"
sh -n "$root/etc/hotplug.d/iface/95-cloud_relay" || fail "the hotplug script is broken"

for file in etc/config/cloud_relay usr/share/acl.d/cloud_relay.json \
	etc/capabilities/cloud_relay.json lib/upgrade/keep.d/cloud_relay; do
	[ -s "$root/$file" ] || fail "/$file is missing"
done

"""The built program as a file."""

import subprocess

import pytest

from daemon import DAEMON, build
from processes import program
from suite_rules import of_this_build


def printed(*command):
    return subprocess.run([*command, program(DAEMON)], check=True, capture_output=True,
                          text=True).stdout


@pytest.mark.plain_build
def test_exactly_the_gateway_interface_is_exported():
    symbols = {line.split()[-1] for line in printed("nm", "-D", "--defined-only").splitlines()}
    assert symbols == {"get_gateway_device", "get_gateway_device_count", "print_gateway_device",
                       "g_gateway_device_list"}


def needed_libraries():
    return [line.split("[")[1].rstrip("]") for line in printed("readelf", "-d").splitlines()
            if "(NEEDED)" in line]


def test_the_c_plus_plus_library_is_not_needed_at_run_time():
    if build() in ("address", "thread"):
        pytest.skip(of_this_build("the sanitizer's own library brings it along"))
    assert needed_libraries()
    assert not [name for name in needed_libraries() if name.startswith("libstdc++")]


@pytest.mark.plain_build
def test_the_program_is_hardened():
    header = printed("readelf", "-h")
    dynamic = printed("readelf", "-d")
    segments = printed("readelf", "-lW")
    assert "DYN (Position-Independent Executable file)" in header
    stack = [line for line in segments.splitlines() if "GNU_STACK" in line]
    assert stack and "RWE" not in stack[0]
    assert "GNU_RELRO" in segments
    assert "TEXTREL" not in dynamic

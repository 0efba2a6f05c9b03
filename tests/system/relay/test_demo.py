"""demo.py: the first thing that anybody runs."""

import contextlib
import json
import os
import re
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

import namespaces
from processes import Process, can_change_user, is_sanitized, program, run, wait_until
from suite_rules import of_this_build

TREE = Path(__file__).resolve().parents[3]
PAGE = (TREE / "demo" / "www" / "index.html").read_text()
NOBODY = 65534
AS_NOBODY = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]

pytestmark = [pytest.mark.lasts(5)]


# The tests' own places are no ground for a demo, which makes its own out of the machine's.
OUTSIDE = namespaces.mounts_of_now()

# Runs the demo with a /tmp of its own, where all that it leaves there shows, and with our programs
# in /mnt and the tree in /srv, since both may stand below /tmp. Tells in the end what has changed.
_SURROUNDINGS = """
mount --bind "$1" /mnt; mount --bind "$2" /srv; mount -t tmpfs tmpfs /tmp; chmod 1777 /tmp; shift 2
look() { cat /proc/self/mounts; ls -A /etc /run /tmp /usr/lib; }
before=$(look)
trap : INT TERM
"$@"
status=$?
after=$(look)
if [ "$before" = "$after" ]; then echo "all is as before"; else echo "$before" "NOW" "$after"; fi
exit $status
"""


class Demo(Process):
    """A demo in a session of its own, as behind a terminal."""

    def __init__(self, *arguments, wrapper=(), programs=None, path=""):
        """`programs`: the folder to take them from. `path`: what comes first in PATH."""
        keyboard, self.keyboard = os.pipe()
        super().__init__(
            "setsid", "nsenter", f"--mount=/proc/{os.getpid()}/fd/{OUTSIDE}",
            "unshare", "--mount", "sh", "-c", _SURROUNDINGS, "sh",
            programs or Path(program("ubus")).parent, TREE, *wrapper,
            "/usr/bin/python3", "/srv/demo/demo.py", *arguments,
            environment={"CRC_BIN": "/mnt", "PATH": path + os.environ["PATH"],
                         "PYTHONDONTWRITEBYTECODE": "1"}, stdin=keyboard)
        os.close(keyboard)

    def type(self, line):
        os.write(self.keyboard, f"{line}\n".encode())

    def close_keyboard(self):
        if self.keyboard is not None:
            os.close(self.keyboard)
            self.keyboard = None

    def relatives(self):
        """Process ids of all that runs for it, the shell around it not counted."""
        found = []
        for folder in Path("/proc").glob("[0-9]*"):
            try:
                if os.getsid(int(folder.name)) == self.pid != int(folder.name):
                    found.append(int(folder.name))
            except ProcessLookupError:
                pass
        return found

    def script(self):
        """The demo's own process id."""
        for each in self.relatives():
            with contextlib.suppress(OSError):  # it may end meanwhile
                if Path(f"/proc/{each}/cmdline").read_bytes().startswith(b"/usr/bin/python3\0"):
                    return each
        return None

    def put_away(self):
        """Ends all that runs for it, as a failed test must."""
        for each in self.relatives():
            with contextlib.suppress(ProcessLookupError):
                os.kill(each, signal.SIGKILL)
        super().put_away()

    def __exit__(self, *raised):
        self.close_keyboard()
        super().__exit__(*raised)

    def end(self):
        """Waits for its end; its exit status. It must have left nothing behind."""
        status = self.wait()
        wait_until(lambda: not self.relatives(), "its processes have ended", 5)
        assert self.output.lines[-1] == "all is as before", self.output.text + self.errors.text
        return status


def assert_shown(output):
    assert PAGE in output
    assert re.search(r"it came from the router's web server in \d+\.\d ms", output)


def test_once_shows_the_page_and_ends():
    with Demo("--once") as demo:
        assert demo.end() == 0, demo.errors.text
    assert_shown(demo.output.text)


def may_make_namespaces():
    if not can_change_user():
        return False
    probe = subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "true"],
                           user=NOBODY, group=NOBODY, extra_groups=[], capture_output=True)
    return probe.returncode == 0


def test_an_ordinary_user_can_run_it():
    if not may_make_namespaces():
        pytest.skip("ordinary users make no namespaces here")
    with Demo("--once", wrapper=AS_NOBODY) as demo:
        assert demo.end() == 0, demo.errors.text
    assert_shown(demo.output.text)


def test_where_nothing_is_allowed_it_says_so():
    if not can_change_user():
        pytest.skip("only root can take away what is allowed")
    forbid = ("echo 0 > /proc/sys/user/max_user_namespaces && "
              "exec setpriv --inh-caps=-all --ambient-caps=-all \"$@\"")
    wrapper = ["unshare", "--user", "--keep-caps", "sh", "-c", forbid, "sh"]
    with Demo("--once", wrapper=[*AS_NOBODY, *wrapper]) as demo:
        assert demo.end() == 1
    assert re.fullmatch(r"demo: this machine lets an ordinary user make no namespaces \(.*\); "
                        r"run it as root\n", demo.errors.text), demo.errors.text


def test_two_at_once_do_not_collide():
    with Demo("--once") as first, Demo("--once") as second:
        assert (first.end(), second.end()) == (0, 0), first.errors.text + second.errors.text
    assert_shown(first.output.text)
    assert_shown(second.output.text)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_it_stays_up_until_told_to_end_and_leaves_nothing(number):
    with Demo() as demo:
        addresses = demo.output.wait_for(r"dashboard +(http://\S+)(?s:.*)the router +(http://\S+)"
                                         r"(?s:.*)Ctrl-C ends it")
        dashboard, page = addresses.groups()
        assert run("curl", "-sS", f"{page}index.html").output == PAGE
        assert run("curl", "-sS", dashboard).output.startswith("<!doctype html>")
        devices = json.loads(run("curl", "-sS", f"{dashboard}api/devices").output)["devices"]
        assert [device["url"] for device in devices] == [page]
        assert len(demo.relatives()) >= 5
        if number == signal.SIGINT:
            os.killpg(demo.pid, number)  # a terminal tells all of them
        else:
            os.kill(demo.script(), number)
        assert demo.end() == 0, demo.errors.text
    assert demo.errors.text == ""


@pytest.fixture
def broken():
    """A demo that is up, for breaking; it must survive that."""
    with Demo() as demo:
        demo.page = demo.output.wait_for(r"the router +(http://\S+)(?s:.*)Ctrl-C ends it")[1]
        yield demo
        assert run("curl", "-s", "-m", "5", f"{demo.page}index.html").output == PAGE
        os.kill(demo.script(), signal.SIGINT)
        assert demo.end() == 0, demo.errors.text


def wait_for_session(demo, since):
    return demo.output.wait_for("the device has a new session", start=since.end()).end()


def test_a_relay_that_is_killed_gets_a_new_session(broken):
    broken.type("relay")
    wait_for_session(broken, broken.output.wait_for("the relay is gone\n(.*\n)*.*it runs again"))


def test_a_bus_that_is_killed_costs_no_session_and_those_to_come(broken):
    broken.type("bus")
    back = broken.output.wait_for("the bus is gone\n(.*\n)*.*it runs again")
    assert run("curl", "-s", "-m", "5", f"{broken.page}index.html").output == PAGE
    assert "new session" not in broken.output.text[back.end():]
    broken.type("relay")
    wait_for_session(broken, back)


def test_an_uplink_that_is_cut_gets_a_new_session_when_it_is_back(broken):
    for _ in range(2):
        broken.type("uplink")
        start = len(broken.output.text)
        wait_for_session(broken, broken.output.wait_for("the uplink is back", start=start))


def test_it_says_so_when_it_does_not_know_what_to_break_and_needs_no_keyboard(broken):
    broken.type("router")
    broken.output.wait_for("there is no 'router' to break; type relay, bus or uplink")
    broken.close_keyboard()


def bin_with(tmp_path, **replaced):
    """A folder of our programs with some of them replaced by scripts."""
    folder = tmp_path / "bin"
    shutil.copytree(Path(program("ubus")).parent, folder, ignore=lambda where, names: [
        name for name in names
        if name not in ("ubus", "ubusd", "uci", "cloud_relay_client", "cloud_relay_supervisor",
                        "relay_server")])
    for name, script in replaced.items():
        (folder / name).unlink(missing_ok=True)
        (folder / name).write_text(script)
        (folder / name).chmod(0o755)
    return folder


def test_a_page_that_is_not_the_one_served_fails(tmp_path):
    folder = bin_with(tmp_path, lighttpd=(
        "#!/bin/sh\nsed -i 's|^server.document-root.*|"
        "server.document-root = \"/mnt\"|' \"$3\"\nexec /usr/sbin/lighttpd \"$@\"\n"))
    (folder / "index.html").write_text("another page")
    with Demo("--once", programs=folder, path="/mnt:") as demo:
        assert demo.end() == 1
    assert "not the page that is served" in demo.errors.text
    assert "another page" in demo.errors.text


def test_a_relay_that_does_not_start_fails(tmp_path):
    folder = bin_with(tmp_path, relay_server="#!/bin/sh\necho broken >&2\nexit 3\n")
    with Demo("--once", programs=folder) as demo:
        assert demo.end() not in (0, None)
    assert "broken" in demo.errors.text


@pytest.mark.skipif(is_sanitized(program("cloud_relay_client")),
                    reason=of_this_build("a sanitizer makes the folder of its log anew in a "
                                         "daemon that starts"))
@pytest.mark.parametrize("moment", ["^", "relay_server is up", "the router is up",
                                    "the device is connected"])
@pytest.mark.parametrize("whom", ["the script", "all of them"])
def test_it_can_be_ended_before_it_is_up(moment, whom):
    with Demo() as demo:
        demo.output.wait_for(moment)
        script = wait_until(demo.script, "the script runs")
        wait_until(lambda: len(demo.relatives()) > 1, "it has begun")
        if whom == "the script":
            os.kill(script, signal.SIGINT)
        else:
            os.killpg(demo.pid, signal.SIGINT)
        demo.end()

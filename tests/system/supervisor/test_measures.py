"""What is measured: pauses, memory, descriptors, processor time."""

import re
import time

import pytest

from daemon import build, slowness
from processes import wait_until
from relay_peer import refusing_port
from supervised import Pauses


@pytest.mark.lasts(30)
def test_pauses_are_those_that_the_seed_foretells(supervisor, daemon):
    dead = f"127.0.0.1:{refusing_port()}"
    supervisor.configure(dead, pause_min="0.25", pause_max="4").start(seed=2024)
    expected = Pauses(seed=2024)
    assert expected.draw(0) == 0  # the delay at boot
    ceilings = [250, 500, 1000, 2000, 4000, 4000, 4000, 4000]
    for number, ceiling in enumerate(ceilings):
        pause = expected.draw(ceiling)
        failed = supervisor.log.expect(
            f"{dead}: no connection came about; next attempt in {pause / 1000:.3f} s "
            f"(at most {ceiling / 1000:.3f} s)")
        next_attempt = supervisor.log.expect(f"{dead}: connecting, attempt {number + 2}")
        measured = next_attempt.at - failed.at
        assert -0.03 < measured - pause / 1000 < 0.15 * slowness(), (number, pause, measured)
        wait_until(lambda: len(daemon.log.find("[CRC:] Start cloudRelayClient task.")) >=
                   number + 2, "the daemon is called")


@pytest.mark.lasts(110)
def test_a_hundred_sessions_in_a_row_leave_nothing_behind(supervisor, daemon, relay):
    supervisor.configure(relay, pause_min="0.01", pause_max="0.01").start()

    def one_session():
        relay.accept().welcome().close()

    for _ in range(20):
        one_session()
    supervisor.wait_for_object()
    descriptors, memory = supervisor.descriptors(), supervisor.written_kib()
    daemons = len(daemon.descriptors())
    for _ in range(80):
        one_session()
    wait_until(lambda: supervisor.descriptors() <= descriptors, "descriptors are given back")
    wait_until(lambda: len(daemon.descriptors()) <= daemons, "those of the daemon are, too")
    if build() == "plain":
        assert supervisor.written_kib() - memory <= 8
    last = [entry.text for entry in supervisor.log.entries if "connecting, attempt" in entry.text]
    assert int(re.search(r"attempt (\d+)$", last[-1])[1]) >= 100


@pytest.mark.lasts(16)
@pytest.mark.plain_build
@pytest.mark.parametrize("case", ["connected", "waiting", "missing"])
def test_at_rest_it_costs_next_to_nothing(supervisor, unstarted_daemon, relay, case):
    if case == "missing":
        supervisor.configure(relay).start().wait_for_object()
    else:
        unstarted_daemon.start().wait_for_object()
        server = relay if case == "connected" else f"127.0.0.1:{refusing_port()}"
        supervisor.configure(server, pause_min="3600", pause_max="3600").start()
        if case == "connected":
            relay.accept().welcome()
        supervisor.wait_for_object().wait_for(case)
    cpu = supervisor.cpu_seconds()
    time.sleep(10)
    spent = (supervisor.cpu_seconds() - cpu) / 10
    private = supervisor.private_kib()
    print(f"{case}: {spent * 1000:.3f} ms of CPU a second, {private} KiB private")
    assert spent < 0.001
    assert private < 2048

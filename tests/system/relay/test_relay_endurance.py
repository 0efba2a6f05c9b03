"""What comes and goes leaves nothing behind."""

import time

import pytest

from daemon import build_cost
from device_peer import Device, http_answer
from http_user import User
from processes import is_sanitized, program, wait_until


def come_and_go(relay, times):
    for number in range(times):
        with Device(relay.device_port, f"device-{number % 7}") as device:
            if number % 4:
                device.join()
            else:
                device.say_hello("malformed")
                assert device.hello_reply() == 1


def ask(relay, device, count):
    """Requests on connections of their own and on kept ones, some with bodies."""
    for number in range(0, count, 20):
        with User(relay, device.id) as user:
            for turn in range(20):
                user.ask(f"/{turn}", "POST", body=b"x" * (turn * 500))
                device.answer(device.expect_request(), http_answer(b"y" * (turn * 1000)))
                user.expect(200)


def settled(relay, devices):
    wait_until(lambda: relay.metric("relay_devices_connected") == devices and
               relay.metric("relay_handshakes_under_way") == 0 and
               relay.metric("relay_user_connections_open") == 0, "all have gone")
    assert relay.metric("relay_memory_used_bytes") == 0
    assert relay.metric("relay_exchanges_open") == 0
    return least_descriptors(relay), relay.process.resident_kib()


def least_descriptors(relay):
    """Without what an operator's connection may still hold for a moment."""
    return min((relay.process.descriptor_count(), time.sleep(0.02))[0] for _ in range(10))


@pytest.mark.lasts(10)
def test_200_connections_and_2000_requests_leave_memory_and_descriptors_flat(relay, connect):
    keeper = connect("keeper").join()
    come_and_go(relay, 50)
    ask(relay, keeper, 400)
    descriptors, resident = settled(relay, 1)
    come_and_go(relay, 200)
    ask(relay, keeper, 2000)
    descriptors_after, resident_after = settled(relay, 1)
    assert descriptors_after == descriptors
    if not is_sanitized(program("relay_server")):
        assert resident_after - resident < 512


@pytest.mark.lasts(3)
def test_a_relay_at_rest_does_next_to_nothing(relay, connect):
    devices = [connect(f"device-{number}").join() for number in range(50)]
    spent = relay.process.processor_time_s()
    time.sleep(2)
    assert relay.process.processor_time_s() - spent < 0.05 * build_cost()
    for device in devices:
        device.beat()

"""SIGHUP and renewal take new files over, SIGTERM lets open requests finish."""

import fcntl
import os
import signal
import socket
import ssl
import subprocess
import threading
import time

import pytest

from daemon import slowness
from device_peer import DEVICE_ID, Device, http_answer
from http_user import User
from processes import program, wait_until
from relay_peer import Closed


def served(device, user):
    user.ask()
    device.answer(device.expect_request())
    assert user.read().status == 200


def refuses(port):
    try:
        socket.create_connection(("127.0.0.1", port)).close()
    except ConnectionRefusedError:
        return True
    return False


def pem_to_der(certificate):
    return ssl.PEM_cert_to_DER_cert(certificate.certificate.read_text())


# --- SIGHUP ---

@pytest.mark.relay(front_tls=True)
def test_a_new_certificate_is_shown_to_newcomers_and_drops_nobody(relay, authority, device,
                                                                  connect, open_user):
    new = authority.certificate("new.test", "rsa")
    user = open_user()  # now: a user who says nothing for 10 s is dropped
    relay.use_certificate(new)
    relay.use_front_certificate(new)
    served(device, user)
    relay.reload()
    relay.log.wait_for("reloaded certificates, policy, token and access log")
    served(device, user)
    newcomer = connect("other").join()
    assert newcomer.relay_certificate() == pem_to_der(new) != device.relay_certificate()
    late = open_user()
    assert late.socket.getpeercert(binary_form=True) == pem_to_der(new)
    served(device, late)
    served(device, user)


@pytest.mark.parametrize("broken, why", [
    ("certificate", "relay.pem is no usable certificate"),
    ("key", "relay.key is no usable private key"),
])
def test_a_broken_certificate_or_key_keeps_the_old_ones(relay, device, connect, broken, why):
    getattr(relay, broken).write_text("nonsense")
    relay.reload()
    relay.log.wait_for(f"not reloaded: .*{why}")
    device.beat()
    assert connect("other").join().relay_certificate() == device.relay_certificate()


def test_a_key_of_another_certificate_keeps_the_old_ones(relay, authority, device, connect):
    relay.key.write_text(authority.certificate("other.test").key.read_text())
    relay.reload()
    relay.log.wait_for("not reloaded: .*relay.key is no")
    assert connect("other").join().relay_certificate() == device.relay_certificate()


@pytest.mark.lasts(4)
@pytest.mark.relay(front_tls=True)
def test_renewed_certificates_are_shown_without_a_signal(relay, authority, device, connect,
                                                         open_user):
    """The programs that renew them know nothing of the relay."""
    new = authority.certificate("new.test", "rsa")
    relay.use_certificate(new)
    relay.use_front_certificate(new)
    relay.log.wait_for("info the certificate of the devices' side has been renewed")
    relay.log.wait_for("info the certificate of the users' side has been renewed")
    assert connect("other").join().relay_certificate() == pem_to_der(new)
    assert open_user().socket.getpeercert(binary_form=True) == pem_to_der(new)
    device.beat()


@pytest.mark.lasts(4)
def test_a_renewed_certificate_that_is_broken_is_told_once(relay, device, connect):
    relay.certificate.write_text("nonsense")
    relay.log.wait_for("error the renewed certificate of the devices' side is not taken over: "
                       ".*relay.pem is no usable certificate")
    assert connect("other").join().relay_certificate() == device.relay_certificate()
    assert relay.log.text.count("not taken over") == 1


def test_users_are_shown_the_certificate_of_the_name_they_ask_for(make_relay, authority):
    other = authority.certificate("other.test")
    relay = make_relay(front_tls=True, options={"front": {"more_certificates": [
        {"certificate": str(other.certificate), "key": str(other.key)}]}}).start()
    shown = {}
    for name in ("other.test", "front.test", "elsewhere.test"):
        context = ssl._create_unverified_context()
        with socket.create_connection(("127.0.0.1", relay.front_port)) as plain:
            with context.wrap_socket(plain, server_hostname=name) as secured:
                shown[name] = secured.getpeercert(binary_form=True)
    front = pem_to_der(authority.certificate("front.test"))
    assert shown == {"other.test": pem_to_der(other), "front.test": front, "elsewhere.test": front}


def test_a_reload_in_the_middle_of_everything_disturbs_nothing(relay, device, user):
    user.send(user.head(method="POST", headers=["Content-Length: 4"]) + b"ab")
    relay.reload()
    user.send(b"cd")
    request = device.expect_request()
    relay.reload()
    device.answer(request)
    assert request.body == b"abcd" and user.read().status == 200


def test_reloads_in_a_row_leave_nothing_behind(relay, device):
    relay.reload()
    before = relay.process.descriptor_count()
    for _ in range(50):
        relay.reload()
    wait_until(lambda: relay.process.descriptor_count() <= before, "former logs are closed")
    device.beat()


# --- SIGTERM ---

DOORS_CLOSE = "draining: nobody comes in any more"


@pytest.mark.lasts(2)
@pytest.mark.relay(options={"drain_s": 4})
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_without_open_requests_it_ends_when_its_doors_close(relay, device, user, number):
    served(device, user)
    started = time.monotonic()
    relay.signal(number)
    assert relay.process.wait() == 0
    assert 1.9 < time.monotonic() - started < 3.9 * slowness()
    with pytest.raises(Closed):
        device.read_packet()
    user.expect_closed()
    relay.log.wait_for("draining: everything ends within 4 s")
    assert relay.log.lines[-1].endswith("info ended")


@pytest.mark.lasts(5)
@pytest.mark.relay(options={"drain_s": 10})
def test_load_balancers_hear_of_a_drain_while_the_doors_are_open(relay, device, connect, open_user):
    """Until they have heard, they send users and devices here."""
    relay.signal(signal.SIGTERM)
    wait_until(lambda: relay.admin("/healthz") == (503, "draining\n"), "it is told to whoever asks")
    newcomer = connect("newcomer").join()
    user = open_user("newcomer")
    served(newcomer, user)
    served(newcomer, user)
    served(device, open_user())
    relay.log.wait_for(DOORS_CLOSE)
    assert relay.process.wait() == 0


@pytest.mark.lasts(5)
@pytest.mark.relay(options={"drain_s": 10})
def test_open_requests_finish_when_the_doors_are_closed(relay, device, user, open_user, connect):
    waiting = [open_user() for _ in range(6)]
    for number, each in enumerate(waiting):
        each.ask(f"/{number}")
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
    idle = open_user()
    served_before = open_user()
    newcomer = connect("newcomer")
    relay.signal(signal.SIGTERM)
    relay.log.wait_for(DOORS_CLOSE)
    for port in (relay.device_port, relay.front_port):
        wait_until(lambda: refuses(port), "nobody comes in")
    newcomer.say_hello()
    assert newcomer.hello_reply() == 3
    newcomer.close()
    relay.log.wait_for("became no session: the relay is about to end")
    idle.expect_closed()
    served_before.expect_closed()
    assert relay.admin("/healthz") == (503, "draining\n")
    assert '"draining":true' in relay.admin("/api/devices")[1]
    assert relay.metric('relay_handshakes_refused_total{cause="draining"}') == 1
    for number, each in enumerate(waiting):
        request = device.expect_request()
        device.answer(request, http_answer(str(number).encode()))
    for number, each in enumerate(waiting):
        assert each.expect(200).body == str(number).encode()
        each.expect_closed()
    assert relay.process.wait() == 0
    assert len(relay.accesses()) == 6


@pytest.mark.lasts(4)
@pytest.mark.relay(options={"drain_s": 8})
def test_an_upload_that_has_begun_finishes(relay, device, user):
    user.send(user.head(method="POST", headers=["Content-Length: 4"]) + b"ab")
    wait_until(lambda: relay.metric("relay_memory_used_bytes") > 0, "it has begun")
    relay.signal(signal.SIGTERM)
    relay.log.wait_for(DOORS_CLOSE)
    user.send(b"cd")
    request = device.expect_request()
    assert request.body == b"abcd"
    device.answer(request)
    response = user.expect(200)
    assert not response.keeps_open
    assert relay.process.wait() == 0


@pytest.mark.lasts(3)
@pytest.mark.relay(options={"drain_s": 1})
def test_the_drain_is_bounded(relay, device, user):
    user.ask()
    device.expect_request()
    started = time.monotonic()
    relay.signal(signal.SIGTERM)
    assert relay.process.wait() == 0
    assert 0.7 < time.monotonic() - started < 5 * slowness()


@pytest.mark.relay(options={"drain_s": 60})
def test_asked_twice_it_ends_at_once(relay, device, user):
    user.ask()
    device.expect_request()
    relay.signal(signal.SIGTERM)
    relay.log.wait_for("draining")
    started = time.monotonic()
    relay.signal(signal.SIGTERM)
    assert relay.process.wait() == 0
    assert time.monotonic() - started < 4 * slowness()


@pytest.mark.relay(options={"drain_s": 1, "front": {"answer_buffer_bytes": 65536}})
def test_it_ends_with_everything_under_way(relay, device, connect, open_user):
    """Half a handshake, half a hello, half a request, half an answer, a token: all go."""
    strangers = [socket.create_connection(("127.0.0.1", port))
                 for port in (relay.device_port, relay.front_port, relay.admin_port)]
    halfway = connect("halfway")
    halfway.send(b"\xb0\x0b\x00\x01")
    uploader = open_user()
    uploader.send(uploader.head(method="POST", headers=["Content-Length: 9"]) + b"x")
    reader = open_user(receive_buffer=4096)
    reader.ask()
    request = device.expect_request()
    sender = threading.Thread(target=lambda: _answer(device, request))
    sender.start()
    reader.read_head()
    asking = threading.Thread(target=lambda: _ask_token(relay))
    asking.start()
    wait_until(lambda: relay.devices()[DEVICE_ID]["open"] > 0, "the token is asked for")
    relay.signal(signal.SIGTERM)
    assert relay.process.wait() == 0
    sender.join()
    asking.join()
    for each in strangers:
        each.close()


def _answer(device, request):
    try:
        device.answer(request, http_answer(b"x" * (32 << 20)))
    except OSError:
        pass  # as it must end


def _ask_token(relay):
    try:
        relay.admin(f"/api/devices/{DEVICE_ID}/web-token", "POST")
    except OSError:
        pass  # as it must end


def test_a_reader_of_its_log_that_goes_away_does_not_end_it(make_relay):
    """What it has to say goes nowhere; it serves on."""
    relay = make_relay()
    ours, theirs = os.pipe()
    process = subprocess.Popen([program("relay_server"), "--config", relay.configuration],
                               stderr=theirs)
    os.close(theirs)
    with os.fdopen(ours) as log:
        lines = [log.readline() for _ in range(3)]
    relay.device_port, relay.front_port, _ = (int(line.split()[-1]) for line in lines)
    with Device(relay.device_port) as device, User(relay) as user:
        served(device.join(), user)
    process.terminate()
    assert process.wait(20) == 0


def test_a_reader_of_its_log_that_stops_stops_nobody(make_relay):
    relay = make_relay(policy={"devices": []})
    ours, theirs = os.pipe()
    fcntl.fcntl(theirs, fcntl.F_SETPIPE_SZ, 4096)
    process = subprocess.Popen([program("relay_server"), "--config", relay.configuration],
                               stderr=theirs)
    os.close(theirs)
    with os.fdopen(ours) as log:
        lines = [log.readline() for _ in range(3)]
        relay.device_port, relay.front_port, relay.admin_port = (
            int(line.split()[-1]) for line in lines)
        for number in range(60):  # each of them is a line, and the pipe holds half of them
            with Device(relay.device_port, f"stranger-{number}") as stranger:
                stranger.say_hello()
                assert stranger.hello_reply() == 2
        assert relay.admin("/healthz") == (200, "ok\n")
        process.terminate()
        assert process.wait(20) == 0


def test_sigpipe_is_none_of_its_business(relay, device, user):
    subprocess.run(["kill", "-PIPE", str(relay.pid)], check=True)
    served(device, user)

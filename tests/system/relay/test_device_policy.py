"""Who is admitted, and what a changed policy does to those who are in."""

import hashlib
import json

import pytest

from device_peer import DEVICE_ID, MAC, TOKEN, Device, hello_of

NOT_ADMITTED = 2
HASH = hashlib.sha256(TOKEN.encode()).hexdigest()


def listed(*entries):
    return {"devices": list(entries)}


def entry(device_id=DEVICE_ID, **more):
    return {"device_id": device_id, **more}


@pytest.mark.parametrize("policy", [
    pytest.param({"admit": "all"}, id="all"),
    pytest.param(listed(entry("other"), entry()), id="list"),
    pytest.param(listed(entry(DEVICE_ID.lower())), id="case-of-the-id"),
    pytest.param(listed(entry(mac=MAC)), id="mac"),
    pytest.param(listed(entry(mac=MAC.lower())), id="case-of-the-mac"),
    pytest.param(listed(entry(token_sha256=HASH)), id="token"),
    pytest.param(listed(entry(mac=MAC, token_sha256=HASH.upper())), id="mac-and-token"),
])
def test_who_the_policy_names_is_admitted(make_relay, policy):
    relay = make_relay(policy).start()
    with Device(relay.device_port) as device:
        device.join().beat()


@pytest.mark.parametrize("policy, why", [
    pytest.param(listed(), "it is not on the policy's list", id="empty-list"),
    pytest.param(listed(entry("other")), "it is not on the policy's list", id="unknown"),
    pytest.param(listed(entry(mac="000000000000")), "its MAC is not the policy's", id="mac"),
    pytest.param(listed(entry(token_sha256="0" * 64)), "its token is not the policy's", id="token"),
    pytest.param(listed(entry(mac=MAC, token_sha256="0" * 64)), "its token is not the policy's",
                 id="right-mac-wrong-token"),
])
def test_who_the_policy_does_not_name_is_told_so(make_relay, policy, why):
    relay = make_relay(policy).start()
    with Device(relay.device_port) as device:
        device.say_hello()
        assert device.hello_reply() == NOT_ADMITTED
        device.expect_closed()
    relay.log.wait_for(f"device {DEVICE_ID} is not admitted: {why}")
    assert relay.metric('relay_handshakes_refused_total{cause="not_admitted"}') == 1
    assert relay.metric("relay_sessions_total") == 0
    assert TOKEN not in relay.log.text


def test_a_refused_device_keeps_nobody_elses_session(make_relay):
    """A connection that only claims to be a device must not replace it."""
    relay = make_relay(listed(entry(token_sha256=HASH))).start()
    with Device(relay.device_port) as device, Device(relay.device_port) as impostor:
        device.join()
        impostor.say_hello(hello_of(token="guessed"))
        assert impostor.hello_reply() == NOT_ADMITTED
        device.beat()


@pytest.mark.relay(policy=listed(entry("stays"), entry("leaves")))
def test_taking_a_device_off_the_policy_ends_its_session(relay, connect):
    stays, leaves = connect("stays").join(), connect("leaves").join()
    relay.write_policy(listed(entry("stays")))
    relay.reload()
    leaves.expect_closed()
    relay.log.wait_for("device leaves from .* is gone: the policy does not admit it any more")
    stays.beat()
    assert list(relay.devices()) == ["stays"]


@pytest.mark.relay(policy=listed(entry(token_sha256=HASH)))
def test_a_new_token_on_the_policy_ends_the_session_under_the_old_one(relay, device):
    relay.write_policy(listed(entry(token_sha256="0" * 64)))
    relay.reload()
    device.expect_closed()


@pytest.mark.relay(policy=listed())
def test_a_device_added_to_the_policy_comes_in(relay, connect):
    before = connect()
    before.say_hello()
    assert before.hello_reply() == NOT_ADMITTED
    relay.write_policy(listed(entry()))
    relay.reload()
    connect().join().beat()


@pytest.mark.relay(policy=listed(entry()))
@pytest.mark.parametrize("text", [
    "{", "[]", '{"admit":"none"}', '{"admit":"all","devices":[]}', "{}", '{"devices":{}}',
    '{"devices":[{"device_id":"a"},{"device_id":"A"}]}', '{"devices":[{"device_id":""}]}',
    '{"devices":[{"device_id":"a","mac":"AA-BB"}]}', '{"devices":[{"mac":"AABBCCDDEEFF"}]}',
    '{"devices":[{"device_id":"a","token":"plain"}]}',
    '{"devices":[{"device_id":"a","token_sha256":"zz"}]}',
])
def test_a_broken_policy_keeps_the_old_one(relay, device, connect, text):
    relay.policy.write_text(text)
    relay.reload()
    relay.log.wait_for(f"not reloaded: {relay.policy}")
    device.beat()
    stranger = connect("other")
    stranger.say_hello()
    assert stranger.hello_reply() == NOT_ADMITTED


@pytest.mark.relay(policy=listed(entry()))
def test_a_missing_policy_keeps_the_old_one(relay, device):
    relay.policy.unlink()
    relay.reload()
    relay.log.wait_for(f"not reloaded: {relay.policy} cannot be read: No such file")
    device.beat()


@pytest.mark.relay(policy=listed(entry("stays"), entry("leaves")))
def test_a_broken_certificate_does_not_keep_a_removed_device_in(relay, connect):
    leaves = connect("leaves").join()
    relay.write_policy(listed(entry("stays")))
    relay.certificate.write_text("no certificate")
    relay.reload()
    relay.log.wait_for("not reloaded: .*relay.pem is no usable certificate")
    leaves.expect_closed()
    connect("stays").join().beat()


def test_the_policy_may_have_comments(relay, connect):
    relay.policy.write_text("// ours\n" + json.dumps(listed(entry())) + "\n")
    relay.reload()
    relay.log.wait_for("reloaded certificates, policy")
    connect().join()

"""Web tokens: what the helper script prints, handed to the relay."""

import json
import re
import shutil

import pytest

from daemon import slowness
from relay_peer import WEB_TOKEN, header


def ask(session, body=b'{"name":"token_get"}', number=0x002A, reserve=0):
    session.send_packet(WEB_TOKEN, number, body, reserve)
    return session.read_packet()


def test_the_scripts_output_is_the_token(session):
    assert ask(session).body == b'{"err_code": 0,"webToken":"0123456789abcdef"}'


def test_the_script_is_called_for_token_get(session, router):
    router.write_token_script('io.write(arg[1], "|", tostring(arg[2]))')
    assert ask(session).body == b'{"err_code": 0,"webToken":"token_get|nil"}'


def test_a_final_newline_is_part_of_the_token(session, router):
    router.write_token_script('print("abc")')
    assert ask(session).body == b'{"err_code": 0,"webToken":"abc\n"}'


def test_the_reply_repeats_the_requests_header_but_for_the_length(session):
    session.send_packet(WEB_TOKEN, 0x002A, b"{}", reserve=0xCAFE)
    assert session.read_exactly(12) == bytes.fromhex("b00b 0005 002a cafe 0000002d")
    assert len(session.read_exactly(45)) == 45


@pytest.mark.parametrize("size, kept", [(0, 0), (31, 31), (32, 32), (33, 32), (100_000, 32)])
def test_the_token_is_the_first_32_bytes_of_the_output(session, router, size, kept):
    router.write_token_script(f'io.write(string.rep("t", {size}))')
    assert ask(session).body == b'{"err_code": 0,"webToken":"%s"}' % (b"t" * kept)


def test_a_token_that_comes_in_pieces_is_put_together(session, router):
    router.write_token_script('io.stdout:setvbuf("no") io.write("first") os.execute("sleep 0.3") '
                              'io.write("second")')
    assert ask(session).body == b'{"err_code": 0,"webToken":"firstsecond"}'


def test_the_token_is_not_escaped(session, router):
    router.write_token_script(r'io.write("a\"b\\c")')
    assert ask(session).body == b'{"err_code": 0,"webToken":"a"b\\c"}'


def test_a_percent_sign_in_the_token_is_just_that(session, router):
    router.write_token_script('io.write("%s%n%d")')
    assert ask(session).body == b'{"err_code": 0,"webToken":"%s%n%d"}'


def test_a_missing_script_yields_an_empty_token(session, router):
    router.remove_token_script()
    assert ask(session).body == b'{"err_code": 0,"webToken":""}'


def test_a_script_that_fails_yields_what_it_printed(session, router):
    router.write_token_script('io.write("before") error("broken")')
    assert ask(session).body == b'{"err_code": 0,"webToken":"before"}'


def test_a_missing_interpreter_yields_an_empty_token(unstarted_daemon, relay, tmp_path):
    without_lua = tmp_path / "bin"
    without_lua.mkdir()
    (without_lua / "sh").symlink_to(shutil.which("sh"))
    daemon = unstarted_daemon.start(path=str(without_lua)).wait_for_object()
    daemon.reload(relay.address, relay.port)
    assert ask(relay.accept().welcome()).body == b'{"err_code": 0,"webToken":""}'


@pytest.mark.parametrize("body", [
    b"{}", b'{"name":"other"}', b'{"name":null}', b'{"name":[1,2]}', b"no json", b"[1]", b"7",
    b"\0\0\0", b"\xff\xfe", b'{"name":', b"x" * 16384, b"x" * 100_000,
], ids=lambda body: f"{body[:12]!r}({len(body)})")
def test_the_requests_body_does_not_matter(session, body):
    reply = ask(session, body)
    assert reply.body == b'{"err_code": 0,"webToken":"0123456789abcdef"}'


def test_the_exchange_is_logged(daemon, session):
    ask(session)
    entries = daemon.log.expect_all(
        "[CRC:] Recv request pkt for webToken from relay server.",
        'Request token: {"err_code": 0,"webToken":"0123456789abcdef"}')
    assert [entry.function for entry in entries] == [
        "cloud_server_handle_dispatch", "_cloud_web_token_response_handle"]


def test_tokens_can_be_asked_for_again_and_again_and_leave_nothing_behind(daemon, session):
    before = daemon.descriptors()
    for number in range(20):
        assert ask(session, number=number).id == number
    assert daemon.descriptors() == before
    assert daemon.children() == []


def test_a_helper_that_cannot_be_run_is_answered_with_minus_one_and_ends_the_session(
        daemon, session):
    # With no descriptor left there is no pipe to read the helper from.
    daemon.limit_descriptors(max(daemon.descriptors()) + 1)
    assert json.loads(ask(session).body) == {"err_code": -1, "webToken": ""}
    check = daemon.log.expect("Ensure fp != NULL failed.")
    assert check.function == "cloud_server_handler_token_get"
    daemon.log.expect("[CRC:] socket receive/send error: -1")
    session.expect_closed()


def test_a_body_cut_short_by_a_reset_is_a_bad_request(daemon, session):
    session.send(header(WEB_TOKEN, 1, 100) + bytes(10))
    daemon.log.expect("[CRC:] Recv request pkt for webToken from relay server.")
    session.reset()
    daemon.log.expect_all("[CRC:] Bad request.", "[CRC:] CloudRelayClient task exit.")
    assert not daemon.log.find(re.compile("^Request token:"))


def test_a_request_without_body_reads_as_a_closed_connection(daemon, session):
    session.send_packet(WEB_TOKEN, 1)
    daemon.log.expect_all("[CRC:] socket closed by peer", "[CRC:] CloudRelayClient task exit.")
    session.expect_closed()


@pytest.mark.parametrize("end", ["close", "close_tls"])
def test_a_relay_that_says_goodbye_within_a_body_has_closed(daemon, session, end):
    session.send(header(WEB_TOKEN, 1, 100) + bytes(10))
    daemon.log.expect("[CRC:] Recv request pkt for webToken from relay server.")
    getattr(session, end)()
    daemon.log.expect_all("[CRC:] socket closed by peer", "[CRC:] CloudRelayClient task exit.")
    assert not [text for text in daemon.log.errors() if text == "[CRC:] Bad request."]


@pytest.mark.lasts(7)
def test_a_body_that_stops_coming_ends_the_session_after_five_seconds(daemon, session):
    session.send(header(WEB_TOKEN, 1, 100) + bytes(10))
    request = daemon.log.expect("[CRC:] Recv request pkt for webToken from relay server.")
    error = daemon.log.expect("[CRC:] Recvive webToken request body err.", within=8 * slowness())
    assert 4.8 < error.at - request.at < 6 * slowness()
    daemon.log.expect("[CRC:] socket receive/send error: 4")
    session.expect_closed()

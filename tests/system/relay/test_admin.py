"""What operators see: devices, metrics, health, web tokens, the access log."""

import json
import re
import socket
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from datetime import datetime, timezone

import pytest

from daemon import slowness
from device_peer import DEVICE_ID, FIRMWARE, MAC, Device, http_answer
from processes import program, run, wait_until
from relay_peer import WEB_TOKEN, header

TOKEN = "s3cret-of-the-operators"


def when(text):
    """A time as the relay writes it, in seconds since 1970."""
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", text), text
    return datetime.fromisoformat(text[:-1]).replace(tzinfo=timezone.utc).timestamp()


def serve_one(device, user, answer=None, **request):
    user.ask(**request)
    taken = device.expect_request()
    device.answer(taken, answer)
    response = user.read(request.get("method", "GET"))
    return taken, response


# --- devices as JSON ---

def test_the_list_has_what_is_known_of_a_device(relay, device, user):
    before = time.time()
    request, _ = serve_one(device, user)
    device.beat()
    status, body = relay.admin("/api/devices")
    page = json.loads(body)
    assert status == 200 and list(page) == ["time", "draining", "requests", "devices"]
    assert (page["draining"], page["requests"]) == (False, 1)
    assert abs(when(page["time"]) - time.time()) < 10
    entry, = page["devices"]
    assert list(entry) == ["id", "mac", "firmware", "address", "since", "last_heartbeat",
                           "requests", "open", "bytes_in", "bytes_out", "last_error", "url"]
    assert (entry["id"], entry["mac"], entry["firmware"]) == (DEVICE_ID, MAC, FIRMWARE)
    assert before - 10 < when(entry["since"]) <= when(entry["last_heartbeat"]) < time.time() + 1
    assert (entry["requests"], entry["open"], entry["last_error"]) == (1, 0, "")
    hello_reply, reply = 12 + len('{"err_code":0}'), 12
    assert entry["bytes_out"] == hello_reply + 12 + len(request.raw) + reply
    hello = 12 + len(json.dumps({"deviceId": DEVICE_ID, "deviceMac": MAC, "firmwareId": FIRMWARE,
                                 "token": "x" * 42}))
    assert entry["bytes_in"] == hello + 12 + len(http_answer()) + 12
    assert entry["url"] == f"http://{DEVICE_ID.lower()}.localhost:{relay.front_port}/"


def test_a_device_without_a_heartbeat_yet_has_none(relay, device):
    assert relay.devices()[DEVICE_ID]["last_heartbeat"] == ""


def test_open_requests_are_shown(relay, device, user):
    user.ask()
    request = device.expect_request()
    assert relay.devices()[DEVICE_ID]["open"] == 1
    device.answer(request)
    user.expect(200)
    assert relay.devices()[DEVICE_ID]["open"] == 0


_LOG_LINE = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (info|warning|error) \S.*")


def test_a_device_cannot_begin_a_line_of_the_log(relay, connect):
    evil = "one\ntwo\r\x1b[2J\x7f"
    escaped = r"one\x0atwo\x0d\x1b[2J\x7f"
    members = {"deviceId": "evil", "deviceMac": evil, "firmwareId": evil, "token": ""}
    connect("evil").join(members).close()
    relay.log.wait_for("device evil from .* is gone: .*\n")
    assert relay.log.text.count(escaped) == 2
    assert [line for line in relay.log.lines if not _LOG_LINE.fullmatch(line)] == []


@pytest.mark.relay(options={"front": {"public_port": 443, "base_domain": "relay.example"}})
def test_links_lead_to_the_public_port(relay, device):
    assert relay.devices()[DEVICE_ID]["url"] == f"http://{DEVICE_ID.lower()}.relay.example:443/"


def test_a_device_cannot_write_into_the_list(relay, connect):
    evil = '"</script><script>alert(1)</script>\n'
    connect("evil").join({"deviceId": "evil", "deviceMac": evil, "firmwareId": evil, "token": ""})
    assert relay.devices()["evil"]["firmware"] == evil


# --- health, methods, paths ---

def test_healthz(relay):
    assert relay.admin("/healthz") == (200, "ok\n")


def test_the_dashboard_is_a_page_that_loads_nothing_from_elsewhere(relay):
    status, body = relay.admin("/")
    assert status == 200 and body.startswith("<!doctype html>")
    assert not re.search(r"(src|href)=[\"']?(https?:)?//", body)


@pytest.mark.parametrize("method, target, status", [
    ("GET", "/nothing", 404), ("GET", "/api", 404), ("POST", "/", 405), ("POST", "/metrics", 405),
    ("DELETE", "/api/devices", 405), ("GET", "/api/devices/x/web-token", 405),
    ("POST", "/api/devices/nobody/web-token", 404), ("POST", "/api/devices//web-token", 404),
    ("HEAD", "/metrics", 200), ("HEAD", "/", 200), ("GET", "/metrics?x=1", 200),
])
def test_methods_and_paths(relay, method, target, status):
    assert relay.admin(target, method)[0] == status


def test_nonsense_on_the_admin_port_disturbs_nobody(relay, device):
    for nonsense in (b"\0" * 100, b"GET\r\n\r\n", b"GET / HTTP/1.1\r\nX: " + b"y" * 40000,
                     b"POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 99999999\r\n\r\n"):
        with socket.create_connection(("127.0.0.1", relay.admin_port)) as stranger:
            stranger.sendall(nonsense)
            stranger.settimeout(10)
            try:
                while stranger.recv(65536):
                    pass
            except ConnectionResetError:
                pass
    assert relay.admin("/healthz")[0] == 200
    device.beat()


# --- metrics ---

_SAMPLE = re.compile(r'([a-z_]+)(?:\{([a-z]+="[^"\\\n]*"(?:,[a-z]+="[^"\\\n]*")*)\})? (\S+)')


def exposition(text):
    """The samples of a page in Prometheus' text format, which is checked."""
    assert text.endswith("\n") and "\n\n" not in text
    samples, family, described = {}, None, set()
    for line in text.splitlines():
        if line.startswith("# HELP "):
            family = line.split(" ")[2]
            assert family not in described, f"{family} is there twice"
            described.add(family)
            assert line.split(" ", 3)[3]
        elif line.startswith("# TYPE "):
            _, _, name, kind = line.split(" ")
            assert name == family and kind in ("counter", "gauge", "histogram")
            assert (kind == "counter") == name.endswith("_total"), name
        else:
            name, labels, value = _SAMPLE.fullmatch(line).groups()
            suffixes = ("", "_bucket", "_sum", "_count") if kind == "histogram" else ("",)
            assert name in [family + suffix for suffix in suffixes], f"{line} in {family}"
            key = f"{name}{{{labels}}}" if labels else name
            assert key not in samples, f"{key} is there twice"
            samples[key] = float(value)
    return samples


def metrics(relay):
    return exposition(relay.admin("/metrics")[1])


def test_metrics_before_anything_has_happened(relay):
    samples = metrics(relay)
    busy = {name for name, value in samples.items() if value != 0}
    assert busy == {"relay_memory_limit_bytes", "relay_admin_connections_total"}
    assert samples["relay_memory_limit_bytes"] == 256 << 20
    assert {name for name in samples if name.startswith("relay_handshakes_refused_total")} == {
        f'relay_handshakes_refused_total{{cause="{cause}"}}' for cause in (
            "tls", "time_out", "crowded_out", "malformed", "not_admitted", "draining")}


@pytest.mark.relay(policy={"devices": [{"device_id": DEVICE_ID}]},
                   options={"devices": {"answer_s": 1}})
def test_metrics_tell_a_known_history_exactly(relay, device, connect, user):
    stranger = connect("stranger")
    stranger.say_hello()
    assert stranger.hello_reply() == 2
    stranger.close()
    relay.log.wait_for("device stranger is not admitted")
    for number in (1, 2, 3):
        device.beat(number)
    first, _ = serve_one(device, user)
    second, _ = serve_one(device, user, method="POST", body=b"x" * 100)
    serve_one(device, user, b"garbage")
    user.ask("/late")
    late = device.expect_request()
    user.expect(504)
    device.answer(late)
    user.send("GET / HTTP/1.1\r\nHost: nobody.localhost\r\n\r\n")
    user.expect(404)
    device.beat(4)
    samples = metrics(relay)
    expected = {
        "relay_devices_connected": 1, "relay_handshakes_under_way": 0, "relay_exchanges_open": 0,
        "relay_memory_used_bytes": 0, "relay_user_connections_open": 1,
        "relay_device_connections_total": 2, "relay_sessions_total": 1,
        "relay_sessions_replaced_total": 0, "relay_heartbeats_total": 4,
        "relay_late_answers_total": 1, "relay_user_connections_total": 1,
        'relay_handshakes_refused_total{cause="not_admitted"}': 1,
        'relay_handshakes_refused_total{cause="tls"}': 0,
        'relay_requests_total{status="200"}': 2, 'relay_requests_total{status="404"}': 1,
        'relay_requests_total{status="502"}': 1, 'relay_requests_total{status="504"}': 1,
        "relay_request_duration_seconds_count": 5,
        'relay_request_duration_seconds_bucket{le="+Inf"}': 5,
        'relay_request_duration_seconds_bucket{le="0.5"}': 4,
        'relay_request_duration_seconds_bucket{le="10"}': 5,
        'relay_bytes_total{side="user",direction="in"}': 100,
    }
    assert {name: samples[name] for name in expected} == expected
    assert 0.7 < samples["relay_request_duration_seconds_sum"] < 4 * slowness()
    bounds = [name for name in samples if "_bucket" in name]
    counts = [samples[name] for name in bounds]
    assert counts == sorted(counts) and bounds[-1].endswith('{le="+Inf"}')
    assert sum(value for name, value in samples.items()
               if name.startswith("relay_requests_total")) == 5


def test_bytes_of_users_are_those_on_the_wire(relay, device, user):
    user.ask()
    device.answer(device.expect_request())
    head = user.read_head()
    size = len(f"HTTP/1.1 200 {head.reason}\r\n" +
               "".join(f"{name}: {value}\r\n" for name, value in head.headers) + "\r\n") + 5
    assert user._exactly(5) == b"hello"
    assert metrics(relay)['relay_bytes_total{side="user",direction="out"}'] == size
    entry = relay.devices()[DEVICE_ID]
    for direction in ("in", "out"):
        assert metrics(relay)[f'relay_bytes_total{{side="device",direction="{direction}"}}'] == (
            entry[f"bytes_{direction}"])


def test_requests_under_way_are_a_gauge(relay, device, open_user):
    users = [open_user() for _ in range(6)]
    for each in users:
        each.ask()
    wait_until(lambda: metrics(relay)["relay_exchanges_open"] == 6, "they are open")
    for each in users:
        device.answer(device.expect_request())
    for each in users:
        each.expect(200)
    assert metrics(relay)["relay_exchanges_open"] == 0


# --- web token ---

def ask_token(relay, device_id=DEVICE_ID, headers=None):
    """Asks on a thread of its own; a function that returns the answer."""
    answer = []
    asking = threading.Thread(target=lambda: answer.append(
        relay.admin(f"/api/devices/{device_id}/web-token", "POST", headers)))
    asking.start()

    def wait():
        asking.join(20)
        return answer[0]
    return wait


def test_the_device_s_json_comes_back(relay, device):
    answer = ask_token(relay)
    request = device.expect_token_request()
    assert request.id != 0 and request.raw
    device.answer_token(request, b'{"err_code": 0,"webToken":"0123456789abcdef"}')
    assert answer() == (200, '{"err_code": 0,"webToken":"0123456789abcdef"}')


def test_a_raw_line_feed_in_the_token_is_made_fit_for_strict_readers(relay, device):
    answer = ask_token(relay)
    device.answer_token(device.expect_token_request(), b'{"err_code": 0,"webToken":"ab\\"c\n\t"}')
    status, body = answer()
    assert status == 200 and json.loads(body) == {"err_code": 0, "webToken": 'ab"c\n\t'}


@pytest.mark.relay(options={"devices": {"answer_s": 1}})
def test_a_device_that_says_nothing_is_504(relay, device):
    answer = ask_token(relay)
    device.expect_token_request()
    assert answer()[0] == 504


def test_a_device_that_goes_is_502(relay, device):
    answer = ask_token(relay)
    device.expect_token_request()
    device.close()
    assert answer()[0] == 502


def test_a_token_of_absurd_size_ends_the_session(relay, device):
    answer = ask_token(relay)
    request = device.expect_token_request()
    device.send(header(WEB_TOKEN, request.id, 1 << 20))
    device.expect_closed()
    assert answer()[0] == 502


@pytest.mark.relay(options={"devices": {"requests_out": 1}})
def test_a_token_waits_its_turn_behind_users_requests(relay, device, user):
    user.ask()
    request = device.expect_request()
    answer = ask_token(relay)
    wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == 2, "it waits")
    device.answer(request)
    user.expect(200)
    device.answer_token(device.expect_token_request(), b"{}")
    assert answer() == (200, "{}")
    device.beat()


@pytest.mark.lasts(3)
@pytest.mark.relay(options={"devices": {"requests_out": 1, "answer_s": 2}})
def test_a_token_waits_its_turn_behind_a_request_that_times_out(relay, device, user):
    user.ask()
    device.expect_request()
    time.sleep(0.8)
    answer = ask_token(relay)
    user.expect(504)
    device.answer_token(device.expect_token_request(), b"{}")
    assert answer() == (200, "{}")


@pytest.mark.relay(options={"devices": {"requests_out": 1}})
def test_a_token_that_waits_moves_over_to_a_new_connection(relay, device, connect, user):
    user.ask()
    device.expect_request()
    answer = ask_token(relay)
    wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == 2, "it waits")
    second = connect().join()
    user.expect(502)
    second.answer_token(second.expect_token_request(), b'{"webToken":"moved"}')
    assert answer() == (200, '{"webToken":"moved"}')


@pytest.mark.relay(options={"devices": {"requests_out": 1, "requests_open": 1}})
def test_a_busy_device_is_503(relay, device, user):
    user.ask()
    request = device.expect_request()
    assert ask_token(relay)()[0] == 503
    device.answer(request)
    user.expect(200)


# --- who may look ---

def test_names_that_could_point_anywhere_get_nothing(relay, device):
    for host in ("evil.example", f"evil.example:{relay.admin_port}", "localhost.evil.example", ""):
        assert relay.admin("/api/devices", headers={"Host": host})[0] == 401
        assert relay.admin("/metrics", headers={"Host": host})[0] == 401
        assert relay.admin("/", headers={"Host": host})[0] == 401
    for host in ("localhost", "LOCALHOST:9090", "127.0.0.1", "[::1]:9090"):
        assert relay.admin("/api/devices", headers={"Host": host})[0] == 200
    assert relay.admin("/healthz", headers={"Host": "probe.example"})[0] == 200


@pytest.mark.parametrize("origin", ["http://evil.example", "null", "http://127.0.0.1:1",
                                    "http://x127.0.0.1:{port}", "file://"])
def test_other_sites_pages_ask_for_no_token(relay, device, origin):
    origin = origin.format(port=relay.admin_port)
    assert ask_token(relay, headers={"Origin": origin})()[0] == 403
    device.beat()  # it was not asked


def test_the_dashboard_itself_may_ask(relay, device):
    answer = ask_token(relay, headers={"Origin": f"http://127.0.0.1:{relay.admin_port}"})
    device.answer_token(device.expect_token_request(), b"{}")
    assert answer()[0] == 200


@pytest.fixture
def guarded(make_relay):
    relay = make_relay(options={"admin": {"listen": "0.0.0.0:0", "token_file": "token"}})
    (relay.folder / "token").write_text(TOKEN + "\n")
    return relay


def bearer(token):
    return {"Authorization": f"Bearer {token}"}


def test_bound_elsewhere_a_token_is_asked_for(guarded):
    guarded.start()
    with Device(guarded.device_port) as device:
        device.join()
        refused = [{}, bearer("wrong"), bearer(""), bearer(TOKEN + "x"), bearer(TOKEN[:-1]),
                   {"Authorization": f"Basic {TOKEN}"}, {"Authorization": TOKEN}]
        calls = [("/api/devices", "GET"), ("/metrics", "GET"), ("/nothing", "GET"),
                 (f"/api/devices/{DEVICE_ID}/web-token", "POST")]
        with ThreadPoolExecutor(30) as at_once:  # each wrong token is answered after a second
            answers = [at_once.submit(guarded.admin, *call, headers)
                       for headers in refused for call in calls]
            assert {answer.result()[0] for answer in answers} == {401}
        assert guarded.metric("relay_admin_logins_failed_total", bearer(TOKEN)) == 28
        assert guarded.log.text.count("requests without the token that they need") == 1
        device.beat()
        for scheme in ("Bearer", "bearer"):
            headers = {"Authorization": f"{scheme} {TOKEN}", "Host": "relay.example"}
            assert guarded.admin("/api/devices", headers=headers)[0] == 200
            assert guarded.admin("/metrics", headers=headers)[0] == 200
    assert guarded.admin("/healthz") == (200, "ok\n")
    status, page = guarded.admin("/")  # asks for the token itself
    assert status == 200 and DEVICE_ID not in page
    assert TOKEN not in guarded.log.text


def test_a_new_token_is_taken_over(guarded):
    guarded.start()
    (guarded.folder / "token").write_text("another")
    guarded.reload()
    assert guarded.admin("/metrics", headers=bearer(TOKEN))[0] == 401
    assert guarded.admin("/metrics", headers=bearer("another"))[0] == 200
    (guarded.folder / "token").write_text(" \n")
    guarded.reload()
    guarded.log.wait_for("not reloaded: .*token holds no token")
    assert guarded.admin("/metrics", headers=bearer("another"))[0] == 200


@pytest.mark.parametrize("listen", ["0.0.0.0:0", "192.0.2.1:9090", "[::]:0"])
def test_bound_elsewhere_without_a_token_file_it_does_not_start(make_relay, listen):
    relay = make_relay(options={"admin": {"listen": listen}})
    finished = run(program("relay_server"), "--config", relay.configuration)
    assert finished.status == 2
    assert re.fullmatch(r"relay_server: .*admin.token_file must name a file.*\n", finished.errors)


@pytest.mark.lasts(2)
def test_a_wrong_token_is_answered_after_a_second(guarded):
    guarded.start()
    started = time.monotonic()
    assert guarded.admin("/metrics", headers=bearer("wrong"))[0] == 401
    assert time.monotonic() - started > 0.99
    guarded.log.wait_for("warning operators' listener: 1 requests without the token")


def test_a_token_of_its_own_opens_the_metrics_alone(make_relay):
    relay = make_relay(options={"admin": {"listen": "0.0.0.0:0", "token_file": "token",
                                          "metrics_token_file": "metrics_token"}})
    (relay.folder / "token").write_text(TOKEN)
    (relay.folder / "metrics_token").write_text("collector\n")
    relay.start()
    assert relay.admin("/metrics", headers=bearer("collector"))[0] == 200
    assert relay.admin("/metrics", headers=bearer(TOKEN))[0] == 200
    assert relay.admin("/api/devices", headers=bearer("collector"))[0] == 401
    assert relay.admin("/api/devices", headers=bearer(TOKEN))[0] == 200
    assert relay.admin("/metrics")[0] == 401


def test_a_metrics_token_is_wanted_on_loopback_too(make_relay):
    relay = make_relay(options={"admin": {"metrics_token_file": "metrics_token"}})
    (relay.folder / "metrics_token").write_text("collector")
    relay.start()
    assert relay.admin("/metrics")[0] == 401
    assert relay.admin("/metrics", headers=bearer("collector"))[0] == 200
    assert relay.admin("/api/devices")[0] == 200


@pytest.mark.parametrize("trace", [
    {"Via": "1.1 proxy"}, {"Forwarded": "for=192.0.2.7"}, {"X-Forwarded-For": "192.0.2.7"},
    {"X-Forwarded-Host": "relay.example"}, {"x-real-ip": "192.0.2.7"}])
def test_behind_a_proxy_only_a_token_lets_in(relay, guarded, trace):
    """A proxy's own address speaks for everybody who comes through it."""
    for target in ("/api/devices", "/metrics", "/"):
        assert relay.admin(target, headers=trace)[0] == 401
    guarded.start()
    assert guarded.admin("/api/devices", headers={**trace, **bearer(TOKEN)})[0] == 200


@pytest.mark.lasts(3)
def test_idle_connections_do_not_keep_others_from_healthz(relay):
    strangers = [socket.create_connection(("127.0.0.1", relay.admin_port),
                                          source_address=(f"127.0.0.{2 + number % 8}", 0))
                 for number in range(300)]
    assert relay.admin("/healthz") == (200, "ok\n")
    assert relay.metric("relay_admin_connections_turned_away_total") > 0
    relay.log.wait_for("too many connections of operators")
    for stranger in strangers:
        stranger.close()


def test_a_device_is_asked_for_its_token_once_at_a_time(relay, device, connect):
    first = ask_token(relay)
    request = device.expect_token_request()
    relay.log.wait_for(f"info the operator at 127.0.0.1 asks device {DEVICE_ID} for its web token")
    assert ask_token(relay)()[0] == 429
    assert ask_token(relay, DEVICE_ID.upper())()[0] == 429
    other = connect("other").join()
    second = ask_token(relay, "other")
    other.answer_token(other.expect_token_request(), b"{}")
    device.answer_token(request, b"{}")
    assert first()[0] == second()[0] == 200
    again = ask_token(relay)
    device.answer_token(device.expect_token_request(), b"{}")
    assert again()[0] == 200


# --- access log ---

def logged(relay, count):
    wait_until(lambda: len(relay.access_log.read_text().splitlines()) == count, "it is logged")
    return relay.accesses()


def test_a_line_has_all_of_a_request(relay, device, user):
    before = time.time()
    serve_one(device, user, target="/a?b=\"c\"", method="POST", body=b"x" * 321)
    line, = logged(relay, 1)
    assert list(line) == ["time", "user", "device", "method", "target", "status", "request_bytes",
                          "answer_bytes", "ms"]
    assert before - 1 < when(line["time"]) < time.time() + 1
    assert (line["user"], line["device"]) == ("127.0.0.1", DEVICE_ID.lower())
    assert (line["method"], line["target"], line["status"]) == ("POST", '/a?b="c"', 200)
    assert line["request_bytes"] == 321 and line["answer_bytes"] > 5
    assert 0 < line["ms"] < 10000


@pytest.mark.relay(options={"devices": {"answer_s": 1}})
def test_a_line_says_why_the_relay_answered_itself(relay, device, user):
    user.send("GET / HTTP/1.1\r\nHost: nobody.localhost\r\n\r\n"
              "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")
    serve_one(device, user, b"")
    user.read(), user.read()
    user.ask()
    device.expect_request()
    user.read()
    user.send("BAD\r\n\r\n")
    assert [(line["status"], line["note"]) for line in logged(relay, 5)] == [
        (404, "unknown_device"), (404, "no_device_named"), (502, "unusable_answer"),
        (504, "time_out"), (400, "bad_request")]


def test_what_users_send_stays_on_its_line(relay, device, user):
    serve_one(device, user, target="/\\u000a\xe4\xff{}")
    line, = logged(relay, 1)
    assert line["target"] == "/\\u000a\xe4\xff{}"


@pytest.mark.relay(options={"access_log_query": False})
def test_query_strings_may_be_left_out(relay, device, user):
    request, _ = serve_one(device, user, target="/login?token=secret?x")
    assert b"GET /login?token=secret?x HTTP" in request.raw
    line, = logged(relay, 1)
    assert line["target"] == "/login"


def test_rotation(relay, device, user):
    serve_one(device, user, target="/before")
    logged(relay, 1)
    rotated = relay.folder / "access.log.1"
    relay.access_log.rename(rotated)
    serve_one(device, user, target="/between")
    wait_until(lambda: len(rotated.read_text().splitlines()) == 2, "the old file goes on")
    relay.reload()
    serve_one(device, user, target="/after")
    line, = logged(relay, 1)
    assert line["target"] == "/after"
    assert len(rotated.read_text().splitlines()) == 2
    assert relay.access_log.stat().st_mode & 0o777 == 0o640


def test_a_log_that_cannot_be_opened_again_goes_on_as_it_was(relay, device, user):
    old = relay.folder / "old.log"
    relay.access_log.rename(old)
    relay.access_log.mkdir()
    relay.reload()
    relay.log.wait_for("not reloaded: .*access.log cannot be written: Is a directory")
    serve_one(device, user)
    wait_until(lambda: old.read_text(), "it is logged")


@pytest.mark.relay(options={"access_log": "-"})
def test_the_log_may_go_to_standard_output(relay, device, user):
    serve_one(device, user)
    assert json.loads(relay.process.output.wait_for(r"^\{.*\}$")[0])["status"] == 200


@pytest.mark.relay(options={"access_log": ""})
def test_the_log_may_go_nowhere(relay, device, user):
    serve_one(device, user)
    relay.stop()
    assert not relay.access_log.exists() and relay.process.output.text == ""

"""What Wireshark shows of real sessions: the daemon and a relay over TLS, recorded by record.py."""

import pytest

SESSIONS = pytest.mark.parametrize(
    "session, port", [("session-tls13.pcapng", 46459), ("session-tls12.pcapng", 32773)])

TABLE = [
    # frame, DataType, ID, DataLen, the frame of the request
    ("10", "1", "0", "169", ""),
    ("11", "1", "0", "15", "10"),
    ("12", "2", "1", "0", ""),
    ("13", "2", "1", "0", "12"),
    ("14", "3", "4660", "56", ""),
    ("16", "4", "4660", "69", "14"),
    ("17", "3", "4661", "56", ""),
    ("20", "4", "4661", "20064", "17"),
    ("21", "6", "4662", "56", ""),
    ("22", "4", "4662", "69", "21"),
    ("26", "5,5", "42,43", "16,9", ""),
    ("29", "5", "42", "45", "26"),
    ("30", "5", "43", "45", "26"),
    ("32", "3", "4663", "58", ""),
    ("33", "3", "4663", "56", ""),
    ("36", "4", "4663", "69", "33"),
    ("37", "", "", "", ""),
]

SUMMARY = [
    "Hello, JavaScript Object Notation",
    "Hello answer, JavaScript Object Notation",
    "Heartbeat, ID 0x0001",
    "Heartbeat answer, ID 0x0001",
    "Relay request, ID 0x1234: GET /index HTTP/1.1",
    "Relay response, ID 0x1234: HTTP/1.1 200 OK  (text/plain)",
    "Relay request, ID 0x1235: GET /large HTTP/1.1",
    "Relay response, ID 0x1235: HTTP/1.1 200 OK  (text/plain)",
    "Quiet relay request, ID 0x1236: GET /quiet HTTP/1.1",
    "Relay response, ID 0x1236: HTTP/1.1 200 OK  (text/plain)",
    "Web token, ID 0x002a, JavaScript Object Notation | Web token, ID 0x002b",
    "Web token answer, ID 0x002a, JavaScript Object Notation",
    "Web token answer, ID 0x002b, JavaScript Object Notation",
    "Relay request, ID 0x1237: GET /dropped HTTP/1.1",
    "Relay request, ID 0x1237: GET /again HTTP/1.1",
    "Relay response, ID 0x1237: HTTP/1.1 200 OK  (text/plain)",
    "Bad magic number",
]

FIELDS = ["frame.number", "cloud_relay.type", "cloud_relay.id", "cloud_relay.length",
          "cloud_relay.request_in"]


@SESSIONS
def test_every_packet_is_found_by_its_looks_and_paired(tshark, session, port):
    assert tshark.fields(tshark.recorded(session), FIELDS) == TABLE


@SESSIONS
def test_the_info_column_tells_the_session(tshark, session, port):
    assert tshark.summary(tshark.recorded(session)) == SUMMARY


@SESSIONS
def test_with_the_port_told_a_second_pass_shows_the_same_and_where_the_answers_are(
        tshark, session, port):
    recording = tshark.recorded(session)
    two_passes = ["-2", "-o", f"cloud_relay.port:{port}"]
    assert tshark.fields(recording, FIELDS, *two_passes) == TABLE
    assert tshark.summary(recording, *two_passes) == SUMMARY
    answers = tshark.fields(recording, ["frame.number", "cloud_relay.answer_in"], *two_passes,
                            only="cloud_relay.answer_in")
    assert answers == [("10", "11"), ("12", "13"), ("14", "16"), ("17", "20"), ("21", "22"),
                       ("26", "29,30"), ("33", "36")]


@SESSIONS
def test_decode_as_shows_the_same(tshark, session, port):
    assert tshark.fields(tshark.recorded(session), FIELDS,
                         "-d", f"tls.port=={port},cloud_relay") == TABLE


def test_the_time_of_an_answer_is_that_from_its_request(tshark):
    times = tshark.fields(tshark.recorded("session-tls13.pcapng"),
                          ["cloud_relay.request_in", "cloud_relay.time"], only="cloud_relay.time")
    assert times == [("10", "0.000306444"), ("12", "0.000208438"), ("14", "0.000362830"),
                     ("17", "0.000441258"), ("21", "0.000195368"), ("26", "0.022287456"),
                     ("26", "0.024202575"), ("33", "10.013540325")]


def test_json_goes_to_the_json_dissector(tshark):
    keys = tshark.fields(tshark.recorded("session-tls13.pcapng"),
                         ["frame.number", "json.key", "json.value.string", "json.value.number"],
                         only="json")
    identity = ("0123456789ABCDEF0123456789ABCDEF01234567,AABBCCDDEEFF,FW0123456789ABCDEF,"
                "0f1e2d3c4b5a69788796a5b4c3d2e1f00123456789")
    token = "0123456789abcdef"
    assert keys == [("10", "deviceId,deviceMac,firmwareId,token", identity, ""),
                    ("11", "err_code", "", "0"),
                    ("26", "name", "token", ""),
                    ("29", "err_code,webToken", token, "0"),
                    ("30", "err_code,webToken", token, "0")]


def test_relayed_requests_and_answers_go_to_the_http_dissector(tshark):
    recording = tshark.recorded("session-tls13.pcapng")
    assert tshark.fields(recording, ["http.request.method", "http.request.uri"],
                         only="http.request") == [
        ("GET", path) for path in ("/index", "/large", "/quiet", "/dropped", "/again")]
    assert tshark.fields(recording, ["http.response.code", "http.file_data"],
                         only="http.response") == [
        ("200", data) for data in ("hello", "0123456789" * 2000, "quiet", "again")]


def test_what_ends_a_session_and_what_is_odd_is_pointed_out(tshark):
    complaints = tshark.errors(tshark.recorded("session-tls13.pcapng"))
    ours = [(frame, text) for frame, text in complaints if "HTTP/1.1" not in text.split(",")[0]]
    assert ours == [
        (33, "The ID of a request that has no answer yet,GET /again HTTP/1.1\\r\\n"),
        (37, "Bad magic number: the receiver ends the session")]

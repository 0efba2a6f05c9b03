"""The command-line tool as its users see it: what it prints, where, and its exit status."""

import json
import signal

import pytest

import recordings
from processes import program, run, run_on_terminal, wait_until
from ubus_programs import socket_folder
from ubus_wire import SILENT, Blobmsg, Method, ObjectOwner, Status, signed_id

PRINTED = recordings.load_printed()
RECORDED_ID = "1c60effc"


def service(path, name="svc"):
    """The service of the recorded runs, and one method that never answers."""
    return ObjectOwner(path, name, {
        "get_device_id": Method(lambda call: {"device_id": "DEV0123456789"}),
        "getInfo": Method(lambda call: {"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": "FW01"},
                          {"infoMask": Blobmsg.INT32}),
        "reload": Method(lambda call: 100, {"address": Blobmsg.STRING, "port": Blobmsg.INT32}),
    })


@pytest.fixture
def svc(broker):
    with service(broker.socket) as owner:
        yield owner


def silent_service(broker):
    return broker.owner("mute", {"wait": Method(lambda call: SILENT)})


@pytest.mark.parametrize("title, arguments", [
    ("list", ["list"]),
    ("-v list", ["-v", "list"]),
    ("call svc get_device_id", ["call", "svc", "get_device_id"]),
    ("call svc getInfo {infoMask:33}", ["call", "svc", "getInfo", '{"infoMask":33}']),
    ("-S call svc getInfo", ["-S", "call", "svc", "getInfo", '{"infoMask":33}']),
    ("list s*", ["list", "s*"]),
])
def test_the_tool_prints_an_answer_to_standard_output_as_the_stock_tool_does(
        broker, svc, title, arguments):
    (expected,) = PRINTED[title]
    output = expected.output.replace(RECORDED_ID, f"{svc.object.id:08x}")
    ran = broker.tool(*arguments)
    assert (ran.output, ran.errors, ran.status) == (output, "", expected.status)
    shown = broker.tool_on_terminal(*arguments)
    assert (shown.output, shown.status) == (output, expected.status)


FAILURES = [
    ("reload", ["call", "svc", "reload", '{"address":"10.0.0.1","port":8443}']),
    ("nomethod", ["call", "svc", "nope"]),
    ("noobj", ["call", "nope", "nope"]),
    ("list nope", ["list", "nope"]),
    ("bad json", ["call", "svc", "getInfo", "{bad"]),
]


@pytest.mark.parametrize("title, arguments", FAILURES)
def test_the_tool_prints_a_failure_to_standard_error_as_the_stock_tool_does(
        broker, svc, title, arguments):
    (expected,) = PRINTED[title]
    ran = broker.tool(*arguments)
    assert (ran.output, ran.errors, ran.status) == ("", expected.output, expected.status)


@pytest.mark.parametrize("arguments, status, text", [
    (FAILURES[0][1], 100, "Unknown error: 100"),
    (FAILURES[1][1], 3, "Method not found"),
    (FAILURES[2][1], 4, "Not found"),
    (FAILURES[3][1], 4, "Not found"),
    (FAILURES[4][1], 12, "Parsing message data failed"),
])
def test_a_failure_on_a_terminal_exits_with_the_positive_status(
        broker, svc, arguments, status, text):
    shown = broker.tool_on_terminal(*arguments)
    assert shown.output.startswith("Command failed: ") and text in shown.output
    assert shown.status == status


def test_without_a_broker_the_tool_says_that_it_cannot_connect():
    (expected,) = PRINTED["no broker"]
    missing = socket_folder()
    missing.rmdir()
    for arguments in (["list"], ["call", "svc", "x"], ["listen"], ["send", "a"], ["wait_for", "a"]):
        ran = run(program("ubus"), "-s", missing / "ubus.sock", *arguments)
        assert (ran.output, ran.errors, ran.status) == ("", expected.output, expected.status)
    shown = run_on_terminal(program("ubus"), "-s", missing / "ubus.sock", "list")
    assert (shown.output, shown.status) == (expected.output, expected.status)


def test_a_socket_path_too_long_for_the_system_is_no_broker():
    ran = run(program("ubus"), "-s", "/tmp/" + "x" * 300, "list")
    assert (ran.errors, ran.status) == (PRINTED["no broker"][0].output, 255)


def test_a_call_to_a_silent_owner_ends_with_the_time_limit_given(broker):
    with silent_service(broker):
        ran = broker.tool("-t", "1", "call", "mute", "wait")
        assert ran.errors == "Command failed: ubus call mute wait (Request timed out)\n"
        assert ran.status == 256 - Status.TIMEOUT
        assert broker.tool_on_terminal("-t", "1", "call", "mute", "wait").status == Status.TIMEOUT


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_call_under_way_ends_when_it_is_interrupted(broker, number):
    with silent_service(broker) as owner, broker.start_tool("call", "mute", "wait") as tool:
        owner.next_call()
        assert tool.stop(number) == -number


def test_wait_for_ends_well_at_once_when_the_object_is_there(broker, svc):
    expected, _ = PRINTED["wait_for"]
    ran = broker.tool("wait_for", "svc")
    assert (ran.output, ran.errors, ran.status) == ("", expected.output, expected.status)


def test_wait_for_ends_well_as_soon_as_the_last_object_comes(broker, svc):
    with broker.client() as watcher, broker.start_tool("wait_for", "svc", "one", "two") as tool:
        watcher.register_events("ubus.object.*")
        with service(broker.socket, "two"), service(broker.socket, "other"):
            assert tool.status is None
            with service(broker.socket, "one"):
                assert tool.wait() == 0
        assert (tool.output.text, tool.errors.text) == ("", "")


def test_wait_for_an_object_that_never_comes_ends_with_the_time_limit_given(broker, svc):
    _, expected = PRINTED["wait_for"]
    ran = broker.tool("-t", "1", "wait_for", "svc", "never")
    assert (ran.output, ran.errors, ran.status) == ("", expected.output, expected.status)


def test_listen_prints_each_event_on_a_line_as_the_stock_tool_does(broker):
    sent, removed = recordings.load_listened()
    with broker.start_tool("listen", "foo*", "ubus.object.remove") as listener:
        wait_until_listening(broker, listener, "foo.ready")
        seen = len(listener.output.lines)
        assert broker.tool("send", "foo.bar", '{"a":1,"b":"two","c":[true,3]}').status == 0
        assert broker.tool("send", "other", '{"x":1}').status == 0
        with service(broker.socket) as gone:
            gone_id = signed_id(gone.object.id)
        listener.output.wait_for("ubus.object.remove.*\n")
        assert listener.output.lines[seen:] == [
            sent, removed.replace("630192541", str(gone_id))]
        assert listener.stop() == -signal.SIGTERM
        assert listener.errors.text == ""


def wait_until_listening(broker, listener, name):
    """Sends events until the listener, whose start takes its time, has printed one."""
    with broker.client() as sender:
        def heard():
            sender.send_event(name, {})
            return listener.output.text
        wait_until(heard, "the listener prints an event")
        sender.send_event(name + ".last", {})
    listener.output.wait_for(name + r"\.last.*\n")


def test_listen_without_a_pattern_prints_every_event(broker):
    with broker.start_tool("listen") as listener:
        wait_until_listening(broker, listener, "anything")
        with service(broker.socket):
            line = listener.output.wait_for('.*"ubus.object.add".*\n').group(0)
        event = json.loads(line)
        assert event["ubus.object.add"]["path"] == "svc"
        assert listener.stop() == -signal.SIGTERM


def test_listen_ends_when_the_broker_goes(broker):
    with broker.start_tool("listen") as listener:
        wait_until_listening(broker, listener, "anything")
        broker.kill()
        assert listener.wait() == Status.CONNECTION_FAILED


def test_an_event_sent_by_the_tool_without_data_arrives_empty(broker):
    with broker.client() as listener:
        listener.register_events("plain")
        ran = broker.tool("send", "plain")
        assert (ran.output, ran.errors, ran.status) == ("", "", 0)
        assert listener.next_event() == ("plain", {})


def test_an_event_with_bad_json_is_not_sent(broker):
    with broker.client() as listener:
        listener.register_events("*")
        ran = broker.tool("send", "plain", "{bad")
        assert ran.status != 0 and ran.errors
        listener.ping()


def test_arguments_reach_the_owner_with_their_types_and_the_callers_user(broker):
    with broker.owner("echo", {"say": Method(lambda call: call.data)}) as owner:
        arguments = {"text": "zwölf \"quoted\"", "small": -5, "large": 1 << 40, "half": 0.5,
                     "yes": True, "list": [1, "two", [False]], "table": {"x": {"y": 1}}}
        ran = broker.tool("call", "echo", "say", json.dumps(arguments))
        assert ran.status == 0 and json.loads(ran.output) == arguments
        call = owner.next_call()
        assert call.data == arguments
        assert (call.user, call.group) == ("root", "root")


def test_nested_values_print_indented_and_with_option_s_on_one_line(broker):
    answer = {"n": 1, "list": [1, {"a": True}], "table": {}, "text": "tab\t\"q\""}
    with broker.owner("nest", {"get": Method(lambda call: answer)}):
        pretty = broker.tool("call", "nest", "get").output
        assert json.loads(pretty) == answer and '\n\t"list": [\n\t\t1,\n' in pretty
        compact = broker.tool("-S", "call", "nest", "get").output
        assert json.loads(compact) == answer and compact.count("\n") == 1


def test_every_status_of_an_owner_reaches_the_exit_status(broker):
    with broker.owner("svc", {"end": Method(lambda call: call.data["with"])}):
        for status, text in [(1, "Invalid command"), (2, "Invalid argument"),
                             (3, "Method not found"), (4, "Not found"), (5, "No response"),
                             (6, "Permission denied"), (7, "Request timed out"),
                             (8, "Operation not supported"), (9, "Unknown error"),
                             (10, "Connection failed"), (11, "Out of memory"),
                             (12, "Parsing message data failed"), (13, "System error"),
                             (14, "Unknown error: 14"), (101, "Unknown error: 101"),
                             (-1, "Unknown error: -1")]:
            arguments = json.dumps({"with": status})
            ran = broker.tool("call", "svc", "end", arguments)
            assert ran.errors == f"Command failed: ubus call svc end {arguments} ({text})\n"
            assert ran.status == -status % 256


def test_a_data_answer_prints_even_when_a_failure_follows_it(broker):
    with broker.owner("svc", {"half": Method(lambda call: ({"got": 1}, Status.NO_DATA))}):
        ran = broker.tool("call", "svc", "half")
        assert json.loads(ran.output) == {"got": 1}
        assert ran.status == 256 - Status.NO_DATA and "(No response)" in ran.errors


@pytest.mark.parametrize("arguments", [
    [], ["nonsense"], ["call"], ["call", "svc"], ["call", "svc", "method", "{}", "more"],
    ["list", "a", "b"], ["send"], ["wait_for"], ["-x", "list"], ["-t"],
], ids=" ".join)
def test_wrong_usage_is_explained_on_standard_error(broker, arguments):
    ran = broker.tool(*arguments)
    assert ran.status != 0 and ran.output == ""
    assert "usage" in ran.errors.lower()

"""How the device presents itself: the hello packet, seen by the relay."""

import json

import pytest

from daemon import slowness
from processes import program, run
from router import BUS_SOCKET, DEVICE_INFO
from ubus_message import encode_field
from ubus_wire import SILENT, Status

NO_MAC = "0" * 12
NO_FIRMWARE = "0" * 32
NO_TOKEN = "0" * 32


@pytest.fixture
def present(unstarted_daemon, relay):
    """Starts the daemon and has it present itself; returns the hello packet."""
    def start_and_connect():
        unstarted_daemon.start().wait_for_object()
        unstarted_daemon.log.mark()
        assert unstarted_daemon.reload(relay.address, relay.port).status == 0
        return relay.accept().expect_hello()
    return start_and_connect


def presented(packet):
    return json.loads(packet.body)


def test_the_hello_is_four_texts_in_order_without_blanks(present):
    packet = present()
    assert packet.body == (b'{"deviceId":"0123456789ABCDEF0123456789ABCDEF01234567",'
                           b'"deviceMac":"AABBCCDDEEFF",'
                           b'"firmwareId":"FW0123456789ABCDEF",'
                           b'"token":"0f1e2d3c4b5a69788796a5b4c3d2e1f00123456789"}')


def test_the_hellos_header_has_type_one_and_neither_id_nor_reserve(present):
    packet = present()
    assert (packet.type, packet.id, packet.reserve) == (1, 0, 0)


def test_the_builder_logs_what_it_gathered(present, unstarted_daemon):
    present()
    entries = unstarted_daemon.log.expect_all(
        "Begain to get_available_token",
        "get_available_token done: 0f1e2d3c4b5a69788796a5b4c3d2e1f00123456789",
        "0123456789ABCDEF0123456789ABCDEF01234567 FW0123456789ABCDEF AABBCCDDEEFF "
        "0f1e2d3c4b5a69788796a5b4c3d2e1f00123456789")
    for entry in entries:
        assert entry.function == "zemc_build_request_of_hello_cloud_v2"
        assert (entry.level, entry.thread) == ("info", "cycleHnd_0")
    assert entries[1].raw.endswith(b"0123456789\n\x1b[0m\r\n")


def test_the_handshake_logs_the_header_it_writes(present, unstarted_daemon):
    body = present().body
    unstarted_daemon.log.expect_all(
        "[CRC:] parse req: B00B", "[CRC:] parse req: 1", "[CRC:] parse req: 0",
        "[CRC:] parse req: 0", f"[CRC:] parse req: {len(body)}",
        f"[CRC:] parse req: {body.decode()}")


def test_the_packet_header_is_dumped_before_it_is_sent(present, unstarted_daemon):
    size = len(present().body)
    dump = (b"--------------------------Pkt Hdr----------------------------\r\n"
            b"[CRC:] parse req, magicNum: 0xB00B\r\n"
            b"[CRC:] parse req, type    : 1\r\n"
            b"[CRC:] parse req, id      : 0\r\n"
            b"[CRC:] parse req, resv    : 0\r\n"
            b"[CRC:] parse req, dataLen : %d\r\n"
            b"b0 - 0b - 00 - 01 - 00 - 00 - 00 - 00 - 00 - 00 - 00 - %02x - \r\n"
            b"---------------------------End-------------------------------\r\n" % (size, size))
    unstarted_daemon.log.expect("---------------------------End-------------------------------")
    assert dump in unstarted_daemon.log.raw


def test_without_configuration_the_factory_facts_stay_at_their_defaults(present, router):
    router.unconfigure("device_info")
    hello = presented(present())
    assert (hello["deviceMac"], hello["firmwareId"]) == (NO_MAC, NO_FIRMWARE)
    assert hello["deviceId"].startswith("0123456789")


def test_without_a_factory_service_its_facts_stay_at_their_defaults(present, router):
    router.identity.factory.die()
    hello = presented(present())
    assert (hello["deviceMac"], hello["firmwareId"]) == (NO_MAC, NO_FIRMWARE)


@pytest.mark.parametrize("mac", ["AA-BB-CC-DD-EE-F", "AA-BB-CC-DD-EE-FF0", "", "AABBCCDDEEFF"])
def test_a_mac_of_the_wrong_length_leaves_both_facts_alone(present, router, unstarted_daemon, mac):
    router.identity.answers["getInfo"] = {"mac": mac, "fw_cur_id": "FW1"}
    hello = presented(present())
    assert (hello["deviceMac"], hello["firmwareId"]) == (NO_MAC, NO_FIRMWARE)
    assert unstarted_daemon.log.count("device info is incomplete, return error!") == 1
    assert unstarted_daemon.log.count("E - -1 call getFacinfoByUbus() failed.") == 1


def test_a_mac_with_colons_is_cut_to_its_field(present, router):
    router.identity.answers["getInfo"] = {"mac": "AA:BB:CC:DD:EE:FF", "fw_cur_id": "FW1"}
    hello = presented(present())
    assert (hello["deviceMac"], hello["firmwareId"]) == ("AA:BB:CC:DD:", "FW1")


def test_a_firmware_id_that_fills_its_field_is_sent_whole(present, router):
    name = "F" * 63
    router.identity.answers["getInfo"] = {"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": name}
    assert presented(present())["firmwareId"] == name


@pytest.mark.parametrize("facts", [
    {"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": "F" * 64}, {"mac": "AA-BB-CC-DD-EE-FF"}],
    ids=["too long", "missing"])
def test_a_bad_firmware_id_leaves_the_new_mac_in_place(present, router, unstarted_daemon, facts):
    router.identity.answers["getInfo"] = facts
    hello = presented(present())
    assert (hello["deviceMac"], hello["firmwareId"]) == ("AABBCCDDEEFF", NO_FIRMWARE)
    assert unstarted_daemon.log.count("device info is incomplete, return error!") == 1


@pytest.mark.parametrize("value, text", [(4711, "4711"), (True, "true"), (-1, "-1")])
def test_a_device_id_that_is_no_text_is_used_as_its_json(present, router, value, text):
    router.identity.answers["get_device_id"] = {"device_id": value}
    assert presented(present())["deviceId"] == text


@pytest.mark.parametrize("value, parts", [
    (["a", 1], ["a", 1]), ({"serial": "x"}, {"serial": "x"})], ids=["list", "table"])
def test_a_compound_device_id_is_used_as_its_json(present, router, value, parts):
    router.identity.answers["get_device_id"] = {"device_id": value}
    assert json.loads(presented(present())["deviceId"]) == parts


def test_the_last_of_several_members_of_one_name_counts(present, router):
    table = encode_field("device_id", "first") + encode_field("device_id", "last")
    router.identity.answers["get_device_id"] = table, Status.OK
    assert presented(present())["deviceId"] == "last"


def test_a_device_id_that_fills_its_field_is_sent_whole(present, router):
    router.identity.answers["get_device_id"] = {"device_id": "D" * 127}
    assert presented(present())["deviceId"] == "D" * 127


def test_a_longer_device_id_is_refused_and_sent_empty(present, router, unstarted_daemon):
    router.identity.answers["get_device_id"] = {"device_id": "D" * 128}
    assert presented(present())["deviceId"] == ""
    unstarted_daemon.log.expect_all("device info is incomplete, return error!",
                                    "E - -1 call getDeviceIdByUbus(buf, len -1) failed.")


def test_an_erased_device_id_is_replaced_by_forty_zeros(present, router, unstarted_daemon):
    erased = "\udcff" * 3 + "rest"  # three bytes 0xFF
    router.identity.answers["get_device_id"] = {"device_id": erased}
    assert presented(present())["deviceId"] == "0" * 40
    entry = unstarted_daemon.log.expect("[HELL_CLOUD_PKT_GEN]: DeviceId invalid.")
    assert entry.raw.endswith(b"DeviceId invalid.\r\n\x1b[0m\r\n") and entry.level == "error"


def test_two_erased_bytes_are_no_erased_device_id(present, router, unstarted_daemon):
    router.identity.answers["get_device_id"] = {"device_id": "\udcff" * 2 + "rest"}
    assert b'"deviceId":"\xff\xffrest"' in present().body
    assert not unstarted_daemon.log.find("[HELL_CLOUD_PKT_GEN]: DeviceId invalid.")


def test_an_absent_cloud_client_leaves_an_empty_id_and_the_zero_token(
        present, router, unstarted_daemon):
    router.identity.cloud_client.die()
    hello = presented(present())
    assert (hello["deviceId"], hello["token"]) == ("", NO_TOKEN)
    assert not unstarted_daemon.log.find("[HELL_CLOUD_PKT_GEN]: DeviceId invalid.")
    unstarted_daemon.log.expect_all("E - -1 call getDeviceIdByUbus(buf, len -1) failed.",
                                    "[HELL_CLOUD_PKT_GEN]: Get token err.",
                                    f"get_available_token done: {NO_TOKEN}")


@pytest.mark.lasts(12)
def test_a_silent_cloud_client_costs_five_seconds_a_question_and_no_more(
        unstarted_daemon, relay, router):
    router.identity.answers["get_device_id"] = SILENT
    router.identity.answers["get_device_token"] = SILENT
    daemon = unstarted_daemon.start().wait_for_object()
    daemon.reload(relay.address, relay.port)
    session = relay.accept()
    started = daemon.log.expect("[CRC:] socket connect select device successfully").at
    hello = presented(session.expect_hello(within=25 * slowness()))
    assert (hello["deviceId"], hello["token"]) == ("", NO_TOKEN)
    token = daemon.log.expect("[HELL_CLOUD_PKT_GEN]: Get token err.")
    assert 9.5 < token.at - started < 10 + 4 * slowness()


def test_a_cloud_client_that_answers_with_a_status_counts_as_no_answer(present, router):
    router.identity.answers["get_device_id"] = Status.UNKNOWN_ERROR
    router.identity.answers["get_device_token"] = {}
    hello = presented(present())
    assert (hello["deviceId"], hello["token"]) == ("", NO_TOKEN)


def test_a_token_without_its_key_is_incomplete(present, router, unstarted_daemon):
    router.identity.answers["get_device_token"] = {"token": "wrong key"}
    assert presented(present())["token"] == NO_TOKEN
    unstarted_daemon.log.expect_all("device info is incomplete, return error!",
                                    "[HELL_CLOUD_PKT_GEN]: Get token err.")


@pytest.mark.parametrize("size", [126, 127, 128, 500])
def test_a_token_is_sent_up_to_its_127th_character(present, router, size):
    token = ("0123456789" * 50)[:size]
    router.identity.answers["get_device_token"] = {"device_token": token}
    assert presented(present())["token"] == token[:127]


def test_an_answer_just_below_the_buffer_is_read(present, router):
    answer = {"device_id": "here", "padding": ""}
    router.identity.answers["get_device_id"] = answer
    ask = ("-s", BUS_SOCKET, "call", "cloudclient", "get_device_id")
    room = 1023 - len(run(program("ubus"), *ask).output)
    answer["padding"] = "x" * room
    assert len(run(program("ubus"), *ask).output) == 1023
    assert presented(present())["deviceId"] == "here"


@pytest.mark.parametrize("size", [1024, 5000, 100_000])
def test_a_longer_answer_is_cut_and_then_no_json(present, router, unstarted_daemon, size):
    router.identity.answers["get_device_id"] = {"device_id": "here", "padding": "x" * size}
    assert presented(present())["deviceId"] == ""
    unstarted_daemon.log.expect_all("get jsonrpc obj failed.",
                                    "E - -1 call getDeviceIdByUbus(buf, len -1) failed.")


def test_id_and_token_are_asked_for_anew_for_each_session(daemon, relay, router):
    daemon.reload(relay.address, relay.port)
    first = relay.accept()
    assert presented(first.expect_hello())["deviceId"].startswith("0123456789")
    first.close()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    router.identity.answers["get_device_id"] = {"device_id": "another"}
    daemon.reload(relay.address, relay.port)
    assert presented(relay.accept().expect_hello())["deviceId"] == "another"


def test_odd_characters_reach_the_relay_unchanged(present, router):
    token = 'say "hi" \\ / \t\n \x01 zwölf ' + "x" * 20
    router.identity.answers["get_device_token"] = {"device_token": token}
    assert presented(present())["token"] == token


def test_configured_values_longer_than_their_fields_do_no_harm(present, router):
    router.configure("device_info", DEVICE_INFO.replace("RT-2100", "R" * 4000)
                     .replace("1.20.300", "1" * 64).replace("4.50.600", "4" * 63))
    hello = presented(present())
    assert (hello["deviceMac"], hello["firmwareId"]) == ("AABBCCDDEEFF", "FW0123456789ABCDEF")

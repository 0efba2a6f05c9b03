"""The command line and the configuration file: what is wrong is said in one sentence."""

import json
import re
import resource
from pathlib import Path

import pytest

from processes import Process, program, run, wait_until


def relay_server(*arguments):
    return run(program("relay_server"), *arguments)


def said(finished):
    """The one sentence on standard error of a refused start."""
    assert (finished.status, finished.output) == (2, ""), finished
    match = re.fullmatch(r"relay_server: ([^\n]+)\n", finished.errors)
    assert match, finished.errors
    return match[1]


def test_help():
    finished = relay_server("--help")
    assert finished.status == 0 and finished.errors == ""
    for option in ("--config", "--check", "--help", "--version"):
        assert option in finished.output


def test_version():
    finished = relay_server("--version")
    assert (finished.status, finished.errors) == (0, "")
    assert re.fullmatch(r"relay_server \d+\.\d+\.\d+\n", finished.output)


def test_a_start_without_descriptors_is_refused_in_a_sentence(make_relay):
    relay = make_relay()
    with Process("prlimit", "--nofile=4:4", program("relay_server"), "--config",
                 relay.configuration) as process:
        status = process.wait()
    assert status == 1, process.errors.text
    assert re.fullmatch(r"relay_server: [^\n]*Too many open files[^\n]*\n", process.errors.text)


@pytest.mark.parametrize("arguments, sentence", [
    ([], "no configuration given; --help says how"),
    (["--check"], "no configuration given; --help says how"),
    (["--config"], "--config wants a file"),
    (["--wrong"], 'unknown argument "--wrong"; --help lists what there is'),
    (["-x"], 'unknown argument "-x"; --help lists what there is'),
    (["--check=all"], 'unknown argument "--check=all"; --help lists what there is'),
    (["relay_server.json"], 'unknown argument "relay_server.json"; --help lists what there is'),
    (["--help", "--wrong"], 'unknown argument "--wrong"; --help lists what there is'),
    (["--config", "/nowhere"], "/nowhere cannot be read: No such file or directory"),
    (["--config", "/"], "/ cannot be read: Is a directory"),
])
def test_wrong_arguments(arguments, sentence):
    assert said(relay_server(*arguments)) == sentence


FEW = {"devices": {"max_connections": 20}, "front": {"max_connections": 20}}


def test_check_reads_every_file_and_listens_nowhere(make_relay):
    relay = make_relay(options=FEW)
    finished = relay_server("--config", relay.configuration, "--check")
    assert (finished.status, finished.errors) == (0, "")
    assert finished.output == (
        "relay_server: the configuration and the files it names are in order\n")


SHORTAGE = (r"the limits in the configuration allow connections that need 328 descriptors, and "
            r"this process may have 300: lower max_connections, or raise the limit of open files\n")


def test_limits_beyond_the_system_s_descriptors_are_told(make_relay):
    relay = make_relay(options=FEW)
    few = ["prlimit", "--nofile=300:300", program("relay_server"), "--config", relay.configuration]
    finished = run(*few, "--check")
    assert finished.status == 0 and re.fullmatch(f"relay_server: {SHORTAGE}", finished.errors)
    with Process(*few) as process:
        process.errors.wait_for(f"warning {SHORTAGE}")
        assert process.stop() == 0


def test_paths_count_from_the_configuration_s_folder(make_relay):
    relay = make_relay()
    finished = run(program("relay_server"), "--check", "--config", relay.configuration.name,
                   directory=relay.folder)
    assert finished.status == 0, finished.errors


WRONG = {
    "no-json": ("{", r"is not valid JSON near line 1: "),
    "text-behind": ("{} x", r"is not valid JSON near line 1: "),
    "line-of-the-mistake": ("{\n\n  wrong", r"is not valid JSON near line 3: "),
    "no-object": ("[]", "it must be a JSON object"),
    "unknown-option": ({"more": 1}, "unknown option more"),
    "unknown-in-section": ({"front": {"more": 1}}, "unknown option front.more"),
    "section-no-object": ({"front": 1}, "front must be a JSON object"),
    "number-for-text": ({"front": {"base_domain": 1}}, "base_domain is 1; it must be a text"),
    "text-for-number": ({"devices": {"hello_s": "10"}},
                        r'devices.hello_s is "10"; it must be a whole number from 1 to 86400'),
    "zero": ({"devices": {"hello_s": 0}}, "devices.hello_s is 0; it must be"),
    "negative": ({"devices": {"silence_s": -1}}, "devices.silence_s is -1; it must be"),
    "fraction": ({"devices": {"answer_s": 1.5}}, r"devices.answer_s is 1.5E0; it must be"),
    "too-large": ({"front": {"public_port": 65536}}, "front.public_port is 65536; it must be"),
    "listen-name": ({"front": {"listen": "localhost:80"}}, "front.listen .* numeric address"),
    "listen-no-port": ({"front": {"listen": "127.0.0.1"}}, "front.listen .* numeric address"),
    "listen-port": ({"front": {"listen": "127.0.0.1:65536"}}, "front.listen .* numeric address"),
    "listen-text-behind": ({"front": {"listen": "127.0.0.1:80x"}}, "front.listen .* numeric"),
    "base-domain": ({"front": {"base_domain": "a b"}}, "front.base_domain .* host name"),
    "device-host": ({"front": {"device_host": "a\r\nX: y"}}, "front.device_host .* must be a host"),
    "more-certificates-no-list": ({"front": {"more_certificates": {}}},
                                  "front.more_certificates is {}; it must be a list"),
    "more-certificates-alone": ({"front": {"more_certificates": [{}]}},
                                r"front.more_certificates is \[{}\]; it needs front.certificate"),
    "more-certificates-no-key": (
        {"front": {"certificate": "relay.pem", "key": "relay.key",
                   "more_certificates": [{"certificate": "relay.pem"}]}},
        "front.more_certificates.key must name a file"),
    "more-certificates-empty": (
        {"front": {"certificate": "relay.pem", "key": "relay.key", "more_certificates": [{}]}},
        "front.more_certificates.certificate must name a file"),
    "query-no-boolean": ({"access_log_query": 1}, "access_log_query is 1; it must be true or false"),
    "certificate-alone": ({"front": {"certificate": "relay.pem"}}, "front.key must name a file"),
    "key-alone": ({"front": {"key": "relay.key"}}, "front.certificate must name a file"),
    "no-certificate": ({"devices": {"certificate": ""}}, 'devices.certificate is ""; it must name'),
    "no-policy": ({"devices": {"policy": ""}}, 'devices.policy is ""; it must name a file'),
    "open-below-out": ({"devices": {"requests_open": 1, "requests_out": 2}},
                       "devices.requests_open is 1; it must not be below devices.requests_out"),
    "missing-certificate": ({"devices": {"certificate": "none.pem"}},
                            "none.pem is no usable certificate: No such file"),
    "missing-key": ({"devices": {"key": "none.key"}}, "none.key is no usable private key"),
    "key-is-certificate": ({"devices": {"key": "relay.pem"}}, "relay.pem is no usable private key"),
    "missing-policy": ({"devices": {"policy": "none.json"}},
                       "none.json cannot be read: No such file"),
    "missing-token": ({"admin": {"token_file": "none"}}, "none cannot be read: No such file"),
    "access-log": ({"access_log": "/nowhere/log"}, "/nowhere/log cannot be written: No such file"),
    "port-of-others": ({"front": {"listen": "192.0.2.1:80"}},
                       "cannot listen on 192.0.2.1 port 80: Cannot assign requested address"),
}


@pytest.mark.parametrize("options, sentence", WRONG.values(), ids=WRONG)
def test_a_wrong_file_is_told_in_one_sentence(make_relay, options, sentence):
    relay = make_relay()
    if isinstance(options, str):
        relay.configuration.write_text(options)
    else:
        relay.write_configuration(options)
    assert re.search(sentence, said(relay_server("--config", relay.configuration)))
    if "listen on" not in sentence:
        assert re.search(sentence, said(relay_server("--check", "--config", relay.configuration)))


def test_a_port_that_is_taken(make_relay):
    first = make_relay().start()
    second = make_relay(options={"front": {"listen": f"127.0.0.1:{first.front_port}"}})
    assert said(relay_server("--config", second.configuration)) == (
        f"cannot listen on 127.0.0.1 port {first.front_port}: Address already in use")


def test_comments_and_trailing_commas_are_allowed(make_relay):
    relay = make_relay()
    text = json.dumps(json.loads(relay.configuration.read_text()), indent=1)
    relay.configuration.write_text("// ours\n" + text[:-2] + ", /* more */ }\n")
    assert relay_server("--check", "--config", relay.configuration).status == 0


def test_ipv6_addresses_stand_in_brackets(make_relay):
    relay = make_relay(options={"admin": {"listen": "[::1]:0"}})
    assert relay_server("--check", "--config", relay.configuration).status == 0


def test_the_descriptor_limit_is_raised_to_what_is_allowed(relay):
    soft, hard = resource.prlimit(relay.pid, resource.RLIMIT_NOFILE)
    assert soft == hard


def test_standard_error_may_be_closed(make_relay):
    relay = make_relay()
    with Process("/bin/sh", "-c", f"exec {program('relay_server')} --config {relay.configuration} "
                                  "2>&-") as process:
        wait_until(lambda: process.listener_count() == 3, "it listens to devices, users, operators")
        assert process.stop() == 0


SAMPLE = Path(__file__).resolve().parents[3] / "relay" / "relay_server.json"


def test_the_sample_configuration_is_one(make_relay):
    relay = make_relay()
    relay.configuration.write_text(SAMPLE.read_text())
    finished = relay_server("--check", "--config", relay.configuration)
    assert finished.status == 0, finished.errors


def test_the_sample_names_every_option():
    source = (SAMPLE.parent / "base" / "config.cpp").read_text()
    sample = re.sub(r"//.*", "", SAMPLE.read_text())
    options = set(re.findall(r'(?:text|number|seconds)\("(\w+)"|read_path\(reader, "(\w+)"|'
                             r'section\("(\w+)"\)', source))
    names = {name for found in options for name in found if name} | {"listen"}
    assert len(names) > 25
    assert {name for name in names if f'"{name}"' not in sample} == set()

"""The dashboard and a relayed page, as an operator sees them in a browser.

Nothing is played here: the daemon, the router's web server, relay_server and the browser are real.
`browser` is each test's last argument, so that it leaves the page before the relay ends.
"""

import contextlib
import json
import signal
from concurrent import futures
from pathlib import Path

import pytest

from device_peer import DEVICE_ID as DEVICE
from device_peer import Device
from processes import wait_until
from relay_server import ADDRESS, RelayServer
from web_peer import Lighttpd

PAGES = Path(__file__).resolve().parents[3] / "demo" / "www"
ROW = f"[data-device='{DEVICE}']"
TOKEN = "the operators' own"


@pytest.fixture
def relay(places, authority, tmp_path):
    with RelayServer(tmp_path / "relay", authority.certificate()) as running:
        yield running


@pytest.fixture
def guarded_relay(places, authority, tmp_path):
    """Its admin interface can be reached from everywhere, with a token."""
    (tmp_path / "token").write_text(TOKEN + "\n")
    with RelayServer(tmp_path / "relay", authority.certificate(), options={
            "admin": {"listen": "0.0.0.0:0", "token_file": str(tmp_path / "token")}}) as running:
        yield running


@pytest.fixture
def web(router, tmp_path):
    with Lighttpd(PAGES, tmp_path) as serving:
        router.set_web_port(serving.port)
        yield serving


def dashboard_of(relay):
    return f"http://{ADDRESS}:{relay.admin_port}/"


def connect(daemon, relay):
    assert daemon.reload(ADDRESS, relay.device_port).status == 0


def number(text):
    return int(text.replace(",", "").replace("\u202f", ""))


def test_device_appears_and_disappears(web, daemon, relay, browser):
    browser.open(dashboard_of(relay))
    browser.wait_until_shown("#empty")
    assert not browser.is_shown(ROW)

    connect(daemon, relay)
    browser.wait_until_shown(ROW)
    assert not browser.is_shown("#empty")
    device = relay.wait_for_device(DEVICE)
    for part, text in {"a": DEVICE, ".mac": "AABBCCDDEEFF", ".firmware": "FW0123456789ABCDEF",
                       ".address": device["address"]}.items():
        assert browser.text(f"{ROW} {part}") == text
    browser.wait_for(f"{ROW} .heartbeat", lambda text: text.endswith("s ago"))

    assert daemon.stop().status == 0
    browser.wait_until_gone(ROW)
    browser.wait_until_shown("#empty")


def test_link_opens_the_devices_page(web, daemon, relay, browser):
    connect(daemon, relay)
    browser.open(dashboard_of(relay))
    browser.follow(f"{ROW} a")
    assert browser.address == f"http://{relay.host(DEVICE)}/"
    browser.wait_for("h1", "Your router is online")
    # Fetched by the page itself, and styled by a sheet of its own: more requests on the way.
    for name, value in json.loads((PAGES / "status.json").read_text()).items():
        browser.wait_for("#status", lambda text, row=f"{name} {value}": row in text.splitlines())
    assert browser.color_of("header", "background-color") == (0x22, 0x33, 0x44)
    browser.return_to_first_tab()


def test_counters_move(web, daemon, relay, browser):
    connect(daemon, relay)
    browser.open(dashboard_of(relay))
    browser.wait_for(f"{ROW} .requests", "0")
    sent = browser.text(f"{ROW} .in")
    for count in (1, 2):
        assert relay.get(DEVICE, "/index.html").status == 200
        browser.wait_for(f"{ROW} .requests", str(count))
    browser.wait_for(f"{ROW} .in", lambda text: text != sent)
    browser.wait_for("#requests", lambda text: number(text) == 2)


def test_web_token_is_shown_when_asked_for(web, daemon, relay, browser):
    connect(daemon, relay)
    browser.open(dashboard_of(relay))
    browser.click(f"{ROW} button")
    browser.wait_for(f"{ROW} .token", "0123456789abcdef")


def test_device_without_a_token_says_so(router, daemon, relay, browser):
    router.remove_token_script()
    connect(daemon, relay)
    browser.open(dashboard_of(relay))
    browser.click(f"{ROW} button")
    browser.wait_for(f"{ROW} .token", "it has none")


def test_end_and_return_of_the_relay_are_shown(relay, browser):
    browser.open(dashboard_of(relay))
    browser.wait_for("#state", "running")
    relay.stop()
    browser.wait_for("#state", "the relay does not answer")
    browser.forget_complaints("net::ERR_")
    port = relay.admin_port
    relay.write_configuration({"admin": {"listen": f"{ADDRESS}:{port}"}})
    relay.start()
    browser.wait_for("#state", "running")
    browser.complaints()  # those of the time in between


def test_names_from_a_device_are_text(router, unstarted_daemon, relay, browser):
    router.identity.answers["getInfo"]["fw_cur_id"] = "<img src=x onerror=alert(1)>"
    connect(unstarted_daemon.start().wait_for_object(), relay)
    browser.open(dashboard_of(relay))
    browser.wait_for(f"{ROW} .firmware", "<img src=x onerror=alert(1)>")


def test_many_devices_come_in_order_and_can_be_filtered(relay, browser):
    names = [f"router-{number}" for number in (5, 1, 4, 2, 6, 3, 10)]
    browser.open(dashboard_of(relay))
    browser.wait_until_shown("#empty")
    with contextlib.ExitStack() as devices:
        for name in names:
            devices.enter_context(Device(relay.device_port, name)).join()
        browser.wait_for("#online", str(len(names)))
        assert browser.texts("tbody .id a") == sorted(names)
        browser.fill("#filter", "ROUTER-1")
        wait_until(lambda: browser.texts("tbody .id a") == ["router-1", "router-10"], "filtered")
        browser.fill("#filter", "nothing like it")
        wait_until(lambda: browser.texts("tbody .id a") == [], "filtered")
    browser.wait_until_shown("#empty")


def test_last_error_of_a_device_is_shown(places, authority, tmp_path, browser):
    with RelayServer(tmp_path / "relay", authority.certificate(),
                     options={"devices": {"answer_s": 1}}) as relay, \
            Device(relay.device_port).join():
        browser.open(dashboard_of(relay))
        browser.wait_for("#online", "1")
        assert not browser.text(f"{ROW} .error")
        assert relay.get(DEVICE, "/").status == 504
        browser.wait_for(f"{ROW} .error", "a request was not answered in time")


def test_drain_is_shown(places, authority, tmp_path, browser):
    with RelayServer(tmp_path / "relay", authority.certificate(),
                     options={"drain_s": 60}) as relay, \
            Device(relay.device_port).join() as device, futures.ThreadPoolExecutor() as users:
        browser.open(dashboard_of(relay))
        response = users.submit(relay.get, DEVICE, "/")
        request = device.expect_request()
        browser.wait_for("#open", "1")
        relay.signal(signal.SIGTERM)
        browser.wait_for("#state", "draining")
        browser.open("about:blank")
        device.answer(request)
        assert response.result().status == 200
        relay.signal(signal.SIGTERM)  # it does not wait for its doors to close
        assert relay.process.wait() == 0


@pytest.mark.parametrize("scheme, is_readable", [
    ("light", lambda text, back: text < back), ("dark", lambda text, back: text > back)])
def test_colors_follow_the_system(daemon, relay, browser, scheme, is_readable):
    connect(daemon, relay)
    browser.prefer(scheme)
    browser.open(dashboard_of(relay))
    browser.wait_until_shown(ROW)
    text, back = (sum(browser.color_of(*what)) for what in
                  ((f"{ROW} .mac",), ("body", "background-color")))
    assert is_readable(text, back)
    assert abs(text - back) > 300


def test_fits_a_phone(web, daemon, relay, browser):
    connect(daemon, relay)
    browser.resize(390, 844)
    browser.open(dashboard_of(relay))
    browser.wait_until_shown(ROW)
    assert not browser.overflows()
    for part in ("a", ".mac", ".firmware", ".heartbeat", ".requests", "button"):
        assert browser.is_shown(f"{ROW} {part}"), part


# --- with a token ---


def test_wrong_token_is_refused_and_the_right_one_opens(web, daemon, guarded_relay, browser):
    connect(daemon, guarded_relay)
    browser.open(dashboard_of(guarded_relay))
    browser.wait_until_shown("#login")
    assert not browser.is_shown(ROW)

    browser.fill("#bearer", "a guess")
    browser.click("#login button")
    browser.wait_for("#refused", "This is not the token.")
    assert browser.is_shown("#login")
    assert not browser.is_shown(ROW)
    browser.forget_complaints("401 (Unauthorized)")

    browser.fill("#bearer", TOKEN)
    browser.click("#login button")
    browser.wait_until_shown(ROW)
    assert not browser.is_shown("#login")

    browser.click(f"{ROW} button")
    browser.wait_for(f"{ROW} .token", "0123456789abcdef")

    browser.open(dashboard_of(guarded_relay))
    browser.wait_until_shown(ROW)
    assert not browser.is_shown("#login"), "the tab remembers the token"

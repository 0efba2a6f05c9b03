"""curl and wrk, relay_server, TLS, the daemon, and a web server: all of them real."""

import hashlib
import json
import os
import pwd
import re
import subprocess

import pytest

from daemon import build_cost, slowness
from processes import Process, wait_until
from relay_server import ADDRESS
from web_peer import Lighttpd, WebServer

PAGE = b"<!doctype html><title>router</title>\n" * 20


class Nginx:
    """nginx with a little of everything that web servers do. Use it as a context manager."""

    def __init__(self, folder):
        with WebServer() as free:
            self.port = free.port
        (folder / "pages").mkdir(parents=True)
        (folder / "pages" / "index.html").write_bytes(PAGE)
        # The device gives a request 10 s.
        (folder / "pages" / "big.bin").write_bytes(os.urandom(1 << 20) * (20 // build_cost() ** 2))
        temporary = " ".join(f"{each}_temp_path {folder}/{each};" for each in
                             ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        self._configuration = folder / "nginx.conf"
        self._configuration.write_text(f"""
            user {pwd.getpwuid(os.geteuid()).pw_name}; daemon off; worker_processes 1;
            pid {folder}/pid; error_log {folder}/error.log; events {{}}
            http {{ access_log off; {temporary} client_max_body_size 64m;
            types {{ text/html html; }}
            server {{ listen {ADDRESS}:{self.port}; root {folder}/pages;
                location = /moved {{ return 302 http://$host/index.html; }}
                location = /abroad {{ return 302 http://elsewhere.example/; }}
                location = /login {{ add_header Set-Cookie "sid=42; Path=/";
                                     add_header Set-Cookie "lang=de; Domain=localhost";
                                     return 200 "welcome"; }}
                location = /who {{
                    return 200 "$cookie_sid|$http_x_forwarded_for|$http_host|$request_method"; }}
                location = /zipped {{ gzip on; gzip_http_version 1.0; gzip_min_length 1;
                                      gzip_proxied any; try_files /index.html =404; }}
                location = /nothing {{ return 204; }}
                location /store/ {{ dav_methods PUT DELETE; create_full_put_path on; }}
            }} }}""")

    def __enter__(self):
        self._process = Process("nginx", "-p", self._configuration.parent, "-c",
                                self._configuration)
        wait_until(lambda: subprocess.run(["curl", "-s", f"http://{ADDRESS}:{self.port}/"],
                                          capture_output=True).stdout == PAGE, "nginx serves")
        return self

    def __exit__(self, *_):
        self._process.stop()


@pytest.fixture
def chain(router, relay, unstarted_daemon):
    """Brings the daemon of a router with that web server to the relay; the device's URL."""
    def bring_up(web):
        router.set_web_port(web.port)
        unstarted_daemon.start().wait_for_object()
        assert unstarted_daemon.reload(ADDRESS, relay.device_port).status == 0
        # A stop before the daemon has read the relay's welcome would be forgotten.
        wait_until(lambda: relay.devices().get(router.identity.device_id, {}).get("last_heartbeat"),
                   "the daemon's session is established")
        return f"http://{relay.host(router.identity.device_id)}"
    return bring_up


@pytest.fixture
def nginx(places, request):
    with Nginx(places.scratch / request.node.name) as serving:
        yield serving


@pytest.fixture
def url(chain, nginx):
    return chain(nginx)


def curl(*arguments):
    """A run of curl that resolves names under localhost itself, as browsers do."""
    finished = subprocess.run(["curl", "-sS", "--max-time", "60", *map(str, arguments)],
                              capture_output=True, timeout=90)
    assert finished.returncode == 0, finished.stderr.decode()
    return finished.stdout


def test_a_page_comes_as_it_is_served(url, relay, router):
    assert curl(f"{url}/") == PAGE
    assert curl("--http1.0", f"{url}/") == PAGE
    device = relay.devices()[router.identity.device_id]
    assert device["mac"] == "AABBCCDDEEFF" and device["requests"] == 2
    assert device["last_heartbeat"] != ""


def test_a_lighttpd_serves_as_well(chain, places, tmp_path):
    (tmp_path / "index.html").write_bytes(PAGE)
    with Lighttpd(tmp_path, places.scratch) as web:
        url = chain(web)
        assert curl(f"{url}/index.html") == PAGE
        head = curl("-I", f"{url}/index.html").decode()
        assert head.startswith("HTTP/1.1 200 OK\r\n") and f"Content-Length: {len(PAGE)}\r\n" in head
        assert curl("-o", "/dev/null", "-w", "%{http_code}", f"{url}/none") == b"404"


def test_head_has_the_length_and_no_body(url):
    head = curl("-I", f"{url}/").decode()
    assert head.startswith("HTTP/1.1 200 OK\r\n") and f"Content-Length: {len(PAGE)}\r\n" in head


def test_redirects_are_followed_to_the_public_address(url):
    assert curl("-L", "-w", "%{url_effective}", f"{url}/moved") == (
        PAGE + f"{url}/index.html".encode())
    assert curl("-o", "/dev/null", "-w", "%{redirect_url}", f"{url}/abroad") == (
        b"http://elsewhere.example/")


def test_cookies_come_and_go(url, tmp_path):
    jar = tmp_path / "jar"
    assert curl("-c", jar, f"{url}/login") == b"welcome"
    assert curl("-b", jar, f"{url}/who").split(b"|")[0] == b"42"
    assert "\tlang\tde" in jar.read_text()
    assert not re.search(r"^(#HttpOnly_)?\.?localhost\t", jar.read_text(), re.MULTILINE)


def test_the_web_server_learns_who_asks(url):
    assert curl("-X", "OPTIONS", f"{url}/who") == b"|127.0.0.1|127.0.0.1|OPTIONS"


def test_a_chunked_answer(url):
    head = curl("-D", "-", "-o", "/dev/null", "-H", "Accept-Encoding: gzip", f"{url}/zipped")
    assert b"Transfer-Encoding: chunked\r\n" in head
    assert curl("--compressed", f"{url}/zipped") == PAGE
    assert curl("--http1.0", "--compressed", f"{url}/zipped") == PAGE


def test_conditional_requests_and_ranges(url):
    etag = [line for line in curl("-I", f"{url}/").decode().split("\r\n")
            if line.startswith("ETag: ")][0][len("ETag: "):]
    assert curl("-o", "/dev/null", "-w", "%{http_code}", "-H", f"If-None-Match: {etag}",
                f"{url}/") == b"304"
    assert curl("-r", "10-19", f"{url}/") == PAGE[10:20]
    assert curl("-w", "%{http_code}", f"{url}/nothing") == b"204"


def test_uploads_come_back(url, tmp_path):
    body = tmp_path / "body"
    body.write_bytes(os.urandom((5 << 20) // build_cost() ** 2))
    for name, arguments in (("counted", ["-T", body]),
                            ("chunked", ["-T", body, "-H", "Transfer-Encoding: chunked"]),
                            ("asked", ["-T", body, "-H", "Expect: 100-continue"])):
        assert curl("-o", "/dev/null", "-w", "%{http_code}", *arguments,
                    f"{url}/store/{name}") == b"201"
        assert curl(f"{url}/store/{name}") == body.read_bytes()
        assert curl("-X", "DELETE", "-w", "%{http_code}", f"{url}/store/{name}") == b"204"
        assert curl("-o", "/dev/null", "-w", "%{http_code}", f"{url}/store/{name}") == b"404"


def test_a_post_of_5_mb_arrives_whole(chain, tmp_path):
    body = os.urandom(5 << 20)
    (tmp_path / "body").write_bytes(body)
    received = []

    def take(exchange):
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            head += exchange.read_exactly(1)
        received.append((head, exchange.read_exactly(len(body))))
        exchange.answer(b"HTTP/1.0 200 OK\r\n\r\n" +
                        hashlib.sha256(received[-1][1]).hexdigest().encode())

    with WebServer() as web:
        web.serve(take)
        url = chain(web)
        assert curl("--data-binary", f"@{tmp_path}/body", f"{url}/form").decode() == (
            hashlib.sha256(body).hexdigest())
    head = received[0][0].decode()
    assert head.startswith("POST /form HTTP/1.1\r\nHost: 127.0.0.1\r\n")
    assert f"Content-Length: {len(body)}\r\n" in head and "Connection: close\r\n" in head


def test_a_large_file_comes_whole(url, nginx):
    direct = curl(f"http://{ADDRESS}:{nginx.port}/big.bin")
    assert curl(f"{url}/big.bin") == direct


def test_a_connection_is_kept_towards_the_user(url):
    out = curl("-w", "%{num_connects} ", "-o", "/dev/null", "-o", "/dev/null", "-o", "/dev/null",
               f"{url}/", f"{url}/who", f"{url}/zipped")
    assert out.split() == [b"1", b"0", b"0"]


@pytest.mark.lasts(4)
def test_100_users_at_once(url, relay, router):
    finished = subprocess.run(["wrk", "-t1", "-c100", "-d2s", "--timeout", "20s",
                               "-H", f"Host: {url.removeprefix('http://')}",
                               f"http://{ADDRESS}:{relay.front_port}/"],
                              capture_output=True, text=True, timeout=90)
    assert "Socket errors" not in finished.stdout and "Non-2xx" not in finished.stdout
    answered = int(finished.stdout.split(" requests in ")[0].split()[-1])
    assert answered > 200 / slowness()
    assert relay.devices()[router.identity.device_id]["last_error"] == ""
    assert curl(f"{url}/") == PAGE


def test_the_web_token_of_a_real_device(url, relay, router):
    router.write_token_script('print("0123456789abcdef")')  # ends with a line feed
    status, body = relay.admin(f"/api/devices/{router.identity.device_id}/web-token", "POST")
    assert status == 200
    reply = json.loads(body)
    assert reply["err_code"] == 0 and reply["webToken"].rstrip("\n") == "0123456789abcdef"


def test_a_stopped_device_is_gone_and_comes_back(url, relay, router, unstarted_daemon):
    device_id = router.identity.device_id
    assert unstarted_daemon.stop().status == 0
    relay.wait_for_no_device(device_id)
    assert curl("-o", "/dev/null", "-w", "%{http_code}", f"{url}/") == b"404"
    unstarted_daemon.reload(ADDRESS, relay.device_port)
    relay.wait_for_device(device_id)
    assert curl(f"{url}/") == PAGE


def test_a_device_taken_off_the_policy_is_refused_from_then_on(url, relay, router,
                                                               unstarted_daemon):
    device_id = router.identity.device_id
    relay.write_policy({"devices": []})
    relay.reload()
    relay.wait_for_no_device(device_id)
    unstarted_daemon.reload(ADDRESS, relay.device_port)
    relay.log.wait_for(f"device {device_id} is not admitted: it is not on the policy's list")
    unstarted_daemon.log.expect("response->errorcode is 2")
    relay.write_policy({"devices": [{"device_id": device_id}]})
    relay.reload()
    unstarted_daemon.reload(ADDRESS, relay.device_port)
    relay.wait_for_device(device_id)
    assert curl(f"{url}/") == PAGE


def test_requests_that_no_http_carries_say_why(url):
    page = curl("-H", "Connection: Upgrade", "-H", "Upgrade: websocket", f"{url}/")
    assert b"<h1>501 Not Implemented</h1>" in page and b"WebSocket" in page

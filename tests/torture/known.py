"""Failures after which a program is not as it should be, and nothing of ours can help it."""

import re
from dataclasses import dataclass


@dataclass(frozen=True)
class Known:
    """`call` failed within one of the `functions`, or of the libraries of that name, and what is
    found then is like `finding`."""
    call: str
    functions: tuple
    finding: str
    reason: str

    def explains(self, hit, problem):
        return (re.fullmatch(self.call, hit.name) and
                set(self.functions) & {*hit.functions(), *hit.libraries()} and
                re.search(self.finding, problem))


KNOWN = (
    Known("strdup", ("json_tokener_parse_ex",), r"SEGV[\s\S]*json_object_object_add_ex",
          "json-c does not look whether the copy of a member's name was made"),
    Known("strdup|malloc|calloc", ("json_object_object_add_ex",), r"left behind: blocks",
          "json-c loses a member that it cannot add"),
    Known("realloc", ("json_tokener_parse_ex",), r"without an error line",
          "json-c drops what a text's buffer has no room for, and parses on"),
    Known("realloc", ("blobmsg_puts",), r"without an error line",
          "libubox drops what a JSON text's buffer has no room for, and formats on"),
    Known("pthread_mutex_lock", ("libwolfssl",), r"left behind: blocks",
          "wolfSSL frees nothing whose lock it does not get"),
    Known("operator new|calloc", ("openssl_init", "_GLOBAL__sub_I_boost.cpp"),
          r"died of signal 6[\s\S]*std::bad_alloc",
          "Boost.Asio sets OpenSSL up before main(), where nobody can catch an exception"),
    Known(".*", ("libcrypto",), r"left behind: blocks: \d+ of \d+ bytes, else",
          "OpenSSL's clean-up at the end of a program leaves blocks of a set-up that failed"),
    Known("fcntl", ("open_descriptors",), r"did not end within",
          "Boost.Asio does not look whether its pipe for signals became non-blocking"),
    Known("epoll_ctl", ("register_internal_descriptor",), r"did not end within",
          "Boost.Asio does not look whether its pipe for signals is watched"),
    Known("write", ("boost_asio_signal_handler",), r"did not end within",
          "Boost.Asio's signal handler cannot report that the pipe took nothing"),
    Known("read", ("do_perform",), r"did not end within",
          "Boost.Asio leaves a signal in the pipe, when that cannot be read, until the next one"),
    Known("asprintf|stat", ("uci_load_delta", "uci_load_delta_file"),
          r"left behind: (descriptors|blocks)",
          "libuci leaves the file open when it cannot look for staged changes"),
)


def reason_for(hit, problem):
    """Why this problem is none of ours; None when it is."""
    for known in KNOWN:
        if known.explains(hit, problem):
            return known.reason
    return None

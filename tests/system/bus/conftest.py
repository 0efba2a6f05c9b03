import pytest

from processes import is_sanitized, program
from scripted_broker import ScriptedBroker
from suite_rules import of_this_build
from ubus_programs import Broker


@pytest.fixture
def broker():
    """The built broker, running on a socket of its own."""
    with Broker() as running:
        yield running


@pytest.fixture
def client(broker):
    with broker.client() as connected:
        yield connected


@pytest.fixture
def other(broker):
    """Another client, where a test needs two."""
    with broker.client() as connected:
        yield connected


@pytest.fixture
def scripted_broker():
    """A socket on which the test itself plays the broker."""
    with ScriptedBroker() as listening:
        yield listening


@pytest.fixture
def telling_memory():
    """For tests that measure the broker's resident memory."""
    if is_sanitized(program("ubusd")):
        pytest.skip(of_this_build("a sanitizer's allocator keeps what is given back"))

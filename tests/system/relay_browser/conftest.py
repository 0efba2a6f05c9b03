import pytest

from browser import Browser


@pytest.fixture(scope="session")
def running_browser(places):
    with Browser(places.scratch / "browser") as started:
        yield started


@pytest.fixture
def browser(running_browser):
    """A browser with one empty tab; it must have had nothing to complain about in the end."""
    yield running_browser
    complaints = running_browser.complaints()
    running_browser.start_over()
    assert not complaints, complaints

"""The documents for operators agree with the programs."""

import re
import subprocess

import pytest

from conftest import FILES, TREE

PAGES = sorted((TREE / "docs" / "man").iterdir())
GUIDE = (TREE / "docs" / "operators-guide.md").read_text()


def sources(*folders):
    """The source text, with literals that are written in pieces joined and quotes as printed."""
    files = [path for folder in folders for path in sorted((TREE / folder).rglob("*"))]
    text = "\n".join(path.read_text() for path in files if path.suffix in (".cpp", ".h"))
    return re.sub(r'"\s*\n?\s*"', "", text).replace('\\"', '"')


def quoted_lines():
    """The log lines that head the rows of the guide's tables."""
    rows = re.findall(r"^\| (`.*?) \| ", GUIDE, re.MULTILINE)
    return [line for row in rows for line in re.findall(r"`([^`]+)`", row)]


def options_of_page():
    page = (TREE / "docs" / "man" / "cloud_relay.5").read_text()
    supervisor, service = page.split(".Ss config ")[1:]
    return [set(re.findall(r"^\.It Li (?:option|list) (\w+)", part, re.MULTILINE))
            for part in (supervisor, service)]


@pytest.mark.parametrize("page", PAGES, ids=lambda path: path.name)
def test_a_page_is_sound_and_says_what_it_is(page):
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True,
                          text=True)
    assert (lint.returncode, lint.stdout) == (0, "")
    name, section = page.name.rsplit(".", 1)
    shown = subprocess.run(["mandoc", "-T", "ascii", "-O", "width=100", page], check=True,
                           capture_output=True, text=True).stdout
    plain = re.sub(r".\x08", "", shown)
    assert plain.startswith(f"{name.upper()}({section})")
    assert re.search(rf"^NAME\n +{name} - \w", plain, re.MULTILINE)


@pytest.mark.parametrize("page", PAGES, ids=lambda path: path.name)
def test_a_page_refers_to_pages_that_are_there(page):
    references = re.findall(r"^\.Xr (\S+) (\d)", page.read_text(), re.MULTILINE)
    assert references
    assert {f"{name}.{section}" for name, section in references} <= {path.name for path in PAGES}


def test_every_option_of_the_supervisor_is_described_and_no_other():
    code = (TREE / "supervisor" / "configuration.cpp").read_text()
    table = code[code.index("NUMBER_OPTIONS[] = {"):]
    numbers = re.findall(r'^    \{"(\w+)",', table[:table.index("\n};")], re.MULTILINE)
    assert "pause_min" in numbers
    documented, _ = options_of_page()
    assert documented == {"enabled", "server", *numbers}


def test_every_option_of_the_init_script_is_described_and_no_other():
    script = (FILES / "cloud_relay.init").read_text()
    read = set(re.findall(r"get_number \w+ ([a-z_]+)", script))
    read |= set(re.findall(r"config_\w+ (?:jail )?service (\w+)", script))
    _, documented = options_of_page()
    assert documented == read


@pytest.mark.parametrize("page, folder", [("cloud_relay_client.8", "src"),
                                          ("cloud_relay_supervisor.8", "supervisor")])
def test_every_method_on_the_bus_is_described(page, folder):
    methods = set(re.findall(r'UBUS_METHOD\w*\(\s*"(\w+)"', sources(folder)))
    text = (TREE / "docs" / "man" / page).read_text()
    assert methods and methods <= set(re.findall(r"^\.It Ic (\w+)", text, re.MULTILINE))


def test_every_log_line_that_the_guide_quotes_is_one_of_the_programs():
    text = sources("src", "supervisor")
    lines = quoted_lines()
    assert len(lines) > 30
    assert [line for line in lines if line not in text] == []


def test_every_link_of_the_guide_leads_somewhere():
    targets = re.findall(r"\]\(([^)#]+)\)", GUIDE)
    assert targets and all((TREE / "docs" / target).exists() for target in targets)
    headings = {re.sub(r"[^a-z0-9 -]", "", heading.lower()).replace(" ", "-")
                for heading in re.findall(r"^#+ (.*)$", GUIDE, re.MULTILINE)}
    assert set(re.findall(r"\]\(#([^)]+)\)", GUIDE)) <= headings

"""Manual pages and completion keep up with the tool and the settings."""

import os
import re
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
SECTION = re.compile(r"^(Subcommands|Options):\n((?:  .*\n)+)", re.M)


@pytest.fixture
def tool(daemon_path):
    """Runs a command line that finds the tool as its user does."""
    path = f"{daemon_path.parent}:/usr/bin:/bin"

    def run(*argv):
        return subprocess.run(
            argv, env={**os.environ, "PATH": path}, capture_output=True, text=True, check=True
        ).stdout

    return run


def commands(tool, *verbs):
    """Each command with all that its help lists as subcommands and long options."""
    text = tool("quorsyncctl", *verbs, "--help")
    found = {name: re.findall(r"^  (\S+)", lines, re.M) for name, lines in SECTION.findall(text)}
    options = {option.split(",")[-1] for option in found["Options"]}
    yield verbs, set(found.get("Subcommands", ())), options
    for verb in found.get("Subcommands", ()):
        yield from commands(tool, *verbs, verb)


def complete(tool, *words, setup=""):
    script = f"""source {ROOT}/packaging/quorsyncctl.bash; {setup}
        COMP_LINE="quorsyncctl $*" COMP_POINT=${{#COMP_LINE}} && _quorsyncctl
        echo "${{COMPREPLY[*]}}" """
    return set(tool("/bin/bash", "-c", script, "bash", *words).split())


def test_the_manual_names_every_verb_and_option(tool):
    words = set(re.findall(r"[\w-]+", (ROOT / "man/quorsyncctl.8.scd").read_text()))
    known = list(commands(tool))
    assert len(known) > 20
    for verbs, subcommands, options in known:
        assert subcommands | options <= words, verbs


def test_the_manual_names_every_key():
    keys = re.findall(r'\bKEY_\w+ = "(\w+)"', (ROOT / "inc/keys.h").read_text())
    page = (ROOT / "man/quorsyncd-config.db.5.scd").read_text()
    heads = set(re.findall(r"\*(\w+)\*", "\n".join(re.findall(r"^\*.*\n\t", page, re.M))))
    assert {*keys, "dhcpcfg", "default_writeback"} <= heads


def test_completion_offers_what_the_help_lists(tool):
    assert complete(tool, "") >= {"check", "status", "store", "service"}
    assert complete(tool, "st") == {"status", "store"}
    assert complete(tool, "store", "--force", "bu") == {"bump"}
    assert complete(tool, "store", "bump", "") == {"config", "client", "dsver"}
    assert complete(tool, "service", "stop", "boot", "--i") == {"--if-slave"}
    assert complete(tool, "store", "get", "-f", "c") == {"config", "client"}
    keys = """quorsyncctl() { if [ "$2 $4" = "dump client" ]; then echo 00:1E:4F=x; echo name=y
        else command quorsyncctl "$@"; fi; };"""
    assert complete(tool, "store", "get", "-f", "client", "", setup=keys) == {"00:1E:4F", "name"}
    assert complete(tool, "store", "del", "-f", "client", "00:1", setup=keys) == {"1E:4F"}
    # What a store holds is never executed.
    evil = """quorsyncctl() { if [[ $* == *--help ]]; then command quorsyncctl "$@"
        else echo 'x`kill$IFS$$`$(:),y=1'; fi; };"""
    for words, offered in (
        (["store", "get", ""], {"x`kill$IFS$$`$(:),y"}),
        (["status", "--peer", "x"], {"x`kill$IFS$$`$(:)"}),
    ):
        assert complete(tool, *words, setup=evil) == offered


def test_colours_are_for_terminals_that_have_them(tool):
    shows = ["/usr/bin/script", "-qec", "quorsyncctl service status || true", "/dev/null"]
    for setting, coloured in (("TERM=xterm", True), ("TERM=dumb", False), ("NO_COLOR=1", False)):
        out = tool("/usr/bin/env", "-u", "NO_COLOR", "TERM=xterm", setting, *shows)
        assert "stagd" in out and ("\x1b[" in out) == coloured, setting

"""docs/messages.md has every message and event of the daemon, and no other.

A message in the catalogue is a list item: - `text as in the source` LEVEL. What it means. A newline
at the end of a text is left out.
"""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
CATALOGUE = ROOT / "docs/messages.md"

LITERAL = r'"(?:[^"\\]|\\.)*"'
MESSAGE = re.compile(
    rf"^(?:MESSAGE|FAILURE)\(\w+,\s*LOG_(\w+),\s*((?:{LITERAL}\s*)+)[,)]", re.MULTILINE
)
ENTRY = re.compile(r"^- `(.+?)` (DEBUG|INFO|ERROR|FATAL)\. \S", re.MULTILINE)


def messages():
    """(text, level) of each message in the list, without the newline at its end."""
    text = (ROOT / "inc/messages.def").read_text(encoding="utf-8")
    found = MESSAGE.findall(text)
    assert len(found) == len(re.findall(r"^(?:MESSAGE|FAILURE)\(", text, re.MULTILINE))
    return [(joined(literals), level) for level, literals in found]


def joined(literals):
    """What the compiler makes of adjacent literals."""
    text = "".join(part[1:-1] for part in re.findall(LITERAL, literals))
    return text.replace('\\"', '"').removesuffix("\\n")


def test_the_catalogue_has_every_message_and_no_other():
    listed = messages()
    entries = ENTRY.findall(CATALOGUE.read_text(encoding="utf-8"))
    wrong = ["add: - `%s` %s. ..." % entry for entry in listed if entry not in entries]
    wrong += ["take out: - `%s` %s." % entry for entry in sorted(set(entries) - set(listed))]
    if wrong:
        pytest.fail("docs/messages.md is behind\n\n" + "\n\n".join(wrong), pytrace=False)
    assert listed, "the list is no longer read as this test thinks"
    twice = {entry for entry in listed if listed.count(entry) > 1}
    assert not twice, f"in the list twice, use one constant: {twice}"


def test_nothing_is_logged_past_the_list():
    """What a write_log of its own says is neither in the catalogue nor known to the timeline."""
    past = [
        str(path)
        for path in (ROOT / "src").rglob("*.*")
        if path.name not in ("log.cpp", "log.h")
        and "ctl" not in path.relative_to(ROOT / "src").parts
        and re.search(r"\bwrite_log\(", path.read_text(encoding="utf-8"))
    ]
    assert not past, f"enter the message in inc/messages.def and log it by log_message: {past}"


def test_the_catalogue_has_every_event_and_no_other():
    header = (ROOT / "inc/events.h").read_text(encoding="utf-8")
    codes = set(re.findall(r"\bEVENT_\w+ = (\d{6});", header))
    entries = set(re.findall(r"^- `(\d{6})` ", CATALOGUE.read_text(encoding="utf-8"), re.MULTILINE))
    assert codes, "inc/events.h is no longer read as this test thinks"
    assert entries == codes, (
        f"docs/messages.md: add {sorted(codes - entries)}, take out {sorted(entries - codes)}"
    )

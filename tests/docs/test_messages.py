"""docs/messages.md has every message and event of the daemon, and no other.

A message in the catalogue is a list item: - `text as in the source` LEVEL. What it means. A newline
at the end of a text is left out.
"""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
CATALOGUE = ROOT / "docs/messages.md"

# Functions that hand a text of their caller to write_log: which argument fills the first %s.
WRAPPERS = {"end_deaf": 0, "run_logged": 1, "stop_logged": 1}

LITERAL = r'"(?:[^"\\]|\\.)*"'
LOG_CALL = re.compile(rf"\bwrite_log\(\s*LOG_(\w+),\s*((?:{LITERAL}\s*)+)[,)]")
FUNCTION = re.compile(r"^[^\s#/}][^;{}]*?\b(\w+)\([^;{}]*\)[^;{}]*\{$", re.MULTILINE)
ENTRY = re.compile(r"^- `(.+?)` (DEBUG|INFO|ERROR|FATAL)\. \S", re.MULTILINE)


def sources():
    """Text of every source that is linked into the daemon, by its path; comments are blanked."""
    found = {}
    for path in sorted((ROOT / "src").rglob("*")):
        if path.suffix in (".cpp", ".h") and "ctl" not in path.relative_to(ROOT / "src").parts:
            text = path.read_text(encoding="utf-8")
            blank = re.sub(rf"({LITERAL})|//[^\n]*", lambda hit: hit[1] or "", text)
            found[str(path.relative_to(ROOT))] = blank
    return found


def joined(literals):
    """What the compiler makes of adjacent literals, without the newline at the end."""
    text = "".join(part[1:-1] for part in re.findall(LITERAL, literals))
    return text.replace('\\"', '"').removesuffix("\\n")


def enclosing_function(text, position):
    names = [hit[1] for hit in FUNCTION.finditer(text, 0, position)]
    return names[-1] if names else None


def handed_over(text, wrapper):
    """(position, literal) of each call of a wrapper; the argument must be a literal."""
    others = r"[^,()]+,\s*" * WRAPPERS[wrapper]
    call = re.compile(rf"\b{wrapper}\(\s*{others}({LITERAL})")
    return [(hit.start(), joined(hit[1])) for hit in call.finditer(text)]


def logged_messages():
    """Where each (text, level) is logged."""
    places = {}
    for path, text in sources().items():
        calls = len(re.findall(r"(?<!int )\bwrite_log\(", text))
        hits = list(LOG_CALL.finditer(text))
        assert len(hits) == calls, f"{path}: a write_log whose level or format is no literal"
        for hit in hits:
            level, message = hit[1], joined(hit[2])
            uses = [(hit.start(), message)]
            wrapper = enclosing_function(text, hit.start())
            if wrapper in WRAPPERS:
                callers = handed_over(text, wrapper)
                assert callers, f"{path}: nobody calls {wrapper} with a literal: mend WRAPPERS"
                uses = [(at, message.replace("%s", given, 1)) for at, given in callers]
            for at, use in uses:
                line = text.count("\n", 0, at) + 1
                places.setdefault((use, level), []).append(f"{path}:{line}")
    return places


def test_the_catalogue_has_every_message_and_no_other():
    logged = logged_messages()
    entries = ENTRY.findall(CATALOGUE.read_text(encoding="utf-8"))
    wrong = [
        f"add to the catalogue, for {', '.join(places)}:\n- `{text}` {level}. ..."
        for (text, level), places in logged.items()
        if (text, level) not in entries
    ]
    wrong += [
        f"nobody logs this any more, take it out of the catalogue:\n- `{text}` {level}."
        for text, level in sorted(set(entries) - set(logged))
    ]
    if wrong:
        pytest.fail("docs/messages.md is behind\n\n" + "\n\n".join(wrong), pytrace=False)
    assert len(logged) > 50, "the sources are no longer read as this test thinks"


def test_the_catalogue_has_every_event_and_no_other():
    header = (ROOT / "inc/events.h").read_text(encoding="utf-8")
    codes = set(re.findall(r"\bEVENT_\w+ = (\d{6});", header))
    entries = set(re.findall(r"^- `(\d{6})` ", CATALOGUE.read_text(encoding="utf-8"), re.MULTILINE))
    assert codes, "inc/events.h is no longer read as this test thinks"
    assert entries == codes, (
        f"docs/messages.md: add {sorted(codes - entries)}, take out {sorted(entries - codes)}"
    )

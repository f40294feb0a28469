"""CONTRIBUTING.md says for each test file which module it is about."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
ROW = re.compile(r"^\|([^|]+)\|([^|]*)\|([^|]*)\|$", re.MULTILINE)
NAME = re.compile(r"`([^`]+)`")


def table():
    """The rows below the heading that names the folders."""
    text = (ROOT / "CONTRIBUTING.md").read_text(encoding="utf-8")
    return ROW.findall(text.partition("| module | `tests/unit/`")[2])


def in_table(column):
    return {name for row in table() for name in NAME.findall(row[column])}


def stems(*patterns):
    return {path.stem for pattern in patterns for path in ROOT.glob(f"tests/{pattern}")}


def test_every_test_file_stands_in_the_table_and_no_other():
    helpers = {"replay"}
    assert in_table(1) == stems("unit/test_*.cpp")
    assert in_table(2) == stems("pair/test_*.py", "fuzz/*.cpp") - helpers


def test_every_module_of_the_table_is_there():
    places = (ROOT, ROOT / "src")
    missing = [
        name
        for name in in_table(0)
        if not any(list(place.glob(f"{name.rstrip('/')}*")) for place in places)
    ]
    assert not missing

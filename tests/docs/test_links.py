"""What the documents point to is there: links, and files of the repository in code spans."""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), ROOT / "lab/README.md"])

LINK = re.compile(r"\]\(([^)#:\s]+)(?:#[^)]*)?\)")
PLACEHOLDER = re.compile(r"VERB|MODULE")
FILE = re.compile(r"`((?:src|inc|lab|tests|docs|bench|demo|scripts|man|packaging)/[\w./-]+)`")


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)
def test_everything_pointed_to_is_there(document):
    text = document.read_text(encoding="utf-8")
    missing = [link for link in LINK.findall(text) if not (document.parent / link).exists()]
    named = [name for name in FILE.findall(text) if not PLACEHOLDER.search(name)]
    missing += [name for name in named if not (ROOT / name).exists()]
    assert not missing, f"{document.relative_to(ROOT)} points to what is not there: {missing}"

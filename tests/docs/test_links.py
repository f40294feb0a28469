"""What the documents point to and show is there: links, files, commands, lines of output."""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PAGES = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), ROOT / "lab/README.md"])
DOCUMENTS = [*PAGES, *sorted(ROOT.glob("man/*.scd"))]

LINK = re.compile(r"\]\(([^)#:\s]*)(#[^)\s]*)?\)")
PLACEHOLDER = re.compile(r"VERB|MODULE")
FILE = re.compile(r"`((?:src|inc|lab|tests|docs|bench|demo|scripts|man|packaging)/[\w./-]+)`")
FENCED = re.compile(r"^ *```\w*\n(.*?)^ *```$", re.MULTILINE | re.DOTALL)
INDENTED = re.compile(r"(?:^(?: {4}.*)?\n)+", re.MULTILINE)
COMMAND = re.compile(r"\bquorsyncctl ((?:[a-z][a-z-]* ?)+)(.*)")
GROUPS = ("store", "service", "dhcpd-conf")
OPTIONS = r"(?: --(?:peer|nagios))?(?: \| grep \w+)?"
SAMPLE = re.compile(rf"# quorsyncctl (status|check){OPTIONS}\n((?: *\S.*\n)+)")
VALUE = re.compile(r"[\d.,]*")  # "10.77.0.1,10.77.0.2", which no source has
PART = r'"((?:[^"\\\n]|\\.)*)"'
LITERAL = re.compile(rf"{PART}(?:\s+{PART})*")
LONGEST_LINE = 100
MOST_WORDS = 13  # of a sentence, on average

each_page = pytest.mark.parametrize("document", PAGES, ids=lambda path: path.name)
each_document = pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)


def text_of(document):
    return document.read_text(encoding="utf-8")


def anchors(document):
    """Of the headings, as the usual renderers make them."""
    headings = re.findall(r"^#+ (.+)$", FENCED.sub("", text_of(document)), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def shown_in(document):
    """What stands there as code, with the same indentation everywhere."""
    text = text_of(document)
    blocks = FENCED.findall(text) + INDENTED.findall(FENCED.sub("", text))
    return re.sub(r"^ +(?=\S)", "", "\n".join(blocks), flags=re.MULTILINE)


def source_of(verb):
    """The sources of a verb of the tool, and those that verbs share."""
    stem = {"timeline": "history"}.get(verb, verb.replace("-", "_"))
    names = [f"{stem}/*", stem, f"{stem}_v*", "configured_role", "setting_rules", "verbs", "peer/*"]
    found = [path for name in names for path in ROOT.glob(f"src/ctl/{name}.cpp")]
    return "".join(text_of(path) for path in found)


def can_be_printed(cell, source):
    """Whether a literal of the source prints it, cut or not, with any text in the place of a {}."""
    for literal in LITERAL.finditer(source):
        text = "".join(re.findall(PART, literal.group())).replace('\\"', '"')
        fixed = re.split(r"\{[^}]*\}", text)
        says = len(re.findall("[A-Za-z]", "".join(fixed))) > 2  # "{}, {}" prints nearly everything
        whole = says and re.match(".*".join(map(re.escape, fixed)), cell)
        if whole or cell in text:
            return True
    return False


@each_page
def test_everything_pointed_to_is_there(document):
    text = text_of(document)
    missing = [name for name in FILE.findall(text) if not PLACEHOLDER.search(name)]
    missing = [name for name in missing if not (ROOT / name).exists()]
    for link, anchor in LINK.findall(text):
        target = document.parent / link if link else document
        if not target.exists() or anchor and anchor[1:] not in anchors(target):
            missing.append(link + anchor)
    assert not missing, f"{document.relative_to(ROOT)} points to what is not there: {missing}"


@each_document
def test_commands_are_verbs_and_options_of_the_tools(document):
    wrong = []
    for line in shown_in(document).splitlines():
        scripts = re.findall(r"\./run ([a-z]+)", line)
        wrong += [verb for verb in scripts if not (ROOT / f"scripts/{verb}.sh").exists()]
        for words, rest in COMMAND.findall(line):
            verb, *operands = words.split()
            names = [verb, *operands[:1]] if verb in GROUPS else [verb]
            names += re.findall(r"(?:^| )(-\w|--[a-z-]+)", rest)
            listed = {"--help"}.union(*re.findall(r'"(?:(-\w),)?([a-z-]+)[" ]', source_of(verb)))
            wrong += [f"{line}: {name}" for name in names if name not in listed]
    assert not wrong


@each_document
def test_sample_outputs_have_the_lines_of_the_tool(document):
    wrong = []
    for verb, sample in SAMPLE.findall(shown_in(document)):
        source = source_of(verb)
        for line in sample.splitlines():
            cells = re.split(r"  +", line.removesuffix("...").strip())
            if verb == "check":
                del cells[1:2]  # the name of a thing; the mark and the text remain
            cells = [cell for cell in cells if not VALUE.fullmatch(cell)]
            wrong += [cell for cell in cells if not any(
                can_be_printed(text, source) for text in (cell, re.sub("^[^:]+: ", "", cell))
            )]
    assert not wrong


@each_document
def test_no_line_is_too_long(document):
    lines = text_of(document).splitlines()
    assert not [line for line in lines if len(line) > LONGEST_LINE and not line.startswith("|")]


def test_no_manual_has_a_table_by_mistake():
    """scdoc takes a line that begins like this for one, and fails."""
    for page in ROOT.glob("man/*.scd"):
        assert not re.findall(r"^[\[|\]].*", text_of(page), re.MULTILINE), page.name


@pytest.mark.parametrize("name", ["README.md", "docs/guide.md"])
def test_sentences_are_short(name):
    text = INDENTED.sub("\n\n", FENCED.sub("", text_of(ROOT / name)))
    text = re.sub(r"^(?:\||#).*", "", text, flags=re.MULTILINE)
    lengths = [len(each.split()) for each in re.split(r"[.!?](?:\s|$)|\n\n", text) if each.strip()]
    assert sum(lengths) / len(lengths) <= MOST_WORDS


def test_the_figures_are_those_of_the_bench():
    labels = re.findall(r'^[A-Z]+ = "(.+)"$', text_of(ROOT / "bench/report.py"), re.MULTILINE)
    table = text_of(ROOT / "docs/figures.md").partition("|---|---|---|\n")[2].partition("\n\n")[0]
    assert [row.split("|")[1].strip() for row in table.splitlines()] == labels

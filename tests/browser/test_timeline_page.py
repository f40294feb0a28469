"""The page of "timeline --html" in Debian's chromium, without a network: a real pair's take-over."""

import html
import json
import os
import re
import shutil
import subprocess
import sys
from datetime import datetime
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

import lab  # noqa: E402

NOBODY = 65534
LIMIT = 60.0
NARROW, WIDE, DARK = "narrow", "wide", "dark"
FRAMES = {NARROW: (360, "light"), WIDE: (1600, "light"), DARK: (1600, "dark")}

# Steps to the take-over with the keyboard's focus and tells where everything stands.
MEASURE = """
const seen = (element) => getComputedStyle(element).display != "none";
const x = (element) => element.getBoundingClientRect().x;
const pair = (text, ground) => [getComputedStyle(text).fill, getComputedStyle(ground).fill];
function measure(page) {
  const all = (selector) => [...page.querySelectorAll(selector)];
  const sign = page.querySelector(".lane use[href='#s-take-over']");
  const tip = sign.parentNode.querySelector(".t div");
  const hidden = tip.getClientRects().length == 0;
  sign.parentNode.focus();
  const box = tip.getBoundingClientRect();
  return {
    width: page.documentElement.clientWidth, overflow: page.documentElement.scrollWidth,
    lanes: all(".lane h2").map((head) => head.firstChild.textContent),
    drawn: all(".lane .b rect").filter((band) => band.getBoundingClientRect().width > 0).length,
    ticks: all(".axis line").map((line, n) => [all(".axis text")[n].textContent, x(line)]),
    labels: all(".axis text").filter(seen).map((text) => text.getBoundingClientRect())
      .map((label) => [label.left, label.right]),
    takeOver: x(sign), tip: [hidden, tip.innerText, box.left, box.right],
    ground: getComputedStyle(page.body).backgroundColor,
    texts: all("p,td,code,small,.legend li").map((text) => getComputedStyle(text).color),
    bands: all(".b").filter((band) => band.querySelector("text"))
      .map((band) => pair(band.querySelector("text"), band.querySelector("rect"))),
    signs: all(".m").map((mark) => getComputedStyle(mark).stroke),
  };
}
onload = () => {
  const frames = [...document.querySelectorAll("iframe")];
  const results = frames.map((frame) => [frame.id, measure(frame.contentDocument)]);
  document.getElementById("results").textContent = JSON.stringify(Object.fromEntries(results));
};
"""


@pytest.fixture(scope="module")
def work(tmp_path_factory):
    """A folder of an ordinary user."""
    folder = tmp_path_factory.mktemp("page")
    for each in (folder, folder.parent, folder.parent.parent):
        each.chmod(0o755)
    os.chown(folder, NOBODY, NOBODY)
    return folder


@pytest.fixture(scope="module")
def drawn(work, request):
    """The page of a pair whose slave took over, and when that was by its log."""
    daemon_path = Path(request.config.getoption("--daemon")).resolve()
    with lab.Pair(daemon_path, clients=lab.realistic_clients(20)) as pair:
        pair.start()
        pair.wait_equal()
        pair.slave.wait_log("bottle=2", LIMIT)
        pair.master.line.cut()
        took_over = pair.slave.wait_log("become a master host", LIMIT)
        pair.master.line.heal()
        pair.slave.wait_log("restore to be a slave host", LIMIT)
        for host in (pair.master, pair.slave):
            shutil.copytree(host.root / "var/log", work / host.name)
    tool = shutil.copy(daemon_path.parent / "quorsyncctl", work)
    page = work / "pair.html"
    folders = [f"--dir={work / name}" for name in ("master", "slave")]
    done = subprocess.run(
        [tool, "timeline", "--html", page, *folders],
        user=NOBODY, group=NOBODY, extra_groups=[], capture_output=True, text=True,
    )
    assert done.returncode == 0, done.stdout + done.stderr
    assert not list(work.glob(".*")), "something is left of the temporary file"
    return page, took_over.time


@pytest.fixture(scope="module")
def seen(work, drawn):
    """What the browser makes of the page in each frame, and its complaints."""
    page = html.escape(drawn[0].read_text(encoding="utf-8"))
    frames = "".join(
        f'<iframe id="{name}" srcdoc="{page}" style="width:{width}px;height:1500px;'
        f'border:0;color-scheme:{scheme}"></iframe>'
        for name, (width, scheme) in FRAMES.items()
    )
    wrapper = work / "wrapper.html"
    wrapper.write_text(
        f'<meta charset="utf-8">{frames}<pre id="results"></pre><script>{MEASURE}</script>'
    )
    done = subprocess.run(
        ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
         f"--user-data-dir={work / 'profile'}", "--virtual-time-budget=5000", "--dump-dom",
         "--window-size=1700,1500", "--proxy-server=127.0.0.1:9", wrapper.as_uri()],
        capture_output=True, text=True, timeout=120,
    )
    results = re.search(r'<pre id="results">(.*?)</pre>', done.stdout, re.DOTALL)
    complaints = [line for line in done.stderr.splitlines() if "CONSOLE" in line]
    assert results and results[1], done.stderr[-3000:]
    return json.loads(html.unescape(results[1])), complaints


def test_it_renders_without_a_complaint(seen):
    results, complaints = seen
    assert not complaints
    for frame in results.values():
        assert frame["lanes"] == ["10.77.0.1", "10.77.0.2"]
        assert frame["drawn"] >= 4  # master; slave, acting master, slave


def test_it_fits_its_width(seen):
    for name, (width, _) in FRAMES.items():
        frame = seen[0][name]
        assert frame["width"] >= width - 20 and frame["overflow"] <= frame["width"], name
        labels = frame["labels"]
        assert all(left[1] < right[0] for left, right in zip(labels, labels[1:])), name
        assert labels[0][0] >= 0 and labels[-1][1] <= width, name


def test_the_take_over_stands_where_it_happened(seen, drawn):
    def second(text):
        return datetime.strptime(text, "%H:%M:%S")

    for name, frame in seen[0].items():
        (first, left), *_, (last, right) = frame["ticks"]
        scale = (right - left) / (second(last) - second(first)).total_seconds()
        since = second(f"{drawn[1]:%H:%M:%S}") - second(first)
        assert abs(left + since.total_seconds() * scale - frame["takeOver"]) < 3, name


def test_the_focus_shows_an_events_log_line(seen):
    for name, (width, _) in FRAMES.items():
        hidden, text, left, right = seen[0][name]["tip"]
        assert hidden and "become a master host" in text, name
        assert 0 <= left < right <= width, name


def luminance(colour):
    parts = [int(part) / 255 for part in re.findall(r"\d+", colour)[:3]]
    linear = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
    return sum(weight * part for weight, part in zip((0.2126, 0.7152, 0.0722), linear))


def contrast(one, other):
    dark, light = sorted((luminance(one), luminance(other)))
    return (light + 0.05) / (dark + 0.05)


def test_it_has_contrast_in_light_and_in_dark(seen):
    grounds = [luminance(seen[0][name]["ground"]) for name in (WIDE, DARK)]
    assert grounds[0] > 0.9 and grounds[1] < 0.05
    for name in (WIDE, DARK):
        frame = seen[0][name]
        for colour in frame["texts"]:
            assert contrast(colour, frame["ground"]) >= 4.5, (name, colour)
        for text, ground in frame["bands"]:
            assert ground.startswith("url") or contrast(text, ground) >= 4.5, (name, text, ground)
        for colour in frame["signs"]:
            assert contrast(colour, frame["ground"]) >= 3, (name, colour)

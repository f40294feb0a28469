from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def pytest_addoption(parser):
    parser.addoption(
        "--daemon",
        default=str(ROOT / "build/release/quorsyncd"),
        help="the quorsyncd to test, with quorsyncctl beside it (default: %(default)s)",
    )

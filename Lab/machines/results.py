"""What was measured on machines: kept as JSON, shown as tables in the README between two comments.

There are two kinds of entries. Those of the matrix have a VPN and a firewall, those of the journey a chapter; both
have a machine, a cell (what was tried), a state (works, note or fails) and in words why.
"""

import contextlib
import datetime
import functools
import json
import pathlib
import subprocess
from collections.abc import Callable, Iterator

from distributions import PROJECT

FILE = pathlib.Path(__file__).resolve().parent / "results.json"
README = PROJECT / "README.md"
_BEGIN, _END = "<!-- made by Lab/machines/machine matrix -->", "<!-- end of what it made -->"
_WORDS = {"works": "works", "note": "works", "fails": "**no**"}


def load() -> list[dict]:
    return json.loads(FILE.read_text()) if FILE.exists() else []


@contextlib.contextmanager
def storing() -> Iterator[Callable[[dict], None]]:
    """Takes entries as they are measured, and stores a part once it is whole: an interruption costs one part."""
    part: list[dict] = []

    def take(entry: dict) -> None:
        if part and _part(part[0]) != _part(entry):
            _store(part)
            part.clear()
        part.append(entry)
    yield take
    _store(part)


def parts_of(machine: str) -> list[tuple]:
    return list(dict.fromkeys(_part(each) for each in load() if each["machine"] == machine))


def _store(part: list[dict]) -> None:
    """It takes the place of what was known of it."""
    added = {"date": datetime.date.today().isoformat(), "commit": _commit()}
    made = [{key: value for key, value in each.items() if key != "seconds"} | added for each in part]
    tried = {_part(each) for each in part}
    kept = [each for each in load() if _part(each) not in tried]
    FILE.write_text("[\n" + ",\n".join(json.dumps(each) for each in kept + made) + "\n]\n")
    write_tables()


@functools.cache
def _commit() -> str:
    """What was measured."""
    return subprocess.run(["git", "rev-parse", "--short", "HEAD"], cwd=PROJECT, capture_output=True, text=True).stdout.strip()


def no_longer_works(entries: list[dict]) -> list[dict]:
    """Those that fail now and are not recorded as failing."""
    failing = {(*_part(each), each["cell"]) for each in load() if each["state"] == "fails"}
    return [each for each in entries if each["state"] == "fails" and (*_part(each), each["cell"]) not in failing]


def write_tables() -> None:
    text = README.read_text()
    begin = text.index(_BEGIN) + len(_BEGIN)
    end = text.index(_END, begin)
    README.write_text(f"{text[:begin]}\n{_matrix()}\n{_journey()}{text[end:]}")


def _part(entry: dict) -> tuple:
    return tuple(entry.get(key) for key in ("machine", "vpn", "firewall", "chapter"))


def _matrix() -> str:
    cells = [each for each in load() if "vpn" in each]
    notes: dict[str, int] = {}
    columns, machines = _distinct(cells, "cell", without="all"), sorted(_distinct(cells, "machine"))
    commits = " and ".join(sorted(_distinct(cells, "commit")))
    lines = [f"Measured on {' and '.join(sorted(_distinct(cells, 'date')))} with the programs of commit {commits}, on "
             f"{' and '.join(machines)}:", "",
             f"| VPN | Firewall | {' | '.join(columns)} |", "|---" * (len(columns) + 2) + "|"]
    for vpn in _distinct(cells, "vpn"):
        for firewall in _distinct(cells, "firewall"):
            row = [each for each in cells if (each["vpn"], each["firewall"]) == (vpn, firewall)]
            shown = [_shown({each["machine"]: each for each in row if each["cell"] in (column, "all")}, machines, notes)
                     for column in columns]
            lines.append(f"| {vpn} | {firewall} | {' | '.join(shown)} |")
    return "\n".join([*lines, "", *(f"{number}. {note}" for note, number in notes.items())]) + "\n"


def _journey() -> str:
    cells = [each for each in load() if "chapter" in each]
    machines = sorted(_distinct(cells, "machine"))
    lines = ["From the installation to the purge, how many of the things tried work, and which do not:", "",
             f"| Chapter | {' | '.join(machines)} | Does not |", "|---" * (len(machines) + 2) + "|"]
    for chapter in _distinct(cells, "chapter"):
        row = [each for each in cells if each["chapter"] == chapter]
        counts = []
        for machine in machines:
            states = [each["state"] for each in row if each["machine"] == machine]
            counts.append(f"{len(states) - states.count('fails')} of {len(states)}" if states else "not tried")
        failing = dict.fromkeys(_plain(f"{each['cell']}: {each['why']}") for each in row if each["state"] == "fails")
        lines.append(f"| {chapter} | {' | '.join(counts)} | {'; '.join(failing)} |")
    return "\n".join(lines) + "\n"


def _shown(by_machine: dict[str, dict], machines: list[str], notes: dict[str, int]) -> str:
    """One text where all machines agree, else one for each."""
    texts = {}
    for machine in machines:
        found = by_machine.get(machine)
        if found is None:
            texts[machine] = "not tried"
        else:
            note = f" ({notes.setdefault(_plain(found['why']), len(notes) + 1)})" if found["why"] else ""
            texts[machine] = _WORDS[found["state"]] + note
    if len(set(texts.values())) == 1:
        return texts[machines[0]]
    return ", ".join(f"{machine.removeprefix('debian-')}: {text}" for machine, text in texts.items())


def _plain(text: str) -> str:
    """Fit for a cell of a table: one line, no bars, no more than a glance."""
    line = " ".join(text.replace("|", "/").split())
    return line if len(line) <= 200 else line[:200] + "..."


def _distinct(cells: list[dict], key: str, without: str | None = None) -> list[str]:
    return list(dict.fromkeys(each[key] for each in cells if each[key] != without))

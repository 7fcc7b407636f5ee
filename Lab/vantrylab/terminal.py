"""A real terminal for programs that draw: tmux, with keys in and the screen out. And pictures of such screens."""

import html
import re
import subprocess
import unicodedata

from . import network, world

_SOCKET = "lab"
_CELL_WIDTH, _LINE_HEIGHT, _MARGIN = 8.4, 18, 12
_PAPER, _INK = "#1d1f21", "#e0e0e0"


class Terminal:
    """A shell on a screen of its own until it is closed; its prompt is "#"."""

    def __init__(self, columns: int = 92, lines: int = 12):
        self._tmux("-f", "/dev/null", "new-session", "-d", "-x", str(columns), "-y", str(lines),
                   "env", "-u", "COLUMNS", "-u", "LANG", f"PATH={world.BUILD}:/usr/sbin:/usr/bin:/sbin:/bin",
                   "PS1=# ", "sh", ";", "set", "status", "off")
        self.await_text("#")

    def type(self, *keys: str) -> None:
        """Text, or names of keys such as "Enter" and "Down"."""
        self._tmux("send-keys", *keys)

    def resize(self, columns: int, lines: int) -> None:
        self._tmux("resize-window", "-x", str(columns), "-y", str(lines))

    def screen(self, *options: str) -> list[str]:
        return self._tmux("capture-pane", "-p", *options).rstrip("\n").split("\n")

    def await_text(self, text: str, seconds: float = 20) -> list[str]:
        """The screen once it shows the text."""
        network.wait_until(lambda: any(text in line for line in self.screen()),
                           f"the terminal shows {text!r}", seconds)
        return self.screen()

    def picture(self) -> str:
        """The screen as an SVG."""
        return _picture(self.screen("-e"))

    def close(self) -> None:
        self._tmux("kill-server")

    @staticmethod
    def _tmux(*words: str) -> str:
        return subprocess.run(["tmux", "-u", "-L", _SOCKET, *words], check=True, capture_output=True,
                              text=True, timeout=20).stdout


def without_amounts(screen: list[str]) -> list[str]:
    """The same screen whatever the numbers are: lines with one blank between words, and # for numbers."""
    amounts = re.compile(r"\b\d[\d.:]*( [kMGT]?B(/s)?)?(?![\w-])")
    return [" ".join(amounts.sub("#", line).split()) for line in screen]


def _picture(lines: list[str]) -> str:
    width = max(_cells(re.sub(r"\x1b\[[\d;]*m", "", line)) for line in lines) * _CELL_WIDTH + 2 * _MARGIN
    height = len(lines) * _LINE_HEIGHT + 2 * _MARGIN
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{height}" '
             f'font-family="monospace" font-size="14" xml:space="preserve">',
             f'<rect width="100%" height="100%" rx="8" fill="{_PAPER}"/>']
    for number, line in enumerate(lines):
        parts += _line_of_picture(line, _MARGIN + number * _LINE_HEIGHT)
    return "\n".join([*parts, "</svg>", ""])


def _line_of_picture(line: str, top: int) -> list[str]:
    parts, cell, is_reverse = [], 0, False
    for piece in re.split(r"(\x1b\[[\d;]*m)", line):
        if piece.startswith("\x1b"):
            is_reverse = "7" in piece[2:-1].split(";")
            continue
        cells = _cells(piece)
        left, length = _MARGIN + cell * _CELL_WIDTH, cells * _CELL_WIDTH
        cell += cells
        if is_reverse:
            parts.append(f'<rect x="{left:.1f}" y="{top}" width="{length:.1f}" height="{_LINE_HEIGHT}" fill="{_INK}"/>')
        if piece.strip():
            parts.append(f'<text x="{left:.1f}" y="{top + 14}" textLength="{length:.1f}" '
                         f'fill="{_PAPER if is_reverse else _INK}">{html.escape(piece)}</text>')
    return parts


def _cells(text: str) -> int:
    return sum(2 if unicodedata.east_asian_width(each) in "WF" else 1 for each in text)

"""The daemon under test: its start and end, and the lines that it writes."""

import dataclasses
import fcntl
import os
import pathlib
import re
import signal
import subprocess
import threading
import time

from . import network, world

PROGRAM = world.BUILD / "vantryd"

_LINE = re.compile(r"(?P<category>\w+) (?P<level>debug|info|error): (?P<text>.*)$")


def _environment() -> dict[str, str]:
    """A build with the address sanitizer keeps freed memory; little of it, so that growth is growth.

    One with the thread sanitizer waits a second before it ends, which would count as the daemon's.
    """
    return {"ASAN_OPTIONS": "quarantine_size_mb=8", "TSAN_OPTIONS": "atexit_sleep_ms=100", **os.environ}


@dataclasses.dataclass(frozen=True)
class Line:
    category: str
    level: str
    text: str
    at: float


class Daemon:
    """One run of the daemon. A thread takes its lines as they come; any thread may ask for them."""

    # What an unread log holds before a write to it blocks; the least that a pipe can be made to hold.
    _UNREAD_BYTES = 4096

    def __init__(self, descriptors: int | None = None, environment: dict[str, str] | None = None,
                 is_read: bool = True, around: list[str] | None = None):
        """With a number of descriptors it never gets more than those; variables come on top of ours.

        A program around it has to become the daemon, with the same process.

        Unless it is read, the log goes to a pipe that is soon full, and has no lines to be asked for.
        """
        limited = [] if descriptors is None else ["prlimit", f"--nofile={descriptors}"]
        self.process = subprocess.Popen([*limited, *(around or []), str(PROGRAM)], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                        errors="replace", env={**_environment(), **(environment or {})})
        self._lines: list[Line] = []
        self._other_output: list[str] = []
        self._changed = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        if is_read:
            self._reader.start()
        else:
            fcntl.fcntl(self.process.stdout, fcntl.F_SETPIPE_SZ, self._UNREAD_BYTES)

    def _read(self) -> None:
        for raw in self.process.stdout:
            match = _LINE.search(raw.rstrip("\n"))
            with self._changed:
                if match:
                    self._lines.append(Line(**match.groupdict(), at=time.monotonic()))
                else:
                    self._other_output.append(raw)
                self._changed.notify_all()

    def count(self, text: str) -> int:
        """How many lines so far contain the text."""
        with self._changed:
            return sum(text in line.text for line in self._lines)

    def mark(self) -> int:
        """A place in the log, for `since`."""
        with self._changed:
            return len(self._lines)

    def lines(self, since: int = 0) -> list[Line]:
        with self._changed:
            return self._lines[since:]

    def wait_for(self, text: str, since: int = 0, count: int = 1, seconds: float = 5) -> Line | None:
        """The `count`-th line after the mark that contains the text; None if it doesn't come in time."""
        def found():
            matching = [line for line in self._lines[since:] if text in line.text]
            return matching[count - 1] if len(matching) >= count else None
        with self._changed:
            return self._changed.wait_for(found, seconds * world.PATIENCE) or found()

    def other_output(self) -> str:
        """What it wrote that is no line of its log: the words of a sanitizer, say."""
        with self._changed:
            return "".join(self._other_output)

    def stop(self, number: int = signal.SIGTERM, seconds: float = 5) -> int | None:
        """Sends the signal and gives the exit status; None if it was still there after the time."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            return self.process.wait(seconds * world.PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None
        finally:
            if self._reader.ident is not None:
                self._reader.join(seconds)

    def is_running(self) -> bool:
        return self.process.poll() is None

    def stand_still(self) -> None:
        """Stops it where it is; returns once every thread has stopped."""
        self.process.send_signal(signal.SIGSTOP)
        network.wait_until(self._all_threads_stand_still, "the daemon stands still")

    def go_on(self) -> None:
        self.process.send_signal(signal.SIGCONT)

    def _all_threads_stand_still(self) -> bool:
        states = [stat.read_text().rsplit(")", 1)[1].split()[0]
                  for stat in pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/stat")]
        return all(state == "T" for state in states)

"""One run of a machine: qemu, the commands that are run inside, and the end of it.

The disk stays as it was made: what a run writes is gone with it, but stays over a reboot inside the run. The
machine has two network cards that are wired to each other, and no way out.
"""

import contextlib
import functools
import json
import os
import pathlib
import selectors
import socket
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable

from distributions import CannotMake

_HUB = "hubport,hubid=0,model=virtio-net-pci,mac=52:54:00:00:00:0"
# From the start of a machine until it is up, on a computer whose patience is 1.
_USUAL_START, _MOST_PATIENCE = 20, 6
MEMORY = 2 << 30


class Failed(Exception):
    """The machine did not come up, or went away."""


@functools.cache
def accelerator(kernel: pathlib.Path) -> list[str]:
    """KVM where a kernel really starts under it: that /dev/kvm can be opened does not say so."""
    if os.access("/dev/kvm", os.R_OK | os.W_OK):
        probe = ["timeout", "5", "qemu-system-x86_64", "-accel", "kvm", "-cpu", "max", "-m", "512", "-nodefaults",
                 "-display", "none", "-serial", "stdio", "-no-reboot", "-kernel", str(kernel),
                 "-append", "console=ttyS0 panic=-1"]
        said = subprocess.run(probe, stdin=subprocess.DEVNULL, capture_output=True).stdout
        if b"Linux version" in said:
            return ["-accel", "kvm"]
    return ["-accel", "tcg,thread=multi"]


class Machine:
    """A machine that is running; use it as a context. Only one thread uses it."""

    def __init__(self, image: pathlib.Path, write_payload: Callable[[pathlib.Path], None],
                 console: pathlib.Path | None = None):
        """The machine unpacks the payload, an archive, to /run/lab. Without a file the console is the terminal."""
        self._folder = tempfile.TemporaryDirectory(prefix="vantry-machine-")
        folder = pathlib.Path(self._folder.name)
        write_payload(folder / "payload")
        self._partial, self._doing = b"", "its start"
        self._patience = 0.0  # until its first start shows it
        listener = _listen(folder / "agent")
        serial = "mon:stdio" if console is None else f"file:{console}"
        self._complaints = folder / "complaints"
        with open(self._complaints, "wb") as complaints:
            self.process = subprocess.Popen(
                ["qemu-system-x86_64", *accelerator(image / "kernel"), "-cpu", "max", "-smp", "2", "-m", str(MEMORY >> 20),
                 "-nodefaults", "-display", "none", "-serial", serial,
                 "-kernel", str(image / "kernel"), "-initrd", str(image / "initrd"),
                 "-append", "root=/dev/vda rw console=ttyS0 quiet no_timer_check systemd.show_status=no panic=-1",
                 "-drive", f"file={image / 'disk'},if=virtio,format=raw,snapshot=on",
                 "-drive", f"file={folder / 'payload'},if=virtio,format=raw,read-only=on",
                 "-nic", _HUB + "1", "-nic", _HUB + "2", "-device", "virtio-rng-pci", "-device", "virtio-serial",
                 "-chardev", f"socket,id=agent,path={folder / 'agent'}",
                 "-device", "virtserialport,chardev=agent,name=vantry.agent"],
                stdin=None if console is None else subprocess.DEVNULL, stderr=complaints,
                # What is written to the disk is kept beside the disk itself.
                env={**os.environ, "TMPDIR": str(image.parent)})
        try:
            self._agent = self._connection(listener)
        except BaseException:
            self.stop()
            raise

    def _connection(self, listener: socket.socket) -> socket.socket:
        """Of qemu to the socket; it makes it before the machine starts."""
        deadline = time.monotonic() + 120
        with listener:
            while self.process.poll() is None and time.monotonic() < deadline:
                with contextlib.suppress(TimeoutError):
                    return listener.accept()[0]
        said = self._complaints.read_text(errors="replace").strip().splitlines()
        raise CannotMake(f"qemu does not start: {said[-1] if said else 'it says no reason'}")

    def __enter__(self) -> "Machine":
        return self

    def __exit__(self, *_) -> None:
        self.stop()

    def stop(self) -> None:
        """Ends it as if the power had gone."""
        self.process.kill()
        self.process.wait()
        self._folder.cleanup()

    def wait_until_up(self, seconds: float = 600) -> str:
        """Gives systemd's word for the state: `running`, or `degraded` where a unit has failed. A computer that
        takes long for it is given more time for all that follows."""
        self._doing, started = "its start", time.monotonic()
        state = self._receive("ready", started + seconds)
        self._patience = self._patience or min(max(1.0, (time.monotonic() - started) / _USUAL_START), _MOST_PATIENCE)
        return state

    def run(self, command: str, seconds: float = 120, output=sys.stdout.write) -> int:
        """Runs a line of shell and gives its exit status; 124 if it took too long. Output goes where told."""
        self._doing, seconds = command, seconds * self._patience
        self._agent.sendall((json.dumps({"run": command, "seconds": seconds, "patience": self._patience}) + "\n").encode())
        return self._receive("status", time.monotonic() + seconds + 60, output)

    def read(self, command: str, seconds: float = 120) -> str:
        """What a command that must succeed wrote."""
        pieces: list[str] = []
        status = self.run(command, seconds, pieces.append)
        if status != 0:
            raise Failed(f"{command}: status {status}\n{''.join(pieces)}")
        return "".join(pieces)

    def restart(self) -> str:
        self.run("systemctl reboot", 10, lambda _: None)
        return self.wait_until_up()

    def _receive(self, wanted: str, deadline: float, output=lambda _: None):
        """Takes messages until the wanted one has come."""
        while True:
            while b"\n" in self._partial:
                line, self._partial = self._partial.split(b"\n", 1)
                message = json.loads(line)
                if "output" in message:
                    output(message["output"])
                if wanted in message:
                    return message[wanted]
                if "ready" in message:
                    raise Failed(f"the machine started again by itself ({self._doing})")
            self._partial += self._more(deadline, wanted)

    def _more(self, deadline: float, wanted: str) -> bytes:
        with selectors.DefaultSelector() as selector:
            selector.register(self._agent, selectors.EVENT_READ)
            ready = selector.select(max(0, deadline - time.monotonic()))
        data = self._agent.recv(1 << 16) if ready else b""
        if not data:
            happened = "ended" if ready else f"gave no answer, its {wanted} was waited for"
            raise Failed(f"the machine {happened} ({self._doing})")
        return data


def _listen(path: pathlib.Path) -> socket.socket:
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(path))
    listener.listen(1)
    listener.settimeout(1)
    return listener

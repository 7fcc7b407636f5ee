"""The settings service of the world: the host application's part on every machine of a user's."""

import contextlib
import os
import pathlib
import socket
import subprocess

from . import network, world

PROGRAM = world.BUILD / "vantry-settings"
FAULTY_FILES = world.BUILD / "Lab" / "libfaulty-files.so"
SOCKET = pathlib.Path("/run/org.quillmere.Vantry/settings.sock")


def start(fault: pathlib.Path | None = None) -> subprocess.Popen:
    """Starts it and returns once it answers; with a file in which faults of its file calls are ordered."""
    # The address sanitizer would insist on being loaded first.
    faults = {"LD_PRELOAD": str(FAULTY_FILES), "FAULT_FILE": str(fault),
              "ASAN_OPTIONS": "verify_asan_link_order=0"} if fault else {}
    service = subprocess.Popen([str(PROGRAM)], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, env={**os.environ, **faults})
    network.wait_until(_answers, "the settings service answers")
    return service


def stop(service: subprocess.Popen) -> int:
    service.terminate()
    return service.wait(5)


@contextlib.contextmanager
def running():
    service = start()
    yield service
    stop(service)


def _answers() -> bool:
    with socket.socket(socket.AF_UNIX) as channel:
        return SOCKET.exists() and channel.connect_ex(str(SOCKET)) == 0

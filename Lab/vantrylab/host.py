"""The host application's side: rules file, notification, messages, preferences, and its two files to read."""

import dataclasses
import json
import os
import pathlib
import socket
import subprocess
import tempfile

RULES_FILE = pathlib.Path("/tmp/org.quillmere.Vantry.rules.json")
ACTIVITY_LOG = pathlib.Path("/tmp/org.quillmere.Vantry.activitylog.json")
FAILURES = pathlib.Path("/var/lib/group.org.quillmere.Vantry/connection_failures.json")
PREFERENCES = pathlib.Path("/var/lib/org.quillmere.Vantry/preferences.json")
MESSAGE_SOCKET = pathlib.Path("/run/org.quillmere.Vantry/provider.sock")
NOTIFICATIONS = pathlib.Path("/run/org.quillmere.Vantry/notifications")
RULES_CHANGED = "org.quillmere.Vantry.rulesChanged"


@dataclasses.dataclass(frozen=True)
class Rules:
    """What a person has chosen, in full."""

    rules: dict[str, str] = dataclasses.field(default_factory=dict)
    defaultAction: str = "vpn"
    vpnFallback: str = "allow"
    directFallback: str = "block"
    vpnConnected: bool = True
    blockedApps: tuple[str, ...] = ()

    def but(self, **changes) -> "Rules":
        return dataclasses.replace(self, **changes)


def write_rules(rules: Rules) -> None:
    write_whole(RULES_FILE, json.dumps(dataclasses.asdict(rules)))


def write_preferences(**keys) -> None:
    PREFERENCES.parent.mkdir(parents=True, exist_ok=True)
    write_whole(PREFERENCES, json.dumps(keys))


def write_whole(path: pathlib.Path, text: str) -> None:
    """Puts a new file in place of the old one, so that no reader meets half of it."""
    descriptor, name = tempfile.mkstemp(dir=path.parent)
    with os.fdopen(descriptor, "w") as file:
        file.write(text)
    os.chmod(name, 0o644)
    os.replace(name, path)


def post(name: str = RULES_CHANGED) -> None:
    subprocess.run(["touch", str(NOTIFICATIONS / name)], check=True)


def send(message: object) -> object | None:
    """Gives the daemon a message, as an object or as raw text, and returns its reply, if any."""
    text = message if isinstance(message, str) else json.dumps(message)
    with socket.socket(socket.AF_UNIX) as channel:
        channel.settimeout(10)
        channel.connect(str(MESSAGE_SOCKET))
        channel.sendall(text.encode())
        channel.shutdown(socket.SHUT_WR)
        reply = b""
        while piece := channel.recv(65536):
            reply += piece
    return json.loads(reply) if reply else None


def activity() -> list[dict]:
    """The entries of the activity log, oldest first."""
    return json.loads(ACTIVITY_LOG.read_text())["entries"] if ACTIVITY_LOG.exists() else []


def failures() -> list[dict]:
    return json.loads(FAILURES.read_text()) if FAILURES.exists() else []

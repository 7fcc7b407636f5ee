"""Programs that play the applications of a machine, each a copy of the demo client.

`lay_out` puts them where such programs live: bundles with property lists, helpers inside bundles, a
bundle's child outside it, ordinary programs of the system and of a person, a shell script. They run
as the person at the machine, except where a check says otherwise.
"""

import dataclasses
import json
import os
import pathlib
import shutil
import subprocess
import threading

from . import world

DEMO_CLIENT = world.BUILD / "Lab" / "demo-client"


@dataclasses.dataclass(frozen=True)
class Application:
    """A program, and the name by which rules know it where it runs on its own."""

    path: pathlib.Path
    identifier: str

    def run(self, *words: object, user: int | None = world.PERSON, wait: float = 30) -> dict:
        """Runs it to its end and gives its last report."""
        running = self.start(*words, user=user)
        return running.finish(wait)

    def start(self, *words: object, user: int | None = world.PERSON) -> "Running":
        return Running([str(self.path), *map(str, words)], user)


class Running:
    """A program that is running; its reports are read one at a time."""

    def __init__(self, command: list[str], user: int | None):
        account = ({"user": user, "group": user, "extra_groups": []}
                   if user is not None and world.is_root_world() else {})
        self.command = command
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, bufsize=1, cwd="/", **account)

    def tell(self, *words: object) -> None:
        """Gives a program that serves commands its next one."""
        self.process.stdin.write(" ".join(map(str, words)) + "\n")
        self.process.stdin.flush()

    def ask(self, *words: object) -> dict:
        self.tell(*words)
        return self.report()

    def report(self) -> dict:
        """Waits for the next report; an application always gives one, as its patience is bounded."""
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"{' '.join(self.command)} ended without a report")
        return json.loads(line)

    def conclude(self, wait: float = 30) -> dict:
        """Lets what would go on, or waits for commands, end before its time, and gives its last report."""
        self.process.stdin.close()
        return self.finish(wait)

    def finish(self, wait: float = 30) -> dict:
        """Lets it run to its end and gives its last report; what runs longer than `wait` is ended."""
        overdue = threading.Timer(wait, self.process.kill)
        overdue.start()
        reports = [json.loads(line) for line in self.process.stdout]
        self.process.wait()
        overdue.cancel()
        if not reports:
            raise RuntimeError(f"{' '.join(self.command)} ended without a report")
        return reports[-1]

    def stop(self) -> None:
        self.process.kill()
        self.process.communicate()


def ordinary_identifier(path: pathlib.Path) -> str:
    """How rules name a program that is no bundle: by its file's owner, short or in full."""
    text = path.name if path.stat().st_uid == 0 else str(path)
    return text.replace(".", "-")


def lay_out() -> dict[str, Application]:
    """Makes all demo applications; the keys are their plain names."""
    bundles = world.APPLICATIONS / "Applications"
    studio = make_bundle(bundles / "Studio.app", "com.example.studio")
    made = {
        "courier": make_bundle(bundles / "Courier.app", "com.example.courier"),
        "ledger": make_bundle(bundles / "Ledger.app", "com.example.ledger"),
        "chatter": make_bundle(bundles / "Chatter.app", "com.example.chatter"),
        "nobody": make_bundle(bundles / "Nobody.app", "com.example.nobody"),
        "studio": studio,
        "render": make_bundle(bundles / "Studio.app/Contents/XPCServices/Render.xpc",
                              "com.example.studio.render"),
        "updater": make_bundle(bundles / "Studio.app/Contents/Helpers/Updater.app",
                               "com.example.studio.updater"),
        "sync": make_ordinary(world.APPLICATIONS / "lib/studio/sync", owner=0),
        "fetch": make_ordinary(world.APPLICATIONS / "bin/fetch", owner=0),
        "fetch2": make_ordinary(world.APPLICATIONS / "bin/fetch-2.0", owner=0),
        "grab": make_ordinary(world.APPLICATIONS / "home/person/grab.bin", owner=world.PERSON),
    }
    made["report"] = _script(world.APPLICATIONS / "bin/report.sh", made["fetch"])
    return made


def make_bundle(path: pathlib.Path, identifier: str) -> Application:
    executable = path / "Contents" / "MacOS" / path.stem
    executable.parent.mkdir(parents=True)
    (path / "Contents" / "Info.plist").write_text(f"""<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
    <key>CFBundleExecutable</key>
    <string>{path.stem}</string>
    <key>CFBundleIdentifier</key>
    <string>{identifier}</string>
    <key>CFBundleName</key>
    <string>{path.stem}</string>
</dict>
</plist>
""")
    shutil.copy(DEMO_CLIENT, executable)
    return Application(executable, identifier)


def make_ordinary(path: pathlib.Path, owner: int) -> Application:
    path.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(DEMO_CLIENT, path)
    if world.is_root_world():
        os.chown(path, owner, owner)
    return Application(path, ordinary_identifier(path))


def make_interpreter(name: str) -> pathlib.Path:
    """The system's Python under a name of its own, by which rules know what it runs."""
    path = world.APPLICATIONS / "bin" / name
    shutil.copy(pathlib.Path("/usr/bin/python3").resolve(), path)
    return path


def _script(path: pathlib.Path, tool: Application) -> Application:
    """A shell script around a tool: the shell is what runs, the tool is what connects."""
    path.write_text(f'#!/bin/sh\n{tool.path} "$@"\nexit $?\n')
    path.chmod(0o755)
    return Application(path, tool.identifier)

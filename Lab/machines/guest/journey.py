"""Inside a machine: what only a machine shows, from the first installation to the purge.

usage: journey.py CHAPTER...    the machine may be restarted between them

Prints a line of JSON for each thing tried: `works` or `fails`, and what was seen.
"""

import contextlib
import dataclasses
import json
import os
import pathlib
import pty
import re
import shutil
import subprocess
import sys
from collections.abc import Callable

import package
import uplink
from matrix import PATIENCE, Place, lay_out, seen_by, set_rules, was_denied
from uplink import run
from vantrylab import applications, network, world

PREFERENCES = pathlib.Path("/var/lib/org.quillmere.Vantry/preferences.json")
BEFORE = pathlib.Path("/root/before.json")
# Where others than the package write: apt, journal, service manager, and this journey.
_WRITTEN_ANYWAY = ("/root", "/home", "/srv", "/var/log", "/var/cache", "/var/tmp", "/var/lib/apt", "/var/lib/dpkg",
                   "/var/lib/systemd", "/var/lib/containers", "/var/lib/flatpak", "/etc/systemd/journald.conf.d",
                   "/run/*", "/tmp/vantry-*", "/tmp/systemd-private-*", "/tmp/.mount_*", "/dev", "/proc", "/sys")


# What a person sees and types on a screen; what goes on until it is stopped, and what else than 0 says no fault.
_TYPED = {"vantryctl top": b"q", "vantryctl setup": b"\n", "vantryctl import FILE": b"y\n"}
_ENDLESS = "log --follow|record"
_VERDICTS = (0, 10, 11)
# What the manual's examples of vantryctl say, by how they begin.
_SAID = {"identify": "env", "rules set env": "physical interface", "rules set org": "system's own route",
         "rules block": "Blocked", "rules fallback": "While the VPN is down", "rules remove": "default route",
         "rules unblock": "Unblocked", "rules": "org.example.tracker"}


class Checks:
    """What is tried in a chapter, told as it is."""

    chapter = ""

    def check(self, what: str, is_so: bool, seen: object = "") -> None:
        print(json.dumps({"chapter": self.chapter, "cell": what, "state": "works" if is_so else "fails",
                          "why": "" if is_so else str(seen)[-600:]}), flush=True)

    def equal(self, what: str, seen: object, expected: object) -> None:
        self.check(what, seen == expected, f"{seen} instead of {expected}")


class Journey:
    def __init__(self):
        self.checks = Checks()
        uplink.up()
        self.programs = lay_out()

    def goes(self, what: str, program: applications.Application, wanted: str) -> None:
        report = program.run("connect", (place := Place()).address, 80, "--patience", PATIENCE)
        self.checks.equal(what, seen_by(report, place), wanted)

    def is_denied(self, what: str, program: applications.Application) -> None:
        report = program.run("connect", (place := Place()).address, 80, "--patience", PATIENCE)
        self.checks.check(what, was_denied(report, place), seen_by(report, place))

    def _filled(self, line: str) -> str:
        """A command as a person would complete it."""
        courier = self.programs["courier"]
        if re.search("export|import", line):
            line = line.replace("FILE", "/home/person/exported")
        line = line.replace("record FILE", "record /home/person/recorded")
        if line.endswith("unblock"):
            line += " APPLICATION"
        for word, meant in (("APPLICATION", courier.identifier), ("FILE", str(courier.path)), ("PID", "$$"),
                            ("COMMAND", "true"), ("rules ...", f"rules unblock {courier.identifier}")):
            line = line.replace(word, meant)
        return line

    def works_as_printed(self, line: str) -> None:
        command, verdicts = self._filled(line), _VERDICTS if " why " in line else (0,)
        shell = ["sh", "-c", command.removeprefix("sudo ")]
        if re.search(_ENDLESS, line):
            shell, verdicts = ["timeout", "3", *shell], (124,)
        status, said = on_a_screen(shell if command.startswith("sudo ") else as_person(*shell),
                                   _TYPED.get(line.removeprefix("sudo ")))
        self.checks.check(f"a person: {line}", status in verdicts, f"status {status}: {said}")

    # Chapters

    def install(self) -> None:
        """A first installation leaves traffic as it was, and the README's commands work for a person."""
        BEFORE.write_text(json.dumps(traces()))
        before = open_connection(self.programs["fetch"], Place().address)
        told = package.install()
        self.checks.check("the service runs", package.is_active())
        self.checks.check("a connection from before lives on", not has_ended(before))
        before.stop()
        for name in ("courier", "fetch"):
            self.goes(f"{name} goes as it did", self.programs[name], "uplink")
        first_steps = re.findall(r"^  (sudo vantryctl .*?)(?:  |$)", told, re.MULTILINE)
        self.checks.check("the installation names commands to begin with", len(first_steps) > 2, told)
        for line in first_steps:
            self.works_as_printed(line)
        run("usermod", "--append", "--groups", "vantry", "person")
        run("loginctl", "enable-linger", "person")
        for line in printed_commands():
            self.works_as_printed(line)
        run("vantryctl", "vpn", "follow")
        run("vantryctl", "rules", "unblock", self.programs["courier"].identifier)
        set_rules(*(self.programs[name] for name in ("courier", "ledger", "nobody")))
        self.is_denied("what is blocked is denied", self.programs["nobody"])
        score = run("systemd-analyze", "security", "vantryd", check=False).strip().splitlines()[-1]
        self.checks.check("the unit is locked down", float(score.split(":")[1].split()[0]) < 4.0, score)

    def manual(self) -> None:
        """The examples of the installed manual, typed one after the other as they stand there."""
        before = run("vantryctl", "export")
        run("vantryctl", "rules", "fallback", "vpn", "allow")  # as it is at first
        page = run("env", "MANWIDTH=200", "LC_ALL=C.UTF-8", "man", "--pager=cat", "vantryctl")
        commands = re.findall(r"^ *\$ (vantryctl .*)$", page, re.MULTILINE)
        self.checks.check("vantryctl(1) has its examples", len(commands) > 8, commands)
        for command in commands:
            result = subprocess.run(as_person("sh", "-c", command), capture_output=True, text=True, cwd="/")
            said = next((_SAID[start] for start in _SAID if command.startswith(f"vantryctl {start}")), "")
            self.checks.check(command, result.returncode == 0 and said in " ".join(result.stdout.split()),
                              f"status {result.returncode}: {result.stdout}{result.stderr}")
        pathlib.Path("/root/exported").write_text(before)
        run("vantryctl", "import", "-y", "/root/exported")

    def boot(self) -> None:
        """After a restart: the rules are in force before anybody's program runs."""
        began = monotonic_start("vantryd.service")
        for unit in ("network-pre.target", "systemd-networkd.service", "systemd-user-sessions.service"):
            self.checks.check(f"the service is ready before {unit}", 0 < began < (then := monotonic_start(unit)),
                              f"{began} and {then} microseconds after the kernel's start")
        self.is_denied("a block from before the restart holds", self.programs["nobody"])
        self.goes("others pass", self.programs["fetch"], "uplink")

    def journal(self) -> None:
        """Neither a journal that is full nor one that is stuck keeps anybody waiting."""
        PREFERENCES.write_text(json.dumps({**json.loads(PREFERENCES.read_text()), "logLevel": "debug"}))
        limits = pathlib.Path("/etc/systemd/journald.conf.d/small.conf")
        limits.parent.mkdir(exist_ok=True)
        limits.write_text("[Journal]\nSystemMaxUse=8M\nRuntimeMaxUse=8M\nSystemMaxFileSize=4M\n")
        run("systemctl", "restart", "systemd-journald")
        run("sh", "-c", "head -c 9000000 /dev/urandom | base64 | systemd-cat", check=False, seconds=120)
        self.is_denied("the journal is full: blocked", self.programs["nobody"])
        self.goes("the journal is full: others pass", self.programs["fetch"], "uplink")
        run("systemctl", "kill", "--signal=STOP", "systemd-journald")
        try:
            reports = [self.programs["fetch"].run("connect", Place().address, 80, "--patience", 10) for _ in range(40)]
        finally:
            run("systemctl", "kill", "--signal=CONT", "systemd-journald")
        slow = [round(each["milliseconds"]) for each in reports if each["error"] or each["milliseconds"] > 2000]
        self.checks.equal("the journal stands still: connections that failed or took over 2 s", slow, [])
        self.checks.check("the daemon outlived it", package.is_active())
        limits.unlink()

    def shortages(self) -> None:
        """The clock, the connection table and memory, which are the whole machine's."""
        self._clock_jumps()
        self._connection_table_is_full()
        self._memory_is_refused()

    def _clock_jumps(self) -> None:
        fetch, hours = self.programs["fetch"], {"forward": (+2, "1h"), "back": (-3, "10s")}
        for direction, (hour, length) in hours.items():
            run("vantryctl", "rules", "block", fetch.identifier, "--for", length)
            set_clock(hour)
            network.wait_until(lambda: fetch.identifier not in run("vantryctl", "rules"),
                               f"a block for {length} ends though the clock was set {direction}", 60)
            self.goes(f"the clock was set {direction}: what was blocked for {length} passes", fetch, "uplink")
            self.is_denied(f"the clock was set {direction}: blocked", self.programs["nobody"])
        set_clock(+1)

    def _connection_table_is_full(self) -> None:
        """What is open goes on, what is blocked stays so, new connections wait for room, and `check` says why."""
        limit = pathlib.Path("/proc/sys/net/netfilter/nf_conntrack_max")
        usual, upload = limit.read_text(), open_connection(self.programs["fetch"], Place().address)
        limit.write_text("1")
        try:
            place = Place()
            report = self.programs["fetch"].run("connect", place.address, 80, "--patience", 3)
            self.checks.check("the connection table is full: a new connection waits", not place.seen() and
                              report["error"], report)
            place = Place()
            self.programs["nobody"].run("connect", place.address, 80, "--patience", 3)
            self.checks.check("the connection table is full: blocked", not place.seen())
            self.checks.check("the connection table is full: check says so",
                              "nearly full" in run("vantryctl", "check", check=False))
        finally:
            limit.write_text(usual)
        self.checks.check("the connection table was full: an open connection goes on", not has_ended(upload))
        upload.stop()
        self.goes("the connection table has room again: others pass", self.programs["fetch"], "uplink")

    def _memory_is_refused(self) -> None:
        """The kernel ends the daemon, again and again, until there is memory."""
        since = package.process()
        run("systemctl", "set-property", "--runtime", package.UNIT, "MemoryMax=1M")
        try:
            network.wait_until(lambda: package.process() != since, "the kernel ends the daemon", 60)
        finally:
            run("systemctl", "revert", package.UNIT)
        network.wait_until(lambda: package.is_back(since), "the daemon is back once it has memory", 60)
        self.checks.check("without memory the kernel ended the daemon, and the journal says so",
                          "OOM killer" in run("journalctl", "--boot", f"--unit={package.UNIT}"))
        self.is_denied("there is memory again: blocked", self.programs["nobody"])
        self.goes("there is memory again: others pass", self.programs["fetch"], "uplink")

    def containers(self) -> None:
        """A container on the host's network is seen like other programs; one on a bridge is left alone."""
        command = [str(self.programs["fetch"].path), "connect"]
        run("vantryctl", "rules", "block", self.programs["fetch"].identifier)
        base = ["podman", "run", "--rm", "--security-opt=label=disable", "--user=1000"]
        for kind, wanted in (("host", "denied"), ("bridge", "passes")):
            place = Place()
            told = run(*base, f"--network={kind}", "--rootfs", "/:O", *command, place.address, "80", check=False,
                       seconds=120)
            seen = "passes" if place.seen() else "denied" if '"error"' in told else told.strip()[-300:]
            self.checks.equal(f"podman, network {kind}: a blocked program", seen, wanted)
        run("vantryctl", "rules", "unblock", self.programs["fetch"].identifier)
        # Podman leaves its own behind.
        for table in ("ip filter", "ip nat", "inet netavark"):
            run("nft", "delete", "table", *table.split(), check=False)

    def appimage(self) -> None:
        """A program that lies on the person's own FUSE mount, where not even root may look."""
        folder, mount = pathlib.Path("/home/person/postbox"), pathlib.Path("/tmp/.mount_Postbox")
        program = applications.make_ordinary(folder / "usr/bin/postbox", owner=world.PERSON)
        run("mksquashfs", str(folder), "/home/person/postbox.squashfs", "-noappend", "-quiet")
        # An AppImage mounts itself: the program that serves the mount is the image, and called as it is.
        runtime = "/home/person/Postbox.AppImage"
        run("install", "--owner=person", "/usr/bin/squashfuse", runtime)
        run(*as_person("mkdir", "-p", str(mount)))
        run(*as_person(runtime, "/home/person/postbox.squashfs", str(mount)))
        try:
            self._named_and_blocked(dataclasses.replace(program, path=mount / "usr/bin/postbox").start,
                                    runtime.replace(".", "-"))
        finally:
            run(*as_person("fusermount3", "-u", str(mount)), check=False)

    def flatpak(self) -> None:
        """An application in a sandbox of its own, built and installed from a folder, without a network."""
        make_flatpak("org.example.Postbox")

        def start(*words: object) -> applications.Running:
            return applications.Running(["systemd-run", "--machine=person@", "--user", "--pipe", "--quiet", "--collect",
                                         "flatpak", "run", "org.example.Postbox", *map(str, words)], None)
        self._named_and_blocked(start, "org.example.Postbox")

    def _named_and_blocked(self, start: Callable[..., applications.Running], name: str | None = None) -> None:
        """The program that `start` runs has a name that a rule can be made of, and the rule holds."""
        running = start("upload", Place().address, 80, "--duration", 60)
        running.report()
        process = run("pgrep", "--newest", "--full", "postbox upload").strip()
        told = run("vantryctl", "identify", process, check=False)
        running.stop()
        identifier = told.splitlines()[0].strip() if told.strip() else ""
        self.checks.check("identify names it", name in (None, identifier), told)
        run("vantryctl", "rules", "block", identifier)
        running = start("connect", (place := Place()).address, 80, "--patience", PATIENCE)
        report = running.finish()
        self.checks.check("a block holds", was_denied(report, place), seen_by(report, place))
        run("vantryctl", "rules", "unblock", identifier)

    def upgrade(self) -> None:
        """To a later version: rules, and connections that do not go direct, live on."""
        before = json.loads(run("vantryctl", "rules", "--json"))
        connection = open_connection(self.programs["fetch"], Place().address)
        package.upgrade()
        self.checks.check("the service runs", package.is_active())
        self.checks.check("an open connection lives on", not has_ended(connection))
        connection.stop()
        self.checks.equal("rules are kept", json.loads(run("vantryctl", "rules", "--json")), before)
        self.is_denied("blocked as before", self.programs["nobody"])

    def leave(self) -> None:
        """Removal leaves the settings, the purge nothing; traffic is as if nothing had been."""
        run("apt-get", "remove", "--yes", "vantry", seconds=240)
        self.goes("removed: what was blocked passes", self.programs["nobody"], "uplink")
        self.checks.check("removed: the settings are kept", PREFERENCES.exists())
        run("apt-get", "purge", "--yes", "vantry", seconds=240)
        before, now = json.loads(BEFORE.read_text()), traces()
        for kind, found in now.items():
            self.checks.equal(f"purged: {kind}", sorted({*found} - {*before[kind]}), [])

    def sleep(self) -> None:
        """Sleeps as deep as this machine can, and is woken by its clock; in a fresh one, as the emulator's firmware may
        lose a busy one on waking."""
        package.install()
        direct, tunnelled, _, blocked = [*self.programs.values()][:4]
        set_rules(direct, tunnelled, blocked)
        states = pathlib.Path("/sys/power/state").read_text().split()
        print(f"----- states of sleep: {' '.join(states)}; {pathlib.Path('/sys/power/mem_sleep').read_text().strip()}")
        for alarm in ("0", f"+{20 * world.PATIENCE:.0f}"):
            pathlib.Path("/sys/class/rtc/rtc0/wakealarm").write_text(alarm)
        run("systemctl", "suspend", "--no-wall")
        for word in ("sleeping", "waking"):
            network.wait_until(lambda: f"System {word}..." in run("journalctl", "--boot", "--unit=vantryd"),
                               f"the daemon is told of {word}", 90)
        slept = "PM: suspend exit" in run("journalctl", "--boot", "--dmesg")
        self.checks.check("the kernel slept, and the daemon was told of sleep and wake", slept)
        self.checks.check("the service outlived it", package.is_active())
        self.is_denied("blocked as before", self.programs["nobody"])
        self.goes("others pass as before", self.programs["fetch"], "uplink")


def make_flatpak(name: str) -> None:
    """A runtime that has no more than the demo client needs, and the demo client as an application."""
    folder = world.STATE / "flatpak"
    runtime, application = folder / "runtime", folder / "application"
    for each in (runtime / "usr/lib64", runtime / "files", application / "files/bin", application / "export"):
        each.mkdir(parents=True)
    libraries = re.findall(r"(/\S+) \(0x", run("ldd", str(applications.DEMO_CLIENT)))
    for library in libraries:
        shutil.copy(library, runtime / "usr/lib64")
    shutil.copytree(runtime / "usr/lib64", runtime / "usr/lib")
    platform = "org.example.Platform/x86_64/1"
    (runtime / "metadata").write_text(f"[Runtime]\nname=org.example.Platform\nruntime={platform}\nsdk={platform}\n")
    shutil.copy(applications.DEMO_CLIENT, application / "files/bin/postbox")
    (application / "metadata").write_text(f"[Application]\nname={name}\nruntime={platform}\nsdk={platform}\n"
                                          "command=postbox\n[Context]\nshared=network;\n")
    for part, options in ((runtime, ["--runtime"]), (application, [])):
        run("flatpak", "build-export", *options, str(folder / "repository"), str(part), "1", seconds=120)
    run("flatpak", "remote-add", "--no-gpg-verify", "lab", str(folder / "repository"))
    run("flatpak", "install", "--assumeyes", "lab", f"{name}//1", seconds=180)


def traces() -> dict[str, list[str]]:
    """What is there that a package could have left."""
    pruned = [word for each in _WRITTEN_ANYWAY for word in ("-path", each, "-prune", "-o")]
    commands = {"files": ["find", "/", *pruned, "-print"],
                "files of this boot": ["find", "/run", "-iname", "*vantry*", "-not", "-path", "/run/lab/*",
                                       "-not", "-path", "/run/udev/*"],
                "groups": ["getent", "group"], "tables of the packet filter": ["nft", "list", "tables"],
                "rules of the routing": ["ip", "rule"]}
    return {kind: run(*command, check=False).splitlines() for kind, command in commands.items()}


def on_a_screen(words: list[str], keys: bytes | None) -> tuple[int, str]:
    """Runs a command as in a person's window, the keys typed at whatever it shows; gives its status and output."""
    if keys is None:
        result = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, cwd="/", timeout=90)
        return result.returncode, (result.stdout + result.stderr).strip()
    screen, window = pty.openpty()
    process = subprocess.Popen(["timeout", "60", *words], stdin=window, stdout=window, stderr=window, cwd="/",
                               start_new_session=True, env={**os.environ, "TERM": "linux"})
    os.close(window)
    said = b""
    # The end of the last one that has the window open shows as an error.
    with contextlib.suppress(OSError):
        while shown := os.read(screen, 1 << 14):
            said += shown
            if shown.strip():  # what is typed shows too
                os.write(screen, keys)
    os.close(screen)
    return process.wait(), said.decode(errors="replace")


def printed_commands() -> list[str]:
    """Those of the README's tables for a person; `rules unblock` alone means `vantryctl rules unblock`."""
    text = (world.PROJECT / "README.md").read_text()
    rows = text[text.index("## Living with it"):text.index("What to expect of a rule")]
    spans = re.findall(r"`([^`]*)`", "\n".join(line for line in rows.splitlines() if line.startswith("| ")))
    begin = ("vantryctl ", "sudo vantryctl ", "rules ", "why ", "log ", "status", "failures", "on")
    return [span if "vantryctl" in span else f"vantryctl {span}" for span in spans if span.startswith(begin)]


def set_clock(hours: int) -> None:
    run("date", f"--set={hours:+} hours")


def open_connection(program: applications.Application, address: str) -> applications.Running:
    running = program.start("upload", address, 80, "--duration", 300)
    running.report()
    return running


def has_ended(running: applications.Running) -> bool:
    try:
        running.process.wait(2)
        return True
    except subprocess.TimeoutExpired:
        return False


def as_person(*words: str) -> list[str]:
    """A command of the person at the machine, with the groups and folders that a login gives."""
    return ["runuser", "--user", "person", "--", "env", "XDG_RUNTIME_DIR=/run/user/1000", *words]


def monotonic_start(unit: str) -> int:
    return int(run("systemctl", "show", "--value", "--property=ActiveEnterTimestampMonotonic", unit).strip() or 0)


def main() -> None:
    journey = Journey()
    for journey.checks.chapter in sys.argv[1:]:
        try:
            getattr(journey, journey.checks.chapter)()
        except (RuntimeError, OSError, subprocess.TimeoutExpired) as reason:
            journey.checks.check("runs to its end", False, reason)


if __name__ == "__main__":
    main()

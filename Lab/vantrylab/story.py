"""The story that ./run tells: per-application routing beside a VPN, happening to real programs.

Every step says what the rules ask for, what the server saw and what the application got. What is not
as ruled is shown as such, and makes the whole story fail.
"""

import dataclasses
import os
import pathlib
import subprocess
import sys
import time
from collections.abc import Callable

from . import host, network, settings, verdicts, world
from .applications import Application
from .checks import Checks
from .host import Rules
from .stage import Stage

TOOL = world.BUILD / "vantryctl"
COURIER, LEDGER, CHATTER, STUDIO = (f"com.example.{name}" for name in
                                    ("courier", "ledger", "chatter", "studio"))

Judge = Callable[[dict, str], verdicts.Verdict]


@dataclasses.dataclass(frozen=True)
class Row:
    """One thing that happened, beside what the rules say about it."""

    chapter: str
    who: str
    ruled: str
    verdict: verdicts.Verdict


class Voice:
    """Prints the story, in colour on a terminal, and keeps what the closing table needs."""

    def __init__(self):
        self._is_coloured = sys.stdout.isatty() and "NO_COLOR" not in os.environ
        self._rows: list[Row] = []
        self._chapter = ""

    def chapter(self, title: str) -> None:
        self._chapter = title
        print(f"\n{self._paint('1', title)}", flush=True)

    def say(self, text: str) -> None:
        print(f"    {text}", flush=True)

    def command(self, words: list[str]) -> None:
        print(f"    {self._paint('36', '$ vantryctl ' + ' '.join(words))}", flush=True)

    def row(self, who: str, ruled: str, verdict: verdicts.Verdict) -> None:
        self._rows.append(Row(self._chapter, who, ruled, verdict))
        sign = self._paint("32", "ok   ") if verdict.is_so else self._paint("31", "WRONG")
        print(f"    {sign} {who:<26} {ruled:<28} {verdict.seen}", flush=True)

    def conclude(self) -> int:
        """The verdicts by chapter, what went wrong in full, and the exit status."""
        self.chapter("As the rules say?")
        for chapter in dict.fromkeys(row.chapter for row in self._rows):
            rows = [row for row in self._rows if row.chapter == chapter]
            right = sum(row.verdict.is_so for row in rows)
            sign = self._paint("32", "ok   ") if right == len(rows) else self._paint("31", "WRONG")
            print(f"    {sign} {right:2} of {len(rows):2}  {chapter}")
        wrong = [row for row in self._rows if not row.verdict.is_so]
        for row in wrong:
            print(self._paint("31", f"WRONG: {row.who}: {row.ruled}, but {row.verdict.seen}"))
        print(f"\n{len(self._rows) - len(wrong)} as the rules say, {len(wrong)} otherwise")
        return 0 if self._rows and not wrong else 1

    def _paint(self, code: str, text: str) -> str:
        return f"\x1b[{code}m{text}\x1b[0m" if self._is_coloured else text


class Story:
    def __init__(self):
        self.voice = Voice()
        network.up()
        self.stage = Stage(Checks())

    def tell(self) -> int:
        self._set_the_scene()
        self._without_rules()
        self._rules()
        self._blocked()
        self._changes_while_connections_run()
        self._vpn_goes_down()
        self._physical_interface_is_lost()
        self._what_was_recorded()
        self._the_end()
        return self.voice.conclude()

    # The chapters

    def _set_the_scene(self) -> None:
        self.voice.chapter("A machine with a VPN")
        network.spare_carrier_up()
        network.vpn_up()
        self.voice.say(f"{network.PHYSICAL} has {network.CLIENT_IPV4}; the VPN's utun0 has {network.TUNNEL_IPV4}"
                       " and takes all routes.")
        self.voice.say("A server on the other side says from which of the two each connection reached it.")
        self.stage.start_daemon(Rules())
        self._settings = settings.start()
        self.voice.say("The daemon is running, and vantry-settings tells it when the VPN comes and goes.")

    def _without_rules(self) -> None:
        self.voice.chapter("Without a rule, everything goes through the VPN")
        for application in (self.stage.courier, self.stage.chatter, self.stage.fetch):
            self._connects(application, "no rule: VPN", verdicts.went_through_tunnel)

    def _rules(self) -> None:
        self.voice.chapter("Rules: some go beside the VPN")
        fetch = self.stage.fetch.identifier
        self._rule("rules", "set", COURIER, STUDIO, fetch, "direct")
        self._rule("rules", "set", LEDGER, "vpn")
        stage = self.stage
        self._connects(stage.courier, "direct", verdicts.went_physical)
        self._connects(stage.courier, "direct, over IPv6", verdicts.went_physical, self.stage.ipv6())
        self._connects(stage.ledger, "VPN", verdicts.went_through_tunnel)
        self._connects(stage.studio, "direct", verdicts.went_physical)
        self._connects(stage.render, "direct, as part of Studio", verdicts.went_physical)
        self._connects(stage.fetch, "direct, an ordinary program", verdicts.went_physical)
        self._connects(stage.grab, "no rule: VPN", verdicts.went_through_tunnel)

    def _blocked(self) -> None:
        self.voice.chapter("A blocked application gets nothing but its names resolved")
        self._rule("rules", "block", CHATTER)
        stage = self.stage
        self._connects(stage.chatter, "blocked", verdicts.was_denied)
        self._attempts(stage.chatter, "datagram", 443, "blocked, QUIC too", verdicts.was_denied)
        self._attempts(stage.chatter, "resolve", 53, "name look-ups go on", verdicts.went_through_tunnel)
        self._connects(stage.ledger, "VPN", verdicts.went_through_tunnel)

    def _changes_while_connections_run(self) -> None:
        self.voice.chapter("A rule changes while an upload runs")
        stage = self.stage
        direct = self._upload_begins(stage.courier)
        bystander = self._upload_begins(stage.nobody)
        self._ends_upload(stage.courier, direct, "direct to VPN: ends",
                          lambda: self._rule("rules", "set", COURIER, "vpn"))
        self._connects(stage.courier, "then again through the VPN", verdicts.went_through_tunnel)
        watched = self._upload_begins(stage.ledger)
        self._ends_upload(stage.ledger, watched, "now blocked: ends",
                          lambda: self._rule("rules", "block", LEDGER))
        self.voice.row(self._name(stage.nobody), "its upload is not concerned",
                       verdicts.went_on(bystander.conclude()))
        self._rule("rules", "unblock", LEDGER)
        self._rule("rules", "set", COURIER, "direct")
        self._connects(stage.courier, "direct again", verdicts.went_physical)

    def _vpn_goes_down(self) -> None:
        self.voice.chapter("The VPN goes down")
        stage = self.stage
        upload = self._upload_begins(stage.courier)
        stage.bring_into_force(network.vpn_down)
        self.voice.say("The VPN's program has ended; utun0 is gone.")
        self._connects(stage.ledger, "fallback allow: passes", verdicts.went_physical)
        self._rule("rules", "fallback", "vpn", "block")
        self._connects(stage.ledger, "fallback block: denied", verdicts.was_denied)
        self._connects(stage.courier, "direct", verdicts.went_physical)
        self.voice.row(self._name(stage.courier), "its direct upload goes on",
                       verdicts.went_on(upload.conclude()))
        stage.bring_into_force(network.vpn_up)
        self._connects(stage.ledger, "the VPN is back", verdicts.went_through_tunnel)

    def _physical_interface_is_lost(self) -> None:
        self.voice.chapter(f"{network.PHYSICAL} is lost; the VPN reaches its server another way")
        stage = self.stage
        since = stage.daemon.mark()
        network.physical_down()
        stage.daemon.wait_for("No physical interface found", since)
        ended = verdicts.was_denied if stage.is_carried_by_kernel() else verdicts.was_closed
        self._connects(stage.courier, "fallback block: closed", ended)
        self._rule("rules", "fallback", "direct", "allow")
        self._connects(stage.courier, "fallback allow: VPN", verdicts.went_through_tunnel)
        self._show("failures")
        since = stage.daemon.mark()
        network.physical_up()
        stage.daemon.wait_for(f"Physical interface detected: {network.PHYSICAL}", since)
        self._connects(stage.courier, f"{network.PHYSICAL} is back: direct", verdicts.went_physical)

    def _what_was_recorded(self) -> None:
        self.voice.chapter("What was recorded")
        # The log is written at most once a second; blocked flows join it with the next that is not.
        self.stage.nobody.run("connect", last := self.stage.ipv4(), 80)
        deadline = time.monotonic() + 5
        while not any(each.get("destinationIp") == last for each in host.activity()):
            if time.monotonic() > deadline:
                break
            time.sleep(0.02)
        self._show("log")

    def _the_end(self) -> None:
        self.voice.chapter("The daemon ends")
        settings.stop(self._settings)
        status = self.stage.daemon.stop(seconds=3)
        self.voice.row("vantryd", "ends when asked", verdicts.Verdict(status == 0, f"status {status}"))
        self._connects(self.stage.chatter, "as if none had been", verdicts.went_through_tunnel)

    # What the chapters are made of

    def _rule(self, *words: str) -> None:
        self.voice.command(list(words))
        self.stage.bring_into_force(lambda: self._use_tool(*words))

    def _show(self, *words: str) -> None:
        self.voice.command(list(words))
        for line in self._use_tool(*words).splitlines():
            self.voice.say(line)

    @staticmethod
    def _use_tool(*words: str) -> str:
        result = subprocess.run([str(TOOL), *words], capture_output=True, text=True)
        if result.returncode != 0:
            raise RuntimeError(f"vantryctl {' '.join(words)}: {result.stderr}")
        return result.stdout

    def _connects(self, application: Application, ruled: str, judge: Judge, address: str | None = None) -> None:
        self._attempts(application, "connect", 443, ruled, judge, address)

    def _attempts(self, application: Application, mode: str, port: int, ruled: str, judge: Judge,
                  address: str | None = None) -> None:
        address = address or self.stage.ipv4()
        report = application.run(mode, address, port)
        self.voice.row(self._name(application), ruled, judge(report, address))

    def _upload_begins(self, application: Application):
        upload = application.start("upload", self.stage.ipv4(), 8080, "--duration", 20)
        report = upload.report()
        self.voice.say(f"{self._name(application)} uploads; the server saw {report['serverSaw']}.")
        return upload

    def _ends_upload(self, application: Application, upload, ruled: str, change: Callable[[], None]) -> None:
        changed_at = self.stage.now()
        change()
        self.voice.row(self._name(application), ruled, verdicts.ended_after(upload.finish(), changed_at, verdicts.ENDED))

    @staticmethod
    def _name(application: Application) -> str:
        path = pathlib.Path(application.path)
        return path.name if ".app/" in str(path) else str(path)

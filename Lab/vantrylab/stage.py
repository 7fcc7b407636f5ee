"""Everything that one run of scenarios plays with: the network, the applications, the daemon, the host.

Expectations are judged from outside: by the server's own list, by what the application got and when,
by the files, by the log.
"""

import dataclasses
import subprocess
import time
from collections.abc import Callable

from . import applications, host, network, verdicts, world
from .checks import Checks
from .daemon import Daemon
from .host import Rules


@dataclasses.dataclass(frozen=True)
class ExpectedRecord:
    """What the activity log holds about an address: one entry with the fields, or none at all."""

    what: str
    address: str
    fields: dict | None


class Stage:
    def __init__(self, checks: Checks):
        self.checks = checks
        self.applications = applications.lay_out()
        self.daemon: Daemon | None = None
        # An application whose connections the rules of the moment let the proxy record.
        self.recorded_application = self.applications["courier"]
        self._expected_records: list[ExpectedRecord] = []
        self._addresses_used = 0

    def __getattr__(self, name: str):
        """An application by its plain name."""
        try:
            return self.__dict__["applications"][name]
        except KeyError:
            raise AttributeError(name) from None

    def ipv4(self) -> str:
        """An address of the server that no check has used yet."""
        self._addresses_used += 1
        return network.server_ipv4(self._addresses_used)

    def ipv6(self) -> str:
        self._addresses_used += 1
        return network.server_ipv6(self._addresses_used)

    @staticmethod
    def applications_run_as_one_account() -> bool:
        """Where an ordinary user made the world, there is no second account to run anything as."""
        return not world.is_root_world()

    @staticmethod
    def now() -> float:
        """The clock by which reports and log lines are dated."""
        return time.monotonic()

    # The daemon and its rules

    def start_daemon(self, rules: Rules | None = Rules(), descriptors: int | None = None,
                     environment: dict[str, str] | None = None, **preferences) -> Daemon:
        host.write_preferences(**{"logLevel": "debug", **preferences})
        host.RULES_FILE.unlink(missing_ok=True)
        if rules is not None:
            host.write_rules(rules)
        host.MESSAGE_SOCKET.unlink(missing_ok=True)
        self.daemon = Daemon(descriptors, environment)
        # Without the first look at the network's interfaces there is none for direct connections.
        for line in ("Filter settings applied", "Transparent proxy started with", "hysical interface"):
            if not self.daemon.wait_for(line, seconds=15):
                raise RuntimeError(f"the daemon did not start:\n{self.transcript()}")
        network.wait_until(host.MESSAGE_SOCKET.exists, "the daemon takes messages")
        return self.daemon

    def is_carried_by_kernel(self) -> bool:
        """Whether direct connections are the applications' own; else the daemon relays them."""
        return self.daemon.count("Direct connections are carried by the kernel") > 0

    def stop_daemon(self) -> None:
        self.check_records()
        daemon, self.daemon = self.daemon, None
        self.checks.equal("SIGTERM ends the daemon with status 0", daemon.stop(seconds=3), 0)
        self.checks.equal("nothing but log lines on standard error", daemon.other_output(), "")

    @staticmethod
    def health(key: str) -> object:
        """What the daemon says of one item of its health."""
        return next(each["value"] for each in host.send('{"platform":"health"}')["health"] if each["key"] == key)

    @staticmethod
    def clean_up() -> int:
        """Has what a killed daemon has left taken away; the status of the program that does it."""
        return subprocess.run((world.BUILD / "vantryd", "--clean-up"), capture_output=True, timeout=20).returncode

    def apply(self, rules: Rules) -> None:
        """Puts rules in force, as the host application does."""
        def write_and_post():
            host.write_rules(rules)
            host.post()
        self.bring_into_force(write_and_post)

    def bring_into_force(self, change: Callable[[], None]) -> None:
        """Makes a change of the rules and returns when all that follows from it has been set going.

        Deliveries come one at a time, and posts that wait for one together give one. So the second
        post comes when the first one's delivery has begun; once that of the second has begun, the
        first is through; and as the second finds nothing changed, it does nothing.
        """
        since = self.daemon.mark()
        change()
        self._await("Received rules-changed Darwin notification", since)
        host.post()
        self._await("Received rules-changed Darwin notification", since, 2)
        begun = sum("adding sentinel rule" in line.text for line in self.daemon.lines(since))
        self._await("Clean settings restored", since, begun)

    def _await(self, text: str, since: int, count: int = 1) -> None:
        if count > 0 and not self.daemon.wait_for(text, since, count):
            raise RuntimeError(f"the rules did not come into force:\n{self.transcript(since)}")

    def transcript(self, since: int = 0) -> str:
        lines = [f"{each.category} {each.level}: {each.text}" for each in self.daemon.lines(since)]
        return "\n".join(lines[-60:]) + "\n" + self.daemon.other_output()

    # Expectations about one attempt of an application

    def expect_physical(self, what: str, report: dict, address: str) -> None:
        self._expect_at(what, verdicts.went_physical(report, address), address)

    def expect_tunnel(self, what: str, report: dict, address: str) -> None:
        self._expect_at(what, verdicts.went_through_tunnel(report, address), address)

    def expect_denied(self, what: str, report: dict, address: str) -> None:
        self._expect_at(what, verdicts.was_denied(report, address), address)

    def expect_closed(self, what: str, report: dict, address: str) -> None:
        self._expect_at(what, verdicts.was_closed(report, address), address)

    def _expect_at(self, what: str, verdict: verdicts.Verdict, address: str) -> None:
        """What is not as expected is shown with what the daemon said around it."""
        is_so = verdict.is_so or self.daemon is None
        seen = verdict.seen if is_so else f"{verdict.seen}\n{self._said_around(address)}"
        self.checks.check(what, verdict.is_so, seen)

    def _said_around(self, address: str) -> str:
        lines = self.daemon.lines()
        places = [number for number, line in enumerate(lines) if address in line.text] or [len(lines)]
        return "\n".join(f"      {line.at:.3f} {line.category} {line.level}: {line.text}"
                         for line in lines[max(0, places[0] - 12):places[-1] + 12])

    def expect_nothing_arrived(self, what: str, address: str) -> None:
        self.checks.equal(what, network.seen_at(address), [])

    # Expectations about something that is running when a change comes

    def expect_ended(self, what: str, report: dict, changed_at: float, errors: tuple[str, ...]) -> None:
        self.expect(what, verdicts.ended_after(report, changed_at, errors))

    def expect_untouched(self, what: str, running: applications.Running) -> None:
        """It is still running, and ends well now that it may."""
        self.expect(what, verdicts.went_on(running.conclude()))

    def expect(self, what: str, verdict: verdicts.Verdict) -> None:
        self.checks.check(what, verdict.is_so, verdict.seen)

    # Expectations about what the daemon says

    def expect_line(self, what: str, text: str, since: int = 0, seconds: float = 5) -> None:
        self.checks.check(what, self.daemon.wait_for(text, since, seconds=seconds) is not None, f"no line {text!r}")

    def expect_record(self, what: str, address: str, **fields) -> None:
        """The activity log has exactly one entry for the address, with these fields.

        That is looked at with the next `check_records`, at the latest when the daemon stops: the log
        is written once a second at most, and there are many records to be expected.
        """
        self._expected_records.append(ExpectedRecord(what, address, fields))

    def expect_no_record(self, what: str, address: str) -> None:
        self._expected_records.append(ExpectedRecord(what, address, None))

    def check_records(self) -> None:
        """Looks once that a later flow's record has reached the file, and with it all before it.

        What the filter records joins the file with the next flow that the proxy records.
        """
        expected, self._expected_records = self._expected_records, []
        if not expected:
            return
        later = self.ipv4()
        self.recorded_application.run("connect", later, 80)
        entries: list[dict] = []

        def written():
            entries[:] = host.activity()
            return any(each.get("destinationIp") == later for each in entries), entries
        if self.checks.eventually("a later connection is recorded", written):
            for each in expected:
                self._check_record(each, [entry for entry in entries
                                          if entry.get("destinationIp") == each.address])

    def _check_record(self, expected: ExpectedRecord, entries: list[dict]) -> None:
        if expected.fields is None:
            self.checks.equal(expected.what, entries, [])
            return
        is_so = len(entries) == 1 and all(entries[0].get(key) == value
                                          for key, value in expected.fields.items())
        self.checks.check(expected.what, is_so, entries)

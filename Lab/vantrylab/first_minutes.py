"""Two people's first ten minutes with the tool: what they typed and saw, and a picture of `top`.

It is played on a real terminal in a world whose daemon, settings service and VPN run. The README holds what came
of it; numbers and what `check` says of a machine may differ from one run to the next, nothing else.
"""

import pathlib
import re
import subprocess

from . import applications, host, network, terminal

README = "README.md"
PICTURE = "docs/top.svg"
_BEGIN, _END = "<!-- made by Lab/first-ten-minutes -->", "<!-- end of what it made -->"
_PROMPT = "#"
_FINDING = re.compile(r"^(Of what the daemon|warning|unknown|MISSING) |^         ")

_ALICE = """
Alice works over a VPN. All of it is to go on that way but the uploads of one program, and no TCP and no HTTP/3 of what
has a rule for the VPN may leave without it. She is led through it, and sees that it holds:
"""
_BOB = """
Bob wants a program kept off the network, and tries what it breaks before he decides; another one is to go beside the
VPN this afternoon only:
"""


def play(made: dict[str, applications.Application]) -> tuple[str, str]:
    """The README's section without its markers, and the picture."""
    shell = terminal.Terminal(columns=80, lines=150)
    try:
        alice = _Person(shell)
        alice.dialogue("vantryctl setup", ("only some (direct)? [vpn/direct]", "vpn"),
                       ("none is fine.", "com.example.courier"),
                       ("or directly too (on)? [off/on]", "off"), ("or not (block)? [allow/block]", "block"))
        alice.commands("vantryctl why com.example.courier")
        uploads = [made["courier"].start("upload", network.server_ipv4(201), 8080, "--duration", 60, "--pace", 0.01)]
        uploads[0].report()
        made["ledger"].run("connect", network.server_ipv4(202), 443)
        _await_record("com.example.ledger")
        alice.commands("vantryctl sessions", "vantryctl log -n 2")
        bob = _Person(shell)
        bob.commands(f"vantryctl identify {made['chatter'].path}",
                     "vantryctl try --for 5m rules block com.example.chatter")
        refused = made["chatter"].run("connect", network.server_ipv4(203), 443)
        # What was blocked joins the log with the next flow that passes.
        made["ledger"].run("connect", network.server_ipv4(203), 443)
        _await_record("com.example.chatter")
        assert refused["outcome"] == "failed", refused
        bob.commands("vantryctl why --last com.example.chatter", "vantryctl confirm",
                     "vantryctl rules set com.example.ledger direct --for 2h", "vantryctl rules", "vantryctl undo",
                     "vantryctl off", "vantryctl on", "vantryctl status | head -n 4")
        picture = _picture(shell, made, uploads)
        for upload in uploads:
            upload.stop()
    finally:
        shell.close()
    parts = [_ALICE, alice.text(), _BOB, bob.text()]
    return "\n".join(part.strip("\n") + "\n" for part in parts), picture


def _await_record(application: str) -> None:
    network.wait_until(lambda: any(each["bundleId"] == application for each in host.activity()),
                       f"the log has a flow of {application}")


class _Person:
    """Types at a shell, and remembers what was seen."""

    def __init__(self, shell: terminal.Terminal):
        self.shell = shell
        self.seen: list[str] = []

    def commands(self, *commands: str) -> None:
        for command in commands:
            self.dialogue(command)

    def dialogue(self, command: str, *answers: tuple[str, str]) -> None:
        """The answers are typed once their questions stand before the cursor."""
        self.shell.type("clear", "Enter")
        network.wait_until(lambda: self.shell.screen() == [_PROMPT], "the screen is clear")
        self.shell.type(command, "Enter")
        for question, answer in answers:
            network.wait_until(lambda: question in " ".join(self._last(4)) and self._last(1) == [">"],
                               f"it asks {question!r}", 30)
            self.shell.type(answer, "Enter")
        network.wait_until(lambda: self._last(1) == [_PROMPT] and len(self.shell.screen()) > 1,
                           f"{command} ends", 60)
        self.seen += self.shell.screen()[:-1]

    def _last(self, count: int) -> list[str]:
        return self.shell.screen()[-count:]

    def text(self) -> str:
        return "\n".join(["```", *self.seen, "```"])


def _picture(shell: terminal.Terminal, made: dict[str, applications.Application],
             uploads: list[applications.Running]) -> str:
    for number, (name, pace) in enumerate((("courier", 0.01), ("ledger", 0.02), ("studio", 0.2), ("fetch", 0.05), ("grab", 1)), 204):
        uploads.append(made[name].start("upload", network.server_ipv4(number), 8080, "--duration", 60, "--pace", pace))
        uploads[-1].report()
    shell.resize(92, 12)
    shell.type("clear; vantryctl top", "Enter")
    shell.await_text("grab-bin")
    shell.type("Down")
    # The rates are those of the second look.
    network.wait_until(lambda: sum("B/s" in line and " 0 B/s  0 B/s" not in line for line in shell.screen()) > 3,
                       "rates are shown")
    picture = shell.picture()
    shell.type("q")
    shell.await_text(_PROMPT)
    return picture


def section_of(readme: pathlib.Path) -> str:
    return readme.read_text().split(_BEGIN + "\n")[1].split("\n" + _END)[0] + "\n"


def write(project: pathlib.Path, section: str, picture: str) -> None:
    readme = project / README
    before, rest = readme.read_text().split(_BEGIN + "\n")
    after = rest.split(_END, 1)[1]
    readme.write_text(f"{before}{_BEGIN}\n{section}{_END}{after}")
    (project / PICTURE).write_text(picture)


def comparable(section: str) -> list[str]:
    """What has to be the same in every run."""
    lines = [line for line in section.splitlines() if not _FINDING.match(line)]
    return terminal.without_amounts(lines)


def has_control_groups() -> bool:
    """Mounts them, if they are not, so that commands can have rules of their own."""
    tree = "/sys/fs/cgroup"
    if subprocess.run(["stat", "-f", "-c", "%T", tree], capture_output=True, text=True).stdout.strip() == "cgroup2fs":
        return True
    return subprocess.run(["mount", "-t", "cgroup2", "lab", tree], capture_output=True).returncode == 0

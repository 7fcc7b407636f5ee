"""What the daemon decided is played again against the same core, call for call, without a difference; a core
with a fault is found out by the same recording."""

import pathlib
import random
import re
import shutil
import signal
import stat
import subprocess
import time

import soak
from vantrylab import host, network, world
from vantrylab.host import Rules

COURIER, LEDGER = "com.example.courier", "com.example.ledger"
RULES = Rules(rules={COURIER: "direct", LEDGER: "vpn"}, blockedApps=("com.example.studio",))
ROUNDS = 6


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(RULES)
    host.write_preferences(logLevel="debug", directDatagrams=True)
    network.wait_until(lambda: "go directly" in stage.health("directDatagrams"), "the preference is in force")
    with Recording(stage, "story") as story:
        _story(stage)
    host.write_preferences(logLevel="debug", directDatagrams=False)
    network.wait_until(lambda: "system" in stage.health("directDatagrams"), "the preference is taken back")
    story.expect_the_same()
    for word in ("explain", "holdBack", "tunnelGuard", "proxySettings", "message"):
        stage.checks.check(f"recorded: {word}", f"\t={word}" in story.text)
    with Recording(stage, "verbatim", "--verbatim") as verbatim:
        stage.courier.run("connect", stage.ipv4(), 80)
    stage.checks.check("names are there where they are asked for", COURIER in verbatim.text, verbatim.text[-2000:])
    for word in ("courier", "198.51.100.", network.PHYSICAL):
        stage.checks.check(f"and replaced otherwise: {word}", word not in story.text)
    with Recording(stage, "soak") as threads:
        _under_threads(stage)
    threads.expect_the_same()
    story.expect_fault_found()
    _full_disk(stage)
    _standing_still(stage)
    stage.stop_daemon()
    network.vpn_down()


class Recording:
    """Of what goes on while it is open."""

    def __init__(self, stage, name: str, *options: str):
        self._stage, self._name = stage, name
        self.path = world.STATE / f"{name}.recording"
        self._command = [str(world.BUILD / "vantryctl"), "record", "--for", "10m", *options, str(self.path)]

    def __enter__(self):
        self._tool = subprocess.Popen(self._command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self._stage.checks.eventually(f"{self._name}: the recording begins",
                                      lambda: (self.path.exists() and self.path.stat().st_size > 0, self.path))
        return self

    def __exit__(self, *_):
        self._tool.send_signal(signal.SIGINT)
        said, _ = self._tool.communicate(timeout=20)
        self._stage.checks.check(f"{self._name}: it ends as it should", self._tool.returncode == 0, said)
        self._stage.checks.equal(f"{self._name}: only its owner reads it",
                                 stat.filemode(self.path.stat().st_mode), "-rw-------")
        self.text = self.path.read_text()

    def expect_the_same(self) -> None:
        said = self._play("replay")
        print("      " + said.stdout.splitlines()[0], flush=True)
        flows = int(re.search(r"(\d+) answers about flows", said.stdout)[1])
        is_same = said.returncode == 0 and flows > 10
        if not is_same:
            shutil.copy(self.path, world.BUILD)
        self._stage.checks.check(f"{self._name}: played without a difference", is_same,
                                 f"{said.stdout}{said.stderr}(kept as {self.path.name} in the build's folder)")

    def expect_fault_found(self) -> None:
        said = self._play("Tests/replay_with_fault")
        self._stage.checks.check(f"{self._name}: a core that forgets blocks is found out",
                                 said.returncode == 1 and "recorded declined, now claimed" in said.stdout, said.stdout)
        forgotten = re.search("notification: recorded .*proxySettings .*; now (?!.*proxySettings)", said.stdout)
        self._stage.checks.check(f"{self._name}: as is that no declined flow is offered again", bool(forgotten), said.stdout)
        number = re.search(r"flow (\d+), proxyFlow: recorded declined", said.stdout)[1]
        why = self._play("replay", "--why", number)
        self._stage.checks.check(f"{self._name}: and the flow is explained",
                                 why.returncode == 0 and '"decidedBy": "block"' in why.stdout, why.stdout)

    def _play(self, program: str, *words: str) -> subprocess.CompletedProcess:
        return subprocess.run([str(world.BUILD / program), str(self.path), *words], text=True, timeout=200,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def _story(stage) -> None:
    stage.expect_physical("direct", stage.courier.run("connect", address := stage.ipv4(), 80), address)
    stage.expect_tunnel("vpn", stage.ledger.run("connect", address := stage.ipv4(), 80), address)
    stage.applications["studio"].run("connect", stage.ipv4(), 80)
    for message in ({"type": "getStatus"}, {"type": "getActiveApps"}, {"type": "unheardOf"}):
        host.send(message)
    stage.expect_physical("explained", stage.courier.run("datagram", address := stage.ipv4(), 8080), address)
    uploads = [stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20) for _ in range(4)]
    for upload in uploads:
        upload.report()
    stage.apply(RULES.but(rules={LEDGER: "direct"}))
    for upload in uploads:
        upload.finish()
    stage.expect_physical("changed", stage.ledger.run("connect", address := stage.ipv4(), 80), address)
    stage.apply(RULES.but(blockedApps=(LEDGER, COURIER)))
    stage.ledger.run("connect", stage.ipv4(), 80)
    stage.courier.run("connect", stage.ipv4(), 7)


def _under_threads(stage) -> None:
    seed = time.time_ns() % 1_000_000
    print(f"      seed {seed}", flush=True)
    draw, crowd = random.Random(seed), soak.Crowd(stage)
    with soak.ShortFlows(stage, seed):
        for number in range(ROUNDS):
            if draw.random() < 0.3:
                soak.flap(draw)
            soak.play_round(stage, draw, f"round {number}", crowd)
    if network.vpn_layout() is None:
        network.vpn_up()


def _full_disk(stage) -> None:
    """A file system of its own, which another file fills."""
    folder = pathlib.Path(world.STATE / "small")
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k", "none", str(folder)], check=True)
    (folder / "other").write_text("all that has room")
    said = subprocess.run([str(world.BUILD / "vantryctl"), "record", "--for", "5s", str(folder / "file")], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    stage.checks.check("a full disk is said", said.returncode == 1 and "No space left on device" in said.stdout,
                       said.stdout)
    subprocess.run(["umount", str(folder)], check=True)


def _standing_still(stage) -> None:
    """A tool that does is given up after ten seconds, says so, and leaves the next one's recording alone."""
    command = [str(world.BUILD / "vantryctl"), "record", "--for", "10m"]
    with subprocess.Popen([*command, str(world.STATE / "still")], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True) as still:
        network.wait_until(lambda: (world.STATE / "still").exists() and (world.STATE / "still").stat().st_size > 0,
                           "it records")
        still.send_signal(signal.SIGSTOP)

        def other(number=iter(range(1000))):
            said = subprocess.run([*command[:2], "--for", "1s", str(world.STATE / f"other{next(number)}")], text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            return said.returncode == 0, said.stdout
        stage.checks.eventually("one that stands still is given up", other, seconds=30)
        with Recording(stage, "next") as following:
            still.send_signal(signal.SIGCONT)
            said, _ = still.communicate(timeout=20)
            stage.checks.check("which it says", still.returncode == 1 and "ended the recording" in said, said)
            stage.courier.run("connect", stage.ipv4(), 80)
        stage.checks.check("the next one goes on", "proxyFlow" in following.text, following.text[-500:])

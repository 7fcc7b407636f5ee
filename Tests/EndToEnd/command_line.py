"""The command-line tool against the running daemon: what it changes takes effect, what it shows is so."""

import json
import subprocess

from vantrylab import host, network, world
from vantrylab.host import Rules

TOOL = world.BUILD / "vantryctl"
COURIER, LEDGER, CHATTER = "com.example.courier", "com.example.ledger", "com.example.chatter"


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(Rules())
    _changes_take_effect(stage)
    _views(stage)
    _the_watch_follows_the_tunnel(stage)
    stage.stop_daemon()
    result = _use_tool("status")
    stage.checks.equal("without a daemon, status says so by its exit code", result.returncode, 3)
    network.vpn_down()


def _use_tool(*words: str) -> subprocess.CompletedProcess:
    return subprocess.run([str(TOOL), *words], capture_output=True, text=True, timeout=20)


def _changes_take_effect(stage) -> None:
    steps = ((("rules", "set", COURIER, "direct"), stage.courier, stage.expect_physical),
             (("rules", "set", LEDGER, "vpn"), stage.ledger, stage.expect_tunnel),
             (("rules", "block", CHATTER), stage.chatter, stage.expect_denied),
             (("rules", "default", "direct"), stage.nobody, stage.expect_physical),
             (("rules", "default", "vpn"), stage.nobody, stage.expect_tunnel),
             (("rules", "unblock", CHATTER), stage.chatter, stage.expect_tunnel),
             (("rules", "fallback", "vpn", "block"), stage.ledger, stage.expect_tunnel),
             (("vpn", "down"), stage.ledger, stage.expect_denied),
             (("vpn", "up"), stage.ledger, stage.expect_tunnel),
             (("rules", "remove", COURIER), stage.courier, stage.expect_tunnel))
    for words, application, expect in steps:
        name = f"vantryctl {' '.join(words)}"
        stage.bring_into_force(
            lambda: stage.checks.equal(f"{name} succeeds", _use_tool(*words).returncode, 0))
        address = stage.ipv4()
        expect(f"{name}: takes effect", application.run("connect", address, 80), address)
    stored = json.loads(host.PREFERENCES.read_text())["protocolConfiguration"]["providerConfiguration"]
    stage.checks.equal("changes last: the preferences hold what the rules file holds",
                       stored, json.loads(host.RULES_FILE.read_text()))


def _views(stage) -> None:
    status = _use_tool("status", "--json")
    stage.checks.check("status is JSON about a running daemon",
                       status.returncode == 0 and isinstance(json.loads(status.stdout), dict), status)
    address = stage.ipv4()
    stage.courier.run("connect", address, 80)
    stage.expect_record("a connection is recorded", address, bundleId=COURIER)
    stage.check_records()
    stage.checks.check("log shows it", address in _use_tool("log").stdout, _use_tool("log").stdout)
    applications = _use_tool("apps").stdout
    stage.checks.check("apps lists its application", COURIER in applications, applications)
    stage.checks.equal("clear succeeds", _use_tool("clear").returncode, 0)
    stage.checks.check("after clear the log is without it", address not in _use_tool("log").stdout)
    running = stage.courier.start("serve")
    identified = _use_tool("identify", str(running.process.pid))
    stage.checks.check("identify names a process", COURIER in identified.stdout, identified)
    running.stop()
    refused = _use_tool("rules", "default", "block")
    stage.checks.check("a default that blocks is refused, with a reason",
                       refused.returncode != 0 and refused.stderr != "", refused)
    checked = _use_tool("check", "--json")
    stage.checks.check("check finds all that the daemon needs", checked.returncode == 0, checked)


def _the_watch_follows_the_tunnel(stage) -> None:
    watch = subprocess.Popen([str(TOOL), "watch"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    for layout in network.LAYOUTS:
        since = stage.daemon.mark()
        network.vpn_down()
        stage.expect_line("watch: the tunnel's end is told", "VPN state updated: connected=false", since)
        address = stage.ipv4()
        stage.expect_denied("watch: the fallback holds", stage.ledger.run("connect", address, 80), address)
        since = stage.daemon.mark()
        network.vpn_up(layout)
        stage.expect_line(f"watch: the tunnel's return is told, {layout}",
                          "VPN state updated: connected=true", since)
        address = stage.ipv4()
        stage.expect_tunnel(f"watch: and the VPN is used, {layout}",
                            stage.ledger.run("connect", address, 80), address)
    watch.terminate()
    watch.wait(5)

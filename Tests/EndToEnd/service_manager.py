"""What we and the machine's managers tell each other: readiness, life and stop, sleep and wake, notices on the desktop.

The bus is a real one with stand-ins for the login manager and the desktop on it; the service manager is this process.
"""

import contextlib
import json
import os
import socket
import subprocess
import threading

from vantrylab import host, network, settings, world
from vantrylab.host import Rules

COURIER, LEDGER, CHATTER = "com.example.courier", "com.example.ledger", "com.example.chatter"
RULES = Rules(rules={COURIER: "direct", LEDGER: "vpn"})
NOTIFY_SOCKET = world.STATE / "notify"
BUS_SOCKET = world.STATE / "bus"
BUS_ADDRESS = f"unix:path={BUS_SOCKET}"
BUS_CONFIGURATION = f"""<busconfig><type>system</type><listen>{BUS_ADDRESS}</listen><auth>EXTERNAL</auth>
<policy context='default'><allow send_destination='*'/><allow receive_sender='*'/><allow own='*'/></policy>
</busconfig>"""
SECONDS_BETWEEN_SIGNS = 0.2


def run(stage) -> None:
    network.spare_carrier_up()
    network.vpn_up()
    _readiness_life_and_stop(stage)
    _sleep_and_wake(stage)
    _the_bus_restarts(stage)
    _notices(stage)


def _readiness_life_and_stop(stage) -> None:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(NOTIFY_SOCKET))
        manager.settimeout(10)
        stage.start_daemon(RULES, environment={
            "NOTIFY_SOCKET": str(NOTIFY_SOCKET), "WATCHDOG_USEC": f"{SECONDS_BETWEEN_SIGNS * 2e6:.0f}"})
        said = [manager.recv(4096).decode() for _ in range(4)]
        stage.checks.equal("the service manager hears once that the daemon is ready", said.count("READY=1"), 1)
        stage.checks.equal("the service manager hears that it lives", said.count("WATCHDOG=1"), 3)
        address = stage.ipv4()
        stage.expect_physical("what is said to be ready is", stage.courier.run("connect", address, 80), address)
        stage.daemon.stand_still()
        _empty(manager)
        manager.settimeout(5 * SECONDS_BETWEEN_SIGNS)
        stage.checks.equal("a daemon that stands still gives no sign", _next(manager), None)
        stage.daemon.go_on()
        stage.checks.equal("a daemon that goes on does", _next(manager), "WATCHDOG=1")
        stage.stop_daemon()
        stage.checks.equal("the service manager hears of the stop last", _empty(manager)[-1:], ["STOPPING=1"])


def _next(manager: socket.socket) -> str | None:
    try:
        return manager.recv(4096).decode()
    except TimeoutError:
        return None


def _empty(manager: socket.socket) -> list[str]:
    """All that has been said so far."""
    manager.setblocking(False)
    said = []
    with contextlib.suppress(BlockingIOError):
        while True:
            said.append(manager.recv(4096).decode())
    return said


def _sleep_and_wake(stage) -> None:
    """The machine may sleep once the daemon is ready; on waking it reads its configuration again."""
    with _bus(), _login_manager() as manager:
        stage.start_daemon(rules=None, environment={"DBUS_SYSTEM_BUS_ADDRESS": BUS_ADDRESS},
                           protocolConfiguration=_configuration({COURIER: "direct"}))
        stage.checks.equal("the daemon asks to be told before the machine sleeps",
                           _heard(manager), "taken\n")
        upload = stage.courier.start("upload", stage.ipv4(), 8080, "--duration", 20)
        upload.report()
        since = stage.daemon.mark()
        _announce(manager, "sleep")
        stage.checks.equal("the machine may sleep soon", _heard(manager), "let go\n")
        stage.expect_line("sleep is logged", "System sleeping...", since)
        host.write_preferences(logLevel="debug", protocolConfiguration=_configuration({LEDGER: "direct"}))
        _announce(manager, "wake")
        stage.expect_line("wake is logged", "System waking...", since)
        stage.checks.equal("and the daemon asks for the next time", _heard(manager), "taken\n")
        stage.expect_line("the configuration is read again", "Loaded 1 routing rules from config", since)
        stage.expect_line("the network is looked at again", "Physical interface detected", since)
        for application, expect in ((stage.ledger, stage.expect_physical), (stage.courier, stage.expect_tunnel)):
            for next_address in (stage.ipv4, stage.ipv6):
                address = next_address()
                expect(f"after waking: {application.identifier} to {address}",
                       application.run("connect", address, 80), address)
        stage.expect_untouched("a relayed upload has gone on", upload)
        host.write_preferences(off=True, protocolConfiguration=_configuration({LEDGER: "direct"}))
        since = stage.daemon.mark()
        _announce(manager, "wake")
        stage.expect_line("switched off, the rules are not read on waking", "Loaded 0 routing rules from config", since)
        address = stage.ipv4()
        stage.expect_tunnel("nor do they hold", stage.ledger.run("connect", address, 80), address)
        stage.stop_daemon()
        stage.checks.equal("a daemon that has ended holds up no sleep", _heard(manager), "let go\n")


def _the_bus_restarts(stage) -> None:
    """Verdicts go on without it, and the daemon is back on it by itself."""
    with _bus(), _login_manager() as manager:
        stage.start_daemon(RULES, environment={"DBUS_SYSTEM_BUS_ADDRESS": BUS_ADDRESS})
        stage.checks.equal("with the bus: the daemon asks to be told of sleep", _heard(manager), "taken\n")
        since = stage.daemon.mark()
    stage.expect_line("without the bus: that is said", "bus", since)
    for application, expect in ((stage.courier, stage.expect_physical), (stage.ledger, stage.expect_tunnel)):
        address = stage.ipv4()
        expect(f"without the bus: {application.identifier}", application.run("connect", address, 80), address)
    with _bus(), _login_manager() as manager:
        stage.checks.equal("the bus is back: the daemon asks to be told of sleep", _heard(manager), "taken\n")
        stage.stop_daemon()


def _configuration(rules: dict[str, str]) -> dict:
    return {"providerBundleIdentifier": "org.quillmere.Vantry.Extension",
            "providerConfiguration": {"rules": rules, "defaultAction": "vpn", "vpnConnected": True}}


def _notices(stage) -> None:
    """What is blocked, and what can't go its way, is told on the desktop once, and a button changes the rule."""
    stage.start_daemon(Rules(rules={COURIER: "direct", LEDGER: "vpn"}, blockedApps=(CHATTER,), vpnFallback="block",
                             directFallback="allow"))
    with settings.running(), _bus(), _on_session_bus("Lab/notice-board") as board:
        _heard(board)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager, _on_session_bus("vantry-notify", manager):
            for _ in range(2):
                stage.chatter.run("connect", stage.ipv4(), 80)
            notice = json.loads(_heard(board))
            stage.checks.equal("a block is told, with a button", (notice["title"], notice["button"]),
                               (f"{CHATTER} was blocked", "Unblock"))
            stage.bring_into_force(lambda: _announce(board, notice["number"]))
            # The second connection, which was blocked too, would have come first.
            stage.checks.equal("what the button did is told", json.loads(_heard(board))["title"], "Done")
            address = stage.ipv4()
            stage.expect_tunnel("the button unblocks", stage.chatter.run("connect", address, 80), address)
            since = stage.daemon.mark()
            network.physical_down()
            stage.expect_line("the loss of the interface is seen", "hysical interface", since)
            stage.courier.run("connect", stage.ipv4(), 80)
            stage.checks.equal("that nothing can go directly is told", json.loads(_heard(board))["title"],
                               f"{COURIER} could not go directly")
            since = stage.daemon.mark()
            network.physical_up()
            stage.expect_line("the interface is seen again", "Physical interface detected", since)
            network.vpn_down()
            stage.expect_line("the tunnel's end is told", "VPN state updated: connected=false", since)
            stage.ledger.run("connect", stage.ipv4(), 80)
            stage.checks.equal("that the VPN's fall stops something is told", json.loads(_heard(board))["title"],
                               f"{LEDGER} waits for the VPN")
    stage.stop_daemon()


@contextlib.contextmanager
def _on_session_bus(program: str, manager: socket.socket | None = None):
    """With a socket to say to that it is ready, once it has."""
    notify = {}
    if manager:
        NOTIFY_SOCKET.unlink(missing_ok=True)
        manager.bind(str(NOTIFY_SOCKET))
        notify = {"NOTIFY_SOCKET": str(NOTIFY_SOCKET)}
    running = subprocess.Popen([str(world.BUILD / program)], text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               env={**os.environ, "DBUS_SESSION_BUS_ADDRESS": BUS_ADDRESS, **notify})
    if manager:
        manager.settimeout(10)
        manager.recv(4096)
    yield running
    running.terminate()
    running.communicate(timeout=10)


@contextlib.contextmanager
def _bus():
    configuration = world.STATE / "bus.conf"
    configuration.write_text(BUS_CONFIGURATION)
    BUS_SOCKET.unlink(missing_ok=True)
    bus = subprocess.Popen(["dbus-daemon", f"--config-file={configuration}", "--nofork"])
    network.wait_until(BUS_SOCKET.exists, "the bus is there")
    yield
    bus.terminate()
    bus.wait(5)


@contextlib.contextmanager
def _login_manager():
    manager = subprocess.Popen([str(world.BUILD / "Lab" / "login-manager"), BUS_ADDRESS], text=True,
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    if manager.stdout.readline() != "ready\n":
        raise RuntimeError("the login manager is not on the bus")
    yield manager
    manager.communicate(timeout=5)


def _heard(manager: subprocess.Popen) -> str:
    """The next thing that a stand-in says; nothing where it is long silent."""
    overdue = threading.Timer(10, manager.kill)
    overdue.start()
    line = manager.stdout.readline()
    overdue.cancel()
    return line


def _announce(manager: subprocess.Popen, what: object) -> None:
    manager.stdin.write(f"{what}\n")
    manager.stdin.flush()

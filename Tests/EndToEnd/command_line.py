"""The command-line tool against the running daemon: what it changes takes effect, what it shows is so."""

import json
import os
import signal
import subprocess
import threading
import time
import uuid

from vantrylab import host, network, settings, terminal, world
from vantrylab.host import Rules

TOOL = world.BUILD / "vantryctl"
COURIER, LEDGER, CHATTER = "com.example.courier", "com.example.ledger", "com.example.chatter"


def run(stage) -> None:
    network.vpn_up()
    stage.start_daemon(Rules())
    with settings.running():
        _changes_take_effect(stage)
        _datagrams(stage)
        _views(stage)
        _sessions(stage)
        _one_command(stage)
        _what_leaves_is_looked_at(stage)
        _following_the_log(stage)
        _identities(stage)
        _machine(stage)
        _the_tunnel_is_followed(stage)
        stage.stop_daemon()
        _without_a_daemon(stage)
    _a_fault_leaves_old_or_new(stage)
    _rules_as_found(stage)
    _logs_as_found(stage)
    _failures_as_found(stage)
    network.vpn_down()


def _use_tool(*words: str, **options) -> subprocess.CompletedProcess:
    options.setdefault("env", {**os.environ, "COLUMNS": "80"})
    return subprocess.run([str(TOOL), *words], capture_output=True, text=True, timeout=20, **options)


def _document(*words: str) -> dict:
    """What a command prints as JSON."""
    return json.loads(_use_tool(*words, "--json").stdout)


def _stored_in_preferences() -> dict:
    return json.loads(host.PREFERENCES.read_text())["protocolConfiguration"]["providerConfiguration"]


def _changes_take_effect(stage) -> None:
    steps = ((("rules", "set", COURIER, "direct"), stage.courier, stage.expect_physical),
             (("rules", "set", LEDGER, "com.example.absent", "vpn"), stage.ledger, stage.expect_tunnel),
             (("rules", "block", CHATTER, "com.example.idle"), stage.chatter, stage.expect_denied),
             (("rules", "default", "direct"), stage.nobody, stage.expect_physical),
             (("rules", "default", "vpn"), stage.nobody, stage.expect_tunnel),
             (("rules", "unblock", CHATTER), stage.chatter, stage.expect_tunnel),
             (("rules", "fallback", "vpn", "block"), stage.ledger, stage.expect_tunnel),
             (("rules", "fallback", "direct", "allow"), stage.courier, stage.expect_physical),
             (("vpn", "down"), stage.ledger, stage.expect_denied),
             (("vpn", "up"), stage.ledger, stage.expect_tunnel),
             (("rules", "remove", COURIER, "com.example.unknown"), stage.courier, stage.expect_tunnel))
    for words, application, expect in steps:
        name = f"vantryctl {' '.join(words)}"
        stage.bring_into_force(
            lambda: stage.checks.equal(f"{name} succeeds", _use_tool(*words).returncode, 0))
        address = stage.ipv4()
        expect(f"{name}: takes effect", application.run("connect", address, 80), address)
        _why_says(stage, name, application, {stage.expect_physical: 10, stage.expect_denied: 11}.get(expect, 0))
        stage.checks.equal(f"{name}: lasts, as the preferences hold what the rules file holds",
                           _stored_in_preferences(), json.loads(host.RULES_FILE.read_text()) if words[0] == "vpn"
                           else {key: value for key, value in json.loads(host.RULES_FILE.read_text()).items()
                                 if key in _stored_in_preferences()})
    stage.checks.equal("all changes together", _document("rules", "show"), {
        "rules": {LEDGER: "vpn", "com.example.absent": "vpn"}, "defaultAction": "vpn", "vpnFallback": "block",
        "directFallback": "allow", "vpnConnected": True, "blockedApps": ["com.example.idle"]})


def _datagrams(stage) -> None:
    if not stage.is_carried_by_kernel():
        return
    stage.bring_into_force(lambda: _use_tool("rules", "set", COURIER, "direct"))
    for word, way, expect, verdict in (("on", "directly", stage.expect_physical, 10),
                                       ("off", "system", stage.expect_tunnel, 0)):
        name = f"vantryctl rules datagrams direct {word}"
        stage.checks.equal(f"{name} succeeds", _use_tool("rules", "datagrams", "direct", word).returncode, 0)
        network.wait_until(lambda: way in stage.health("directDatagrams"), "the daemon has read it")
        address = stage.ipv4()
        expect(f"{name}: takes effect", stage.courier.run("datagram", address, 8080), address)
        shown = _use_tool("why", str(stage.courier.path), f"{address}:8080", "--udp")
        stage.checks.check(f"{name}: why says so", shown.returncode == verdict, shown)
    stage.bring_into_force(lambda: _use_tool("rules", "remove", COURIER))


def _why_says(stage, name: str, application, verdict: int) -> None:
    """What `why` says of a program's file and of a process is what happened to it."""
    running = application.start("serve")
    for subject in (application.path, running.process.pid):
        shown = _use_tool("why", str(subject), stage.ipv4())
        stage.checks.check(f"{name}: why {subject} says so", shown.returncode == verdict, shown)
    running.stop()


def _views(stage) -> None:
    status = _document("status")
    stage.checks.equal("status counts the rules in force and those that are stored",
                       [status[key] for key in ("isRunning", "ruleCount", "storedRuleCount", "blockedCount",
                                                "problems")], [True, 2, 2, 1, []])
    stage.checks.check("status reads well", "running, 2 rules in force" in _use_tool("status").stdout)
    address = stage.ipv4()
    stage.courier.run("connect", address, 80)
    stage.expect_record("a connection is recorded", address, bundleId=COURIER)
    stage.check_records()
    stage.checks.check("log shows it", address in _use_tool("log").stdout, _use_tool("log").stdout)
    stage.checks.equal("clear succeeds", _use_tool("clear").returncode, 0)
    stage.checks.check("after clear the log is without it", address not in _use_tool("log").stdout)
    for _ in range(2):
        address = stage.ipv4()
        stage.ledger.run("connect", address, 80)
    stage.expect_record("another's connections are recorded", address, bundleId=LEDGER)
    stage.check_records()
    seen = [[each[key] for key in ("bundleId", "isActive", "flows", "routes")]
            for each in _document("apps")["applications"]]
    stage.checks.equal("apps has the latest first, and the flows of each",
                       seen, [[COURIER, True, 1, {"vpn": 1}], [LEDGER, True, 2, {"vpn": 2}]])
    host.ACTIVITY_LOG.unlink()
    seen = [[each["bundleId"], each["isActive"], each["flows"]] for each in _document("apps")["applications"]]
    stage.checks.equal("without the log's file, apps has those that the daemon names",
                       sorted(seen), [[COURIER, True, 0], [LEDGER, True, 0]])
    if world.is_root_world():
        stranger = {"user": world.PERSON, "group": world.PERSON, "extra_groups": []}
        stage.checks.equal("a stranger may not clear the log", _use_tool("clear", **stranger).returncode, 4)


# As the terminal shows them, with # for numbers.
TITLE = "vantryctl top VPN: up utun0 TCP connections, bytes since #"
TABLE = [TITLE, "APPLICATION RULE GOES CONN DIRECT OUT IN SENT RECEIVED",
         "com.example.courier direct direct # # # # # #", "com.example.ledger vpn vpn # # # # # #"]
KEYS = "d direct v vpn b block u unblock e explain / filter q quit"
EXPLANATION = [
    TITLE, "A new TCP flow of com.example.ledger is blocked: com.example.ledger is blocked.", "",
    "identifier com.example.ledger, as a program of this name that runs on its own",
    "rule the rule for com.example.ledger is vpn", "block com.example.ledger is blocked", "VPN up",
    "fallback vpn block, direct allow", "interface physical: eth0; the system's own route leads to: utun0"]


def _screens_of_top(stage) -> None:
    """On a real terminal: what `top` shows after each key and in another size, and that the screen comes back."""
    shell = terminal.Terminal(columns=92, lines=14)

    def expect(what: str, body: list[str], *below: str, lines: int = 14) -> None:
        expected = [*body, *[""] * (lines - len(body) - len(below)), *below]
        stage.checks.eventually(f"top: {what}", lambda: (
            terminal.without_amounts(shell.screen()) == expected, "\n".join(shell.screen())), 20)
    shell.type("vantryctl top", "Enter")
    expect("the table", TABLE, "", KEYS)
    shell.type("/")
    shell.type("led")
    expect("a filter is typed", [*TABLE[:2], TABLE[3]], "Only names with: led_", KEYS)
    shell.type("Enter", "b")
    expect("a key blocks what is chosen", [*TABLE[:2], "com.example.ledger block blocked # # # # # #"],
           "Blocked, with all that is named below: new traffic is refused, TCP and UDP, except name", KEYS)
    shell.type("e")
    expect("e explains", EXPLANATION, "", "Any key: back to the table")
    shell.type("q", "u", "/", "BSpace", "BSpace", "BSpace", "Enter")
    expect("the block is lifted, the filter is gone", TABLE, KEYS)
    shell.resize(80, 8)
    # How much of a name is cut depends on the numbers beside it.
    stage.checks.eventually("top: a smaller terminal", lambda: (
        [line[:13] for line in terminal.without_amounts(shell.screen())[2:]] ==
        ["com.example.c", "com.example.l", "", "", "", KEYS[:13]], "\n".join(shell.screen())), 20)
    for end in ("q", "C-c"):
        shell.type(end)
        stage.checks.eventually(f"top: {end} gives the screen back", lambda: (
            shell.screen()[-2:] == ["# vantryctl top", "#"], shell.screen()))
        shell.type("vantryctl top", "Enter")
        shell.await_text("q quit")
    shell.close()


def _sessions(stage) -> None:
    """A direct connection is listed while it is open, with its bytes; one that was refused is said to be."""
    _use_tool("rules", "set", COURIER, "direct")
    address, closed = stage.ipv4(), stage.ipv4()
    running = stage.courier.start("upload", address, 8080, "--duration", 60)
    running.report()

    def listed():
        return [each for each in _document("sessions")["sessions"] if each["host"] == address]
    stage.checks.eventually("sessions lists an open direct connection, with its bytes", lambda: (
        [(each["sent"] > 0, each["phase"], each["identifier"], each["pid"]) for each in listed()] ==
        [(True, "open", COURIER, running.process.pid)], listed()))
    seen = {each["identifier"]: each for each in _document("top")["applications"]}
    stage.checks.check("top counts it, and its rate", seen[COURIER]["directConnections"] == 1 and
                       seen[COURIER]["sentPerSecond"] > 0 and seen[COURIER]["decidedBy"] == "rule", seen)
    other = stage.ledger.start("upload", stage.ipv4(), 8080, "--duration", 60, "--pace", 1)
    other.report()
    _screens_of_top(stage)
    for each in (running, other):
        each.stop()
    stage.courier.run("connect", closed, 4)

    def shown():
        return [line for line in _use_tool("log").stdout.splitlines() if closed in line]
    stage.checks.eventually("log says that a refused direct connection failed", lambda: (
        any("failed" in line for line in shown()), shown()))
    _use_tool("rules", "remove", COURIER)


def _one_command(stage) -> None:
    """A command under a rule of its own, with what it starts; nothing of the rule is left."""
    if subprocess.run(["mount", "-t", "cgroup2", "lab", "/sys/fs/cgroup"], capture_output=True).returncode != 0:
        print("      run: control groups cannot be mounted here")
        return
    before = _stored_in_preferences()
    for way, expect in (("--direct", stage.expect_physical), ("--vpn", stage.expect_tunnel),
                        ("--block", stage.expect_denied)):
        address = stage.ipv4()
        ran = _use_tool("run", way, "--", str(stage.fetch.path), "connect", address, "80")
        expect(f"run {way}", json.loads(ran.stdout.splitlines()[-1]), address)
    stage.checks.equal("a command's status is that of run",
                       _use_tool("run", "--vpn", "--", "sh", "-c", "exit 7").returncode, 7)
    refused = _use_tool("run", "--vpn", "--", str(stage.courier.path), "connect", address, "80")
    stage.checks.check("an application keeps its own rule",
                       COURIER in refused.stderr and refused.returncode == 2, refused)
    stage.checks.equal("no rule is left of it", _stored_in_preferences(), before)
    stage.checks.equal("what was run is no change to take back", (
        _use_tool("undo").returncode, _stored_in_preferences()["rules"].get(COURIER)), (0, "direct"))
    _use_tool("rules", "remove", COURIER)
    _flows_of_its_own(stage)
    subprocess.run(["umount", "/sys/fs/cgroup"], check=True)


def _flows_of_its_own(stage) -> None:
    """`verify` sees each of its flows leave by its rule, and that none does while all rules are switched off."""
    tunnel = network.tunnel_device()
    by = {True: {"direct tcp": ["eth0"], "direct udp": [tunnel], "vpn tcp": [tunnel], "vpn udp": [tunnel],
                 "blocked tcp": [], "blocked udp": []}}
    by[False] = {key: [tunnel] for key in by[True]}
    for is_on, seen in by.items():
        _use_tool("on" if is_on else "off")
        ran = _use_tool("verify", "--json", "--for", "1s", "--to", f"{stage.ipv4()}:80", "--to", f"[{stage.ipv6()}]:80")
        own = json.loads(ran.stdout)["own"]
        stage.checks.check(f"verify, the rules being {'on' if is_on else 'off'}: how its own flows leave", len(own) == 12 and all(
            each["interfaces"] == seen[f"{each['way']} {each['protocol']}"] for each in own), ran)
        stage.checks.equal("and what it finds of that", (ran.returncode, {each["finding"] for each in own}),
                           (0, {"right"}) if is_on else (1, {"right", "WRONG"}))
    _use_tool("on")


def _what_leaves_is_looked_at(stage) -> None:
    """`verify` finds nothing wrong with flows that go by their rules, and a leak that is made on purpose."""
    _use_tool("rules", "set", COURIER, "direct")
    _use_tool("rules", "set", LEDGER, "vpn")
    # Under the other fallback the kernel keeps the leak from leaving.
    _use_tool("rules", "fallback", "vpn", "allow")
    for leaks in (0, 1):
        looking = subprocess.Popen([str(TOOL), "verify", "--only-look", "--for", "1m"], text=True, stdout=subprocess.PIPE)
        looking.stdout.readline()
        address = stage.ipv4()
        if leaks:
            leak = stage.ledger.start("upload", address, 8080, "--bind-device", "eth0", "--duration", 10)
            leak.report()
            lines = [f"LEAKED: {LEDGER} to {address}:8080 by eth0", "leaks: 1"]
        else:
            for application in (stage.courier, stage.ledger):
                application.run("connect", stage.ipv4(), 80)
            lines = [f"{COURIER}: 1 flow, all eth0", f"{LEDGER}: 1 flow, all {network.tunnel_device()}", "(the VPN itself): ", "leaks: none"]
        looking.send_signal(signal.SIGINT)
        found = looking.communicate(timeout=20)[0]
        stage.checks.check(f"verify, with {leaks} flow that leaks",
                           looking.returncode == leaks and all(line in found for line in lines), found)
    leak.stop()
    _use_tool("rules", "fallback", "vpn", "block")
    _use_tool("rules", "remove", COURIER)


def _following_the_log(stage) -> None:
    """Each flow is shown once, also after the log was emptied, or could not be read for a moment."""
    _use_tool("clear")
    following = subprocess.Popen([str(TOOL), "log", "--follow", "--json"], text=True, stdout=subprocess.PIPE)
    overdue = threading.Timer(20, following.kill)
    overdue.start()
    harms = {2: lambda: _use_tool("clear"), 4: lambda: host.write_whole(host.ACTIVITY_LOG, "{")}
    ours = []
    # A flow of before, which was offered again as the rules changed, may be shown as well.
    shown = (address for line in following.stdout if (address := json.loads(line)["destinationIp"]) in ours)
    for number in range(5):
        harms.get(number, lambda: None)()
        ours.append(stage.ipv4())
        stage.courier.run("connect", ours[-1], 80)
        stage.checks.equal(f"log --follow shows flow {number + 1}", next(shown, None), ours[-1])
    following.terminate()
    stage.checks.equal("log --follow shows nothing twice", following.communicate()[0], "")
    overdue.cancel()


def _identities(stage) -> None:
    for application in (stage.courier, stage.render, stage.fetch, stage.grab):
        running = application.start("serve")
        for subject in (running.process.pid, application.path):
            stage.checks.equal(f"identify {subject}", _document("identify", str(subject))["bundleId"],
                               application.identifier)
        running.stop()
    image = world.APPLICATIONS / "Tool.AppImage"
    image.write_bytes(b"\x7fELF" + bytes(4) + b"AI\x02")
    stage.checks.equal("identify an AppImage", _document("identify", str(image))["bundleId"], "/srv/Tool-AppImage")
    for subject in ("/tmp/missing", "/tmp", "999999999", "-0x1"):
        stage.checks.check(f"identify {subject}: there is no such thing", _use_tool("identify", subject).returncode)


def _machine(stage) -> None:
    refused = _use_tool("rules", "default", "block")
    stage.checks.check("a default that blocks is refused, with a reason",
                       refused.returncode != 0 and refused.stderr != "", refused)
    before = _ruleset()
    checked = _use_tool("check", "--json")
    stage.checks.equal("check finds all that the daemon needs", checked.returncode, 0)
    verdicts = {each["subject"]: each["verdict"] for each in json.loads(checked.stdout)["findings"]}
    stage.checks.check("check answers for every subject", len(verdicts) == 16, checked.stdout)
    stage.checks.equal("check says that programs of a process namespace are not noted",
                       verdicts.get("naming programs"), "warning")
    stage.checks.equal("check finds no rules that clash with ours", verdicts.get("redirects"), "good")
    stage.checks.equal("check leaves nothing behind", _ruleset(), before)
    subprocess.run(["nft", "table ip foreign { chain out { type nat hook output priority -90; "
                    "tcp dport 8888 redirect to :8889; }; }"], check=True)
    found = _document("check")["findings"]
    stage.checks.check("check finds a rule that clashes with ours",
                       any("ip foreign out" in each["detail"] for each in found), found)
    subprocess.run(["nft", "delete", "table", "ip", "foreign"], check=True)
    shown = _use_tool("check")
    stage.checks.check("check fits a terminal", _fits_a_terminal(shown), shown)


def _ruleset() -> str:
    return subprocess.run(["nft", "list", "ruleset"], capture_output=True, text=True, check=True).stdout


def _the_tunnel_is_followed(stage) -> None:
    _use_tool("vpn", "follow")
    for layout in network.LAYOUTS:
        since = stage.daemon.mark()
        network.vpn_down()
        stage.expect_line("the tunnel's end is told", "VPN state updated: connected=false", since)
        address = stage.ipv4()
        stage.expect_denied("the fallback holds", stage.ledger.run("connect", address, 80), address)
        since = stage.daemon.mark()
        network.vpn_up(layout)
        stage.expect_line(f"the tunnel's return is told, {layout}", "VPN state updated: connected=true", since)
        address = stage.ipv4()
        stage.expect_tunnel(f"and the VPN is used, {layout}", stage.ledger.run("connect", address, 80), address)
    _use_tool("vpn", "follow", "--interface", "wgg")
    stage.checks.check("an interface that isn't there is said in status", "wgg is not there" in _use_tool("status").stdout)
    _use_tool("vpn", "follow")


def _a_fault_leaves_old_or_new(stage) -> None:
    """Each call that changes a file fails in its turn, or the service ends in it, in the middle of a change."""
    fault = world.STATE / "fault"
    service = settings.start(fault)
    for how in ("fail", "end"):
        for number in range(1, 100):
            before = _stored_in_preferences()["rules"]
            after = before | {f"com.example.{how}{number}": "direct"}
            fault.write_text(f"{number} {how}")
            _use_tool("rules", "set", f"com.example.{how}{number}", "direct")
            if not (happened := not fault.exists()):
                fault.unlink()
            elif how == "end":
                service.wait(5)
                service = settings.start(fault)
            for name, rules in (("preferences", _stored_in_preferences()["rules"]),
                                ("rules file", json.loads(host.RULES_FILE.read_text())["rules"])):
                stage.checks.check(f"{how} at call {number}: the {name} are the old or the new ones",
                                   rules in (before, after), rules)
            if not happened:
                break
        stage.checks.check(f"every call was to {how}, {number - 1} of them", number > 10)
        settings.stop(service)
        service = settings.start(fault)
        stage.checks.equal("then the rules file says what the preferences say",
                           json.loads(host.RULES_FILE.read_text())["rules"], _stored_in_preferences()["rules"])
    leftovers = [each for each in [*host.RULES_FILE.parent.iterdir(), *host.PREFERENCES.parent.iterdir()]
                 if ".new-" in each.name]
    stage.checks.equal("nothing is left over", leftovers, [])
    settings.stop(service)


def _without_a_daemon(stage) -> None:
    for words, says in ((("status",), "not running"), (("clear",), "systemctl start vantryd")):
        result = _use_tool(*words)
        stage.checks.check(f"without a daemon, {words[0]} says so, by its exit code too",
                           result.returncode == 3 and says in result.stdout + result.stderr, result)
    stage.checks.check("without a daemon, apps says so", "not running" in _use_tool("apps").stderr)


def _entry(application: str, time: int, **fields) -> dict:
    return {"id": str(uuid.uuid4()).upper(), "timestamp": time, "bundleId": application, "appName": application,
            "routingDecision": "vpn", "isVpnConnected": True, **fields}


def _fits_a_terminal(shown: subprocess.CompletedProcess) -> bool:
    return shown.returncode == 0 and max(map(len, shown.stdout.splitlines())) <= 80


def _rules_as_found(stage) -> None:
    """The table says what a rule comes to."""
    host.PREFERENCES.unlink()
    host.write_whole(host.RULES_FILE, json.dumps({
        "rules": {"org.a": "direct", "org.a.deep": "direct", "org.b": "direct", "org.c": "block"},
        "blockedApps": ["org.a"]}))
    with settings.running():
        shown = _use_tool("rules")
    stage.checks.equal("rules: the table", shown.stdout.splitlines()[:6], [
        "APPLICATION   ROUTE    NOTE",
        "org.a         blocked  its rule, direct, waits for unblock",
        "org.a.deep    direct   blocked with org.a",
        "org.b         direct",
        'org.c         vpn      a rule "block" blocks nothing: use rules block',
        "(all others)  vpn"])
    stage.checks.check("rules: fits a terminal", _fits_a_terminal(shown), shown)
    for words in ((), ("rules",), ("rules", "set"), ("vpn", "follow")):
        shown = _use_tool(*words, "--help")
        stage.checks.check(f"{' '.join(words)} --help: fits a terminal", _fits_a_terminal(shown), shown)


def _logs_as_found(stage) -> None:
    """Whatever a log holds is shown in a terminal's width, and nothing that acts on the terminal."""
    host.ACTIVITY_LOG.unlink(missing_ok=True)
    stage.checks.equal("log: no file", _use_tool("log").stdout, "No flows.\n")
    there = {"actualRoute": "direct", "destinationPort": 443, "protocolType": "tcp"}
    host.write_whole(host.ACTIVITY_LOG, json.dumps({"entries": [
        _entry("org.\x1b[2Jevil\u009b\u202e", 1, destinationIp="2001:db8::1", **there), _entry("org.bare", 2),
        _entry("x" * 300, 3, destinationIp="203.0.113.7", **there)]}))
    shown = _use_tool("log")
    stage.checks.check("log: fits a terminal", _fits_a_terminal(shown), shown)
    stage.checks.check("log: does nothing to the terminal", "\x1b" not in shown.stdout and
                       "org.?[2Jevil??" in shown.stdout and "[2001:db8::1]:443" in shown.stdout, shown)
    stage.checks.check("log: in a pipe nothing is cut", "x" * 300 in _use_tool("log", env=os.environ).stdout)
    stage.checks.equal("log: the document has all of it", _document("log")["entries"][2]["bundleId"], "x" * 300)
    stage.checks.check("log: in a pipe nothing is cut", "x" * 300 in _use_tool("log", env=os.environ).stdout)
    host.write_whole(host.ACTIVITY_LOG, json.dumps({"entries": [
        _entry("org.a.helper", 2), _entry("org.ab", 3), _entry("org.a", 4), _entry("org.a", 1)]}))
    for words, times in ((("-n", "1"), [4]), (("--app", "org.a", "-n", "2"), [2, 4]), (("--app", "org.a"), [1, 2, 4])):
        stage.checks.equal(f"log {' '.join(words)}",
                           [each["timestamp"] for each in _document("log", *words)["entries"]], times)
    for content in ("", "[]", '{"entries":[{"id":"x"}]}'):
        host.write_whole(host.ACTIVITY_LOG, content)
        stage.checks.equal(f"log and apps: a file that holds {content!r} is no log",
                           [_use_tool(word).returncode for word in ("log", "apps")], [1, 1])
    host.ACTIVITY_LOG.unlink()


def _failures_as_found(stage) -> None:
    stage.checks.check("failures: none", "No direct connection" in _use_tool("failures").stdout)
    host.write_whole(host.FAILURES, json.dumps([7, {}, {"bundleId": "org.a", "host": "203.0.113.7",
                                                        "timestamp": "2026-11-18T09:37:00Z"}]))
    shown = _use_tool("failures").stdout
    stage.checks.check("failures: in a table", "2026-11-18T09:37:00Z  org.a" in shown, shown)
    stage.checks.equal("failures: what is none is left out", len(_document("failures")["failures"]), 2)
    host.write_whole(host.FAILURES, "damaged")
    stage.checks.equal("failures: a damaged file is said to be one, and can be emptied",
                       [_use_tool("failures", *words).returncode for words in ((), ("--clear",))], [1, 0])
    stage.checks.equal("failures: the file is empty", host.failures(), [])

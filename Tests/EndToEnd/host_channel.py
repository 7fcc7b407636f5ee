"""The host application's side: messages, files, preferences, and who may use them."""

import os
import shutil
import stat

from vantrylab import host, network, world
from vantrylab.host import Rules

COURIER, LEDGER, CHATTER = "com.example.courier", "com.example.ledger", "com.example.chatter"
RULES = Rules(rules={COURIER: "direct", LEDGER: "vpn"})


def run(stage) -> None:
    network.vpn_up()
    _preferences_alone(stage)
    _before_the_host_has_spoken(stage)
    _messages(stage)
    _activity_log_file(stage)
    _untrusted_rules_files(stage)
    _protected_vpn_client(stage)
    _log_level(stage)
    _places_that_are_removed(stage)
    network.vpn_down()


def _preferences_alone(stage) -> None:
    """A provider configuration is in force when there is no rules file; the file wins key by key."""
    configuration = {"rules": {COURIER: "direct"}, "defaultAction": "vpn", "vpnConnected": True,
                     "blockedApps": [CHATTER]}
    stage.start_daemon(rules=None, protocolConfiguration={
        "providerBundleIdentifier": "org.quillmere.Vantry.Extension",
        "providerConfiguration": configuration})
    address = stage.ipv4()
    # What they block is blocked without anybody's post.
    network.wait_until(lambda: stage.daemon.wait_for("Blocked apps updated: +1"), "the blocked list is pushed", 1)
    stage.expect_denied("blocked by the preferences", stage.chatter.run("connect", address, 80), address)
    address = stage.ipv4()
    stage.expect_physical("rules from the preferences", stage.courier.run("connect", address, 80), address)
    stage.checks.equal("status counts them", host.send({"type": "getStatus"}),
                       {"isActive": True, "ruleCount": 1})
    stage.apply(Rules(rules={LEDGER: "direct"}))
    for application, expect in ((stage.ledger, stage.expect_physical), (stage.courier, stage.expect_tunnel)):
        address = stage.ipv4()
        expect(f"the rules file wins: {application.identifier}",
               application.run("connect", address, 80), address)
    stage.stop_daemon()


def _before_the_host_has_spoken(stage) -> None:
    """Rules that came by a message alone: until the VPN's state is known, its applications are denied."""
    stage.start_daemon(rules=None)
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        stage.expect_tunnel(f"no rules: {address}", stage.ledger.run("connect", address, 80), address)
    stage.checks.equal("rules by a message", host.send({"type": "reload", "rules": RULES.rules}),
                       {"success": {}})
    since = stage.daemon.mark()
    host.post()
    stage.expect_line("a notification without a file puts them under watch", "Monitoring updated: +1", since)
    for next_address in (stage.ipv4, stage.ipv6):
        for words, port in (("connect", 80), ("datagram", 53)):
            address, since = next_address(), stage.daemon.mark()
            name = f"VPN's state unknown: {words} to {address}"
            stage.expect_denied(name, stage.ledger.run(words, address, port), address)
            stage.expect_line(f"{name}: logged", f"DROP (uninitialized): {LEDGER}", since)
        for application, expect in ((stage.courier, stage.expect_physical), (stage.nobody, stage.expect_tunnel)):
            address = next_address()
            expect(f"VPN's state unknown: {application.identifier} to {address}",
                   application.run("connect", address, 80), address)
    stage.apply(RULES)
    address = stage.ipv4()
    stage.expect_tunnel("VPN's state known", stage.ledger.run("connect", address, 80), address)
    stage.stop_daemon()


def _messages(stage) -> None:
    stage.start_daemon(RULES)
    checks = stage.checks
    checks.equal("status", host.send({"type": "getStatus"}), {"isActive": True, "ruleCount": 2})
    stage.courier.run("connect", stage.ipv4(), 80)
    stage.ledger.run("connect", stage.ipv4(), 80)
    active = host.send({"type": "getActiveApps"})
    checks.check("active applications", {COURIER, LEDGER} <= set(active["bundleIds"]), active)

    checks.equal("reload", host.send({"type": "reload", "rules": {COURIER: "vpn"}}), {"success": {}})
    address = stage.ipv4()
    stage.expect_tunnel("reload takes effect for the next connection",
                        stage.courier.run("connect", address, 80), address)
    checks.equal("reload without rules", host.send({"type": "reload"}), {"success": {}})
    checks.equal("reload without rules changes none", host.send({"type": "getStatus"}),
                 {"isActive": True, "ruleCount": 1})
    for text in ('{"type":"unheardOf"}', "no JSON", "[]", '{"type":"getStatus","rules":{"a":1}}'):
        reply = host.send(text)
        checks.check(f"{text} is answered with an error", list(reply or {}) == ["error"], reply)

    stage.expect_record("before clearing there is a record", address, bundleId=COURIER)
    stage.check_records()
    checks.equal("clear", host.send({"type": "clearActivityLog"}), {"success": {}})
    checks.equal("cleared: nobody is active", host.send({"type": "getActiveApps"}), {"bundleIds": []})
    stage.stop_daemon()


def _activity_log_file(stage) -> None:
    host.ACTIVITY_LOG.unlink(missing_ok=True)
    stage.start_daemon(RULES)
    address = stage.ipv4()
    stage.courier.run("connect", address, 80)
    stage.expect_record("the activity log is written", address, bundleId=COURIER)
    stage.check_records()
    mode = stat.S_IMODE(host.ACTIVITY_LOG.stat().st_mode)
    stage.checks.equal("the activity log can be read by all and written by its owner", oct(mode), "0o644")
    # A link in its place must not lead the daemon to write elsewhere.
    victim = world.STATE / "victim"
    victim.write_text(untouched := '{"entries":[]}')
    host.ACTIVITY_LOG.unlink()
    host.ACTIVITY_LOG.symlink_to(victim)
    address = stage.ipv4()
    stage.courier.run("connect", address, 80)
    stage.expect_record("the activity log is written again", address, bundleId=COURIER)
    stage.check_records()
    stage.checks.equal("a link in the log's place is not followed", victim.read_text(), untouched)
    stage.stop_daemon()


def _untrusted_rules_files(stage) -> None:
    """A rules file that a stranger could have written is as good as none, and a line says why."""
    stage.start_daemon(RULES)

    def writable_by_all():
        os.chmod(host.RULES_FILE, 0o666)

    def a_link():
        other = host.RULES_FILE.with_name("elsewhere.json")
        os.replace(host.RULES_FILE, other)
        host.RULES_FILE.symlink_to(other)

    def a_pipe():
        host.RULES_FILE.unlink()
        os.mkfifo(host.RULES_FILE)

    def a_folder():
        host.RULES_FILE.unlink()
        host.RULES_FILE.mkdir()

    cases = [("writable by all", "everybody may write to it", writable_by_all),
             ("a link", "it is a symbolic link", a_link), ("a pipe", "it is not a regular file", a_pipe),
             ("a folder", "it is not a regular file", a_folder)]
    if world.is_root_world():
        cases.append(("a stranger's", "its owner, user 4711,", lambda: os.chown(host.RULES_FILE, 4711, 4711)))
    for name, reason, spoil in cases:
        host.write_rules(RULES.but(rules={COURIER: "vpn"}))
        spoil()
        since = stage.daemon.mark()
        host.post()
        stage.expect_line(f"rules file {name}: not read", "No rules file found", since)
        stage.expect_line(f"rules file {name}: a line says why",
                          f"The file {host.RULES_FILE} is not trusted: {reason}", since)
        address = stage.ipv4()
        stage.expect_physical(f"rules file {name}: the rules stay in force",
                              stage.courier.run("connect", address, 80), address)
        host.RULES_FILE.rmdir() if host.RULES_FILE.is_dir() else host.RULES_FILE.unlink()
    stage.stop_daemon()


def _protected_vpn_client(stage) -> None:
    """The program of a configured tunnel is left alone, whatever the rules say."""
    stage.start_daemon(RULES, tunnelManagers=[{"providerBundleIdentifier": f"{COURIER}.tunnel"}])
    stage.expect_line("the VPN client is discovered", f"Discovered VPN client: {COURIER}")
    address = stage.ipv4()
    stage.expect_tunnel("a VPN client's connection is left alone",
                        stage.courier.run("connect", address, 80), address)
    stage.recorded_application = stage.ledger
    stage.expect_no_record("a VPN client's connection leaves no record", address)
    stage.stop_daemon()
    stage.recorded_application = stage.courier


def _log_level(stage) -> None:
    """It follows the preferences at once; what cannot be understood changes nothing."""
    stage.start_daemon(RULES)

    def levels() -> set[str]:
        since = stage.daemon.mark()
        stage.courier.run("connect", stage.ipv4(), 80)
        return {line.level for line in stage.daemon.lines(since)}

    def remove_the_folder():
        host.PREFERENCES.parent.rename(host.PREFERENCES.parent.with_name("elsewhere"))
        network.wait_until(host.PREFERENCES.parent.exists, "the folder is there again")

    for name, change, expected in (
            ("errors only", lambda: host.write_preferences(logLevel="error"), set()),
            ("preferences and their folder removed", remove_the_folder, {"info"}),
            ("all", lambda: host.write_preferences(logLevel="debug"), {"info", "debug"}),
            ("half a document", lambda: host.write_whole(host.PREFERENCES, "{"), {"info", "debug"}),
            ("no word", lambda: host.write_preferences(logLevel=7), {"info"})):
        change()
        stage.checks.eventually(f"log level: {name}", lambda: ((seen := levels()) == expected, seen))
    stage.stop_daemon()


def _places_that_are_removed(stage) -> None:
    """Somebody cleans up where the host application and the daemon meet: they meet there again."""
    stage.start_daemon(RULES)
    folder = host.MESSAGE_SOCKET.parent

    def access():
        return {place.name: (oct(status.st_mode), status.st_uid, status.st_gid)
                for place in (folder, host.MESSAGE_SOCKET, host.NOTIFICATIONS)
                for status in [place.stat()]}
    before = access()
    for name, remove in (("the message socket", host.MESSAGE_SOCKET.unlink),
                         ("the message socket's name", lambda: host.MESSAGE_SOCKET.rename(folder / "other")),
                         ("all that is there", lambda: shutil.rmtree(folder, ignore_errors=True)),
                         ("the folder", lambda: os.rename(folder, world.STATE / "taken-away"))):
        since = stage.daemon.mark()
        remove()
        stage.expect_line(f"{name} is removed: the daemon says what it did",
                          f"{host.MESSAGE_SOCKET} was missing and has been made", since)
        stage.checks.equal(f"{name} is removed: messages are answered", host.send({"type": "getStatus"}),
                           {"isActive": True, "ruleCount": 2})
        stage.checks.eventually(f"{name} is removed: all is there with its owners and modes",
                                lambda: (host.NOTIFICATIONS.exists() and access() == before, before))
        lines = [line for line in stage.daemon.lines(since) if f"{host.MESSAGE_SOCKET} was missing" in line.text]
        stage.checks.equal(f"{name} is removed: one line", len(lines), 1)
    stage.expect_line("the folder is removed: a post that may be lost with it is made up for",
                      "Received rules-changed Darwin notification", since)
    stage.apply(RULES.but(rules={COURIER: "vpn"}))
    address = stage.ipv4()
    stage.expect_tunnel("the folder is removed: rules are heard of", stage.courier.run("connect", address, 80),
                        address)
    for name, remove in (("removed", lambda: shutil.rmtree(host.NOTIFICATIONS)),
                         ("moved", lambda: host.NOTIFICATIONS.rename(folder / "elsewhere"))):
        since = stage.daemon.mark()
        remove()
        stage.expect_line(f"the notifications' folder is {name}: a post that may be lost with it is made up for",
                          "Received rules-changed Darwin notification", since)
        for rules, expect in ((RULES, stage.expect_physical), (Rules(rules={COURIER: "vpn"}), stage.expect_tunnel)):
            stage.apply(rules)
            address = stage.ipv4()
            expect(f"the notifications' folder is {name}: rules are heard of",
                   stage.courier.run("connect", address, 80), address)
    stage.stop_daemon()

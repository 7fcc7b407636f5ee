"""Whose a connection is: every kind of program, however it was started, meets its own rule."""

import concurrent.futures
import dataclasses
import os
import pathlib
import subprocess

from vantrylab import applications, network, private_files, world
from vantrylab.applications import Application, Running
from vantrylab.host import Rules

STUDIO, SKETCH, BROWSER = "com.example.studio", "com.example.sketch", "org.example.browser"


def run(stage) -> None:
    network.vpn_up()
    browser = _install_browser()
    stage.start_daemon()
    _bundles_and_what_is_inside(stage)
    _whoever_runs_it(stage)
    _installed_application(stage, browser)
    _child_outside_its_bundle(stage)
    _ordinary_programs(stage)
    _blocked_ordinary_program(stage)
    _where_root_may_not_look(stage)
    _control_group(stage)
    _unusual_places(stage)
    _replaced_while_it_runs(stage)
    _same_process_other_program(stage)
    _many_at_once(stage)
    stage.stop_daemon()
    network.vpn_down()


def _expect_way(stage, name: str, expect, *programs: Application) -> None:
    """Runs the last program, each of the others having started the next."""
    for next_address in (stage.ipv4, stage.ipv6):
        address = next_address()
        words: list[object] = ["connect", address, 80]
        for program in reversed(programs[1:]):
            words = ["spawn", program.path, *words]
        expect(f"{name}, {address}", programs[0].run(*words), address)


def _bundles_and_what_is_inside(stage) -> None:
    family = (("the bundle's own program", stage.studio), ("a service inside it", stage.render),
              ("an application inside it", stage.updater))
    for rules, expect in ((Rules(rules={STUDIO: "direct"}), stage.expect_physical),
                          (Rules(rules={STUDIO: "vpn"}), stage.expect_tunnel),
                          (Rules(blockedApps=(STUDIO,)), stage.expect_denied)):
        stage.apply(rules)
        word = rules.rules.get(STUDIO, "blocked")
        for name, program in family:
            _expect_way(stage, f"{word}: {name}", expect, program)
            _expect_way(stage, f"{word}: {name}, started by the bundle", expect, stage.studio, program)
        _expect_way(stage, f"{word}: another bundle is not concerned", stage.expect_tunnel, stage.courier)


def _whoever_runs_it(stage) -> None:
    """A system account's applications are applications; its tools are no one's business."""
    if not world.is_root_world():
        return
    stage.apply(Rules(rules={"com.example.courier": "direct"}, blockedApps=(STUDIO, stage.fetch.identifier)))
    for program, expect in ((stage.studio, stage.expect_denied), (stage.courier, stage.expect_physical),
                            (stage.fetch, stage.expect_tunnel)):
        address = stage.ipv4()
        expect(f"run by root: {program.identifier}", program.run("connect", address, 80, user=None), address)


def _install_browser() -> Application:
    program = applications.make_ordinary(world.APPLICATIONS / "opt/browser/browser", 0)
    if not world.is_root_world():
        return program
    entries = pathlib.Path("/usr/local/share/applications")
    entries.mkdir()
    (entries / f"{BROWSER}.desktop").write_text(
        f"[Desktop Entry]\nType=Application\nName=Browser\nExec={program.path} %u\n")
    return Application(program.path, BROWSER)


def _installed_application(stage, browser: Application) -> None:
    """Known by its .desktop file, and no one's part, no matter who starts it."""
    stage.apply(Rules(rules={browser.identifier: "direct"}, blockedApps=(STUDIO,)))
    _expect_way(stage, "direct: an installed application", stage.expect_physical, browser)
    if not world.is_root_world():
        return
    _expect_way(stage, "and started by a blocked one", stage.expect_physical, stage.studio, browser)
    _expect_way(stage, "and what it starts", stage.expect_physical, browser, stage.sync)


def _child_outside_its_bundle(stage) -> None:
    stage.apply(Rules(rules={STUDIO: "direct"}))
    _expect_way(stage, "direct: a program outside follows the bundle that started it",
                stage.expect_physical, stage.studio, stage.sync)
    _expect_way(stage, "direct: also over a program between them",
                stage.expect_physical, stage.studio, stage.fetch, stage.sync)
    _expect_way(stage, "direct: the same program on its own does not", stage.expect_tunnel, stage.sync)
    stage.apply(Rules(blockedApps=(STUDIO,)))
    _expect_way(stage, "blocked: a program outside follows the bundle that started it",
                stage.expect_denied, stage.studio, stage.sync)
    _expect_way(stage, "blocked: the same program on its own does not", stage.expect_tunnel, stage.sync)


def _ordinary_programs(stage) -> None:
    named = (stage.fetch, stage.fetch2, stage.grab)
    for program in named:
        stage.apply(Rules(rules={program.identifier: "direct"}))
        _expect_way(stage, f"direct: {program.identifier}", stage.expect_physical, program)
        for other in named:
            if other is not program:
                _expect_way(stage, f"direct: {program.identifier} is not {other.identifier}",
                            stage.expect_tunnel, other)
    stage.apply(Rules(rules={stage.fetch.identifier: "direct"}))
    _expect_way(stage, "direct: the tool that a script runs", stage.expect_physical, stage.report)
    _expect_way(stage, "direct: what an ordinary program starts is itself",
                stage.expect_tunnel, stage.fetch, stage.grab)


def _blocked_ordinary_program(stage) -> None:
    """The block is not escaped by being started elsewhere, and reaches no one else."""
    stage.apply(Rules(blockedApps=(stage.fetch.identifier,)))
    _expect_way(stage, "blocked: on its own", stage.expect_denied, stage.fetch)
    _expect_way(stage, "blocked: from a script", stage.expect_denied, stage.report)
    _expect_way(stage, "blocked: from another program", stage.expect_denied, stage.grab, stage.fetch)
    _expect_way(stage, "blocked: what it starts is not", stage.expect_tunnel, stage.fetch, stage.grab)
    _expect_way(stage, "blocked: a like name is not", stage.expect_tunnel, stage.fetch2)
    address = stage.ipv4()
    detached = Application(stage.fetch.path, stage.fetch.identifier)
    report = Running(["setsid", "--wait", str(detached.path), "connect", address, "80"],
                     world.PERSON).finish()
    stage.expect_denied("blocked: in a session of its own", report, address)


def _where_root_may_not_look(stage) -> None:
    """A program on a person's own file system has a name all the same."""
    if not world.is_root_world():
        return
    folder = world.APPLICATIONS / "home/person/remote"
    with private_files.mounted(folder, applications.DEMO_CLIENT) as is_mounted:
        if not is_mounted:
            print("      a file system of a person's own: this kernel has none")
            return
        program = Application(folder / "tool", str(folder / "tool"))
        stage.checks.check("not even root may look at it", not os.access(program.path, os.F_OK))
        for rules, expect in ((Rules(rules={program.identifier: "direct"}), stage.expect_physical),
                              (Rules(blockedApps=(program.identifier,)), stage.expect_denied)):
            stage.apply(rules)
            _expect_way(stage, "a program where root may not look", expect, program)


def _control_group(stage) -> None:
    group = _make_control_group(f"app-desktop-{SKETCH}-4711.scope")
    if group is None:
        print("      a control group's application: an ordinary user may not make control groups here")
        return
    for rules, expect in ((Rules(rules={SKETCH: "direct"}), stage.expect_physical),
                          (Rules(blockedApps=(SKETCH,)), stage.expect_denied)):
        stage.apply(rules)
        word = rules.rules.get(SKETCH, "blocked")
        for name, words in (("", []), (" and what it starts", ["spawn", str(stage.grab.path)])):
            address = stage.ipv4()
            script = f'echo $$ > {group}/cgroup.procs && exec "$@"'
            command = ["sh", "-c", script, "sh", *_as_person(), str(stage.sync.path), *words,
                       "connect", address, "80"]
            expect(f"{word}: an application by its control group{name}",
                   Running(command, None).finish(), address)
        _expect_way(stage, f"{word}: the same program outside the group is not",
                    stage.expect_tunnel, stage.sync)
    subprocess.run(["rmdir", group], check=True)


def _make_control_group(name: str) -> str | None:
    """A group below the world's own; None where the machine lets us make none."""
    root = world.STATE / "control-groups"
    root.mkdir(exist_ok=True)
    mounted = subprocess.run(["mount", "-t", "cgroup2", "lab", str(root)], capture_output=True)
    if mounted.returncode != 0 or subprocess.run(["mkdir", str(root / name)],
                                                 capture_output=True).returncode != 0:
        return None
    return str(root / name)


def _as_person() -> list[str]:
    if not world.is_root_world():
        return []
    return ["setpriv", f"--reuid={world.PERSON}", f"--regid={world.PERSON}", "--clear-groups"]


def _same_process_other_program(stage) -> None:
    stage.apply(Rules(rules={"com.example.courier": "direct", "com.example.ledger": "vpn"},
                      blockedApps=("com.example.chatter",)))
    process = stage.ledger.start("serve")
    address = stage.ipv4()
    stage.expect_tunnel("a process before it becomes another program",
                        process.ask("connect", address, 80), address)
    address = stage.ipv4()
    process.tell("become", stage.courier.path, "connect", address, 80)
    stage.expect_physical("and afterwards", process.finish(), address)
    for application, expect in ((stage.courier, stage.expect_physical),
                                (stage.ledger, stage.expect_tunnel), (stage.chatter, stage.expect_denied)):
        address = stage.ipv4()
        expect(f"a forked child of {application.identifier}",
               application.run("connect", address, 80, "--in-child"), address)


def _unusual_places(stage) -> None:
    """A bundle behind a folder that only looks like one; names that are no text, or look like a remark."""
    folder = world.APPLICATIONS / "odd"
    (folder / "Old.app").mkdir(parents=True)
    (folder / "Old.app" / "readme").write_text("not a bundle")
    bundle = applications.make_bundle(folder / "Old.app" / "Inner.app", "com.example.inner")
    ill_named = applications.make_ordinary(folder / os.fsdecode(b"dir.d/tool\xff.x"), world.PERSON)
    ill_named = dataclasses.replace(ill_named, identifier=f"{folder}/dir-d/tool\\xff-x")
    remark = applications.make_ordinary(folder / "tool (deleted)", 0)
    for program in (bundle, ill_named, remark):
        stage.apply(Rules(rules={program.identifier: "direct"}))
        _expect_way(stage, f"direct: {program.identifier}", stage.expect_physical, program)
    stage.apply(Rules(rules={bundle.identifier: "direct"}))
    _expect_way(stage, f"direct: what {bundle.identifier} starts", stage.expect_physical, bundle, stage.sync)


def _replaced_while_it_runs(stage) -> None:
    """As an update does it: what runs is still what it was."""
    stage.apply(Rules(rules={stage.fetch.identifier: "direct"}))
    process = stage.fetch.start("serve")
    content = stage.fetch.path.read_bytes()
    stage.fetch.path.unlink()
    for name in ("removed", "replaced"):
        address = stage.ipv4()
        stage.expect_physical(f"direct: a program whose file was {name}", process.ask("connect", address, 80), address)
        stage.fetch.path.write_bytes(content)
        stage.fetch.path.chmod(0o755)
    process.stop()


def _many_at_once(stage) -> None:
    """Short-lived processes of three applications side by side, streams and datagrams."""
    @dataclasses.dataclass
    class Attempt:
        application: Application
        words: tuple[str, ...]
        address: str
        report: dict = dataclasses.field(default_factory=dict)

        def make(self) -> None:
            self.report = self.application.run(self.words[0], self.address, 5353 if "datagram" in self.words
                                               else 80, *self.words[1:])

    attempts = [Attempt(application, words, stage.ipv4() if number % 2 else stage.ipv6())
                for number in range(8)
                for application in (stage.courier, stage.ledger, stage.chatter)
                for words in (("connect",), ("connect", "--in-child"), ("datagram",))]
    with concurrent.futures.ThreadPoolExecutor(12) as pool:
        list(pool.map(Attempt.make, attempts))
    wrong = [(each.application.identifier, each.words, each.address, each.report)
             for each in attempts if not _is_right(stage, each)]
    stage.checks.equal(f"{len(attempts)} short-lived processes, all as ruled", wrong, [])


def _is_right(stage, attempt) -> bool:
    clients = {each.client for each in network.seen_at(attempt.address)}
    if attempt.application is stage.chatter:
        return not clients and attempt.report["outcome"] == "failed"
    is_direct = attempt.application is stage.courier and attempt.words[0] == "connect"
    expected = ({network.CLIENT_IPV4, network.CLIENT_IPV6} if is_direct
                else {network.TUNNEL_IPV4, network.TUNNEL_IPV6})
    return len(clients) == 1 and clients <= expected and attempt.report["outcome"] != "failed"

"""What the manual pages show works as printed, and so do the programs' words that need no daemon."""

import itertools
import json
import re
import shlex
import subprocess

from vantrylab import first_minutes, host, network, settings as service, world

BASH = """
source "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
_vantryctl
printf '%s\\n' "${COMPREPLY[@]}"
"""


def run(stage) -> None:
    _examples(stage)
    with service.running():
        _completion(stage)
        if world.is_root_world():
            stranger = {"user": world.PERSON, "group": world.PERSON, "extra_groups": []}
            for words in (("check",), ("rules",)):
                stage.checks.equal(f"a stranger's {words[0]} is not permitted",
                                   _run("vantryctl", *words, **stranger).returncode, 4)
    _first_minutes(stage)
    for program, words, status in (("vantryd", ("--help",), 0), ("vantryd", ("--version",), 0), ("vantryd", ("-x",), 2),
                                   ("vantryd", ("--version", "-x"), 2), ("vantryctl", ("--version",), 0)):
        stage.checks.equal(f"{program} {' '.join(words)}", _run(program, *words).returncode, status)


def _run(program: str, *words: str, **options) -> subprocess.CompletedProcess:
    return subprocess.run([str(world.BUILD / program), *words], capture_output=True, text=True, timeout=20, **options)


def _examples(stage) -> None:
    places = {"vantry-rules.5.scd": host.RULES_FILE, "vantry-preferences.5.scd": host.PREFERENCES}
    for page in sorted((world.PROJECT / "man").glob("*.scd")):
        for place in (host.RULES_FILE, host.PREFERENCES):
            place.unlink(missing_ok=True)
        examples = re.findall(r"^```\n(.*?)^```$", page.read_text(), re.MULTILINE | re.DOTALL)
        if page.name in places:
            for example in examples:
                _document(stage, page.name, places[page.name], example)
        else:
            with service.running():
                for example in examples:
                    _commands(stage, page.name, example)


def _commands(stage, page: str, example: str) -> None:
    for line in example.splitlines():
        result = _run("vantryctl", *shlex.split(line.removeprefix("$ vantryctl ")))
        stage.checks.check(f"{page}: {line}", result.returncode == 0, result)


def _document(stage, page: str, place, example: str) -> None:
    place.parent.mkdir(parents=True, exist_ok=True)
    host.write_whole(place, example)
    settings = json.loads(example)
    settings = settings.get("protocolConfiguration", {}).get("providerConfiguration", settings)
    with service.running():
        shown = json.loads(_run("vantryctl", "rules", "--json").stdout)
    # Whether the VPN is up is what the service sees, not what a document says.
    for each in (shown, settings):
        each.pop("vpnConnected", None)
    stage.checks.equal(f"{page}: vantryctl reads the example", shown, settings)


def _first_minutes(stage) -> None:
    """What the README shows of two people's first ten minutes is what happens."""
    if not first_minutes.has_control_groups():
        print("      the README's first ten minutes: control groups cannot be mounted here")
        return
    network.vpn_up()
    stage.start_daemon(rules=None)
    with service.running():
        section, _ = first_minutes.play(stage.applications)
    shown = first_minutes.comparable(first_minutes.section_of(world.PROJECT / first_minutes.README))
    for seen, expected in itertools.zip_longest(first_minutes.comparable(section), shown):
        if seen != expected:
            break
    stage.checks.equal("the README's first ten minutes (Lab/first-ten-minutes writes them)", seen, expected)
    stage.stop_daemon()


def _completion(stage) -> None:
    _run("vantryctl", "rules", "set", "org.example.mail", "/opt/some thing/run", "direct")
    _run("vantryctl", "rules", "block", "org.example.tracker")
    script = world.PROJECT / "packaging" / "completions" / "vantryctl.bash"
    for line, offered in ((("rules", "remove", ""), ["/opt/some\\ thing/run", "org.example.mail"]),
                          (("rules", "unblock", "org"), ["org.example.tracker"]),
                          (("rules", "set", "org.example.m"), ["org.example.mail"]), (("rul",), ["rules"])):
        result = subprocess.run(["bash", "-c", BASH, "bash", str(script), "vantryctl", *line], text=True,
                                capture_output=True, env={"PATH": f"{world.BUILD}:/usr/bin:/bin"})
        stage.checks.equal(f"bash completes {line}", result.stdout.splitlines(), offered)

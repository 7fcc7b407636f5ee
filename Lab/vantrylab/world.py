"""A private world for one run of the lab.

`enter` starts this program again inside namespaces of its own: processes, network, mounts, control
groups, and a user namespace where the caller is not root. The folders that the daemon and the
applications write to are empty there and live in memory. When the world's first process ends, for
whatever reason, the kernel ends everything in it: a run leaves nothing behind and touches no file of
the machine.
"""

import ctypes
import os
import pathlib
import shutil
import signal
import subprocess
import sys

INSIDE_VARIABLE = "VANTRY_LAB_WORLD"
PROJECT = pathlib.Path("/run/lab/project")
BUILD = pathlib.Path("/run/lab/build")
STATE = pathlib.Path("/run/lab")
APPLICATIONS = pathlib.Path("/srv")

# The account that plays the person at the machine. Accounts below it count as the system's own.
PERSON = 1000
# How many times longer than usual things may take here, as on an emulated machine.
PATIENCE = float(os.environ.get("LAB_PATIENCE", 1))

_MS_NOSUID, _MS_NODEV, _MS_BIND = 2, 4, 4096
_CAPABILITY_VERSION, _PR_CAP_AMBIENT, _PR_CAP_AMBIENT_RAISE = 0x20080522, 47, 2
_PRIVATE_FOLDERS = {"/tmp": "mode=1777", "/var/lib": "mode=755", "/srv": "mode=755",
                    "/usr/local/share": "mode=755"}
# Variables by which the machine's service manager and session would reach into the world.
_FOREIGN_VARIABLES = ("NOTIFY_SOCKET", "JOURNAL_STREAM", "INVOCATION_ID", "DBUS_SESSION_BUS_ADDRESS",
                      "DBUS_SYSTEM_BUS_ADDRESS", "XDG_RUNTIME_DIR", "LISTEN_FDS", "LISTEN_PID")


class CannotEnter(Exception):
    """What the machine lacks for a world, in words for the person at it."""


def is_inside() -> bool:
    return INSIDE_VARIABLE in os.environ


def is_root_world() -> bool:
    """Whether the world has several accounts: its maker was root, not a user with one account."""
    return os.geteuid() == 0


def missing_tools() -> list[str]:
    tools = {"unshare": "util-linux", "nsenter": "util-linux", "ip": "iproute2",
             "openvpn": "openvpn", "nft": "nftables"}
    path = _search_path()
    return sorted({package for tool, package in tools.items() if not shutil.which(tool, path=path)})


def check_possible() -> None:
    """Raises CannotEnter, with the reason, where no world can be made."""
    missing = missing_tools()
    if missing:
        raise CannotEnter(f"these packages are missing: {' '.join(missing)}")
    if not os.path.exists("/dev/net/tun"):
        raise CannotEnter("/dev/net/tun is missing: load the kernel module 'tun'")
    probe = subprocess.run([*_unshare_command(), "true"], capture_output=True, text=True,
                           env=environment())
    if probe.returncode != 0:
        reason = probe.stderr.strip()
        hint = ("" if os.geteuid() == 0 else
                "; this needs user namespaces, which this machine denies to ordinary users"
                " (sysctl kernel.unprivileged_userns_clone, user.max_user_namespaces or"
                " kernel.apparmor_restrict_unprivileged_userns): allow them, or run as root")
        raise CannotEnter(f"namespaces cannot be made: {reason}{hint}")


def enter(project: pathlib.Path, build: pathlib.Path, program: list[str], has_own_processes: bool = True) -> None:
    """Becomes the world's outer process, which runs `program` inside; never returns.

    The kernel notes who opens a socket only for a daemon that sees all processes of the machine, as an installed one
    does. A world for that has no process namespace: what it starts it has to end itself (`network.end_all`).

    The words of `program` are paths and options as they are inside, where the project and its
    build folder stand at PROJECT and BUILD.
    """
    of_processes = ("--pid", "--fork", "--kill-child=KILL", "--mount-proc")
    words = [word for word in command(project, build, program) if has_own_processes or word not in of_processes]
    os.execvpe("unshare", words, environment())


def command(project: pathlib.Path, build: pathlib.Path, program: list[str]) -> list[str]:
    this_file = pathlib.Path(__file__).resolve()
    return [*_unshare_command(), sys.executable, str(this_file), str(project), str(build), *program]


def join(first_process: int) -> None:
    """Moves this process, and its children's process namespace, into the world of `first_process`."""
    kinds = ["mnt", "net", "pid", "cgroup", "ipc"]
    if os.geteuid() != 0:
        kinds.insert(0, "user")
    descriptors = [os.open(f"/proc/{first_process}/ns/{kind}", os.O_RDONLY) for kind in kinds]
    for descriptor in descriptors:
        _check(_libc().setns(descriptor, 0), f"namespace of process {first_process}")
        os.close(descriptor)
    if os.geteuid() != 0:
        _let_children_keep_capabilities()
    os.chdir(PROJECT)
    os.environ.update(environment(), **{INSIDE_VARIABLE: "1"})


def _let_children_keep_capabilities() -> None:
    """What a process may do in a user namespace that it joined would end with its next program."""
    header = (ctypes.c_uint32 * 2)(_CAPABILITY_VERSION, 0)
    # Effective, permitted and inheritable, first for the lower half of the numbers, then the upper.
    sets = (ctypes.c_uint32 * 6)()
    _check(_libc().capget(header, sets), "capabilities")
    sets[2], sets[5] = sets[1], sets[4]
    _check(_libc().capset(header, sets), "capabilities")
    permitted = sets[1] | sets[4] << 32
    for number in range(64):
        if permitted >> number & 1:
            _check(_libc().prctl(_PR_CAP_AMBIENT, _PR_CAP_AMBIENT_RAISE, number, 0, 0), "capabilities")


def _libc() -> ctypes.CDLL:
    return ctypes.CDLL(None, use_errno=True)


def _check(result: int, what: str) -> None:
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), what)


def _unshare_command() -> list[str]:
    account = [] if os.geteuid() == 0 else [
        "--user", f"--map-user={PERSON}", f"--map-group={PERSON}", "--keep-caps"]
    return ["unshare", *account, "--mount", "--net", "--pid", "--cgroup", "--ipc", "--fork",
            "--kill-child=KILL", "--mount-proc"]


def _search_path() -> str:
    return os.pathsep.join([os.environ.get("PATH", ""), "/usr/sbin", "/sbin", "/usr/bin", "/bin"])


def environment() -> dict[str, str]:
    kept = {name: value for name, value in os.environ.items() if name not in _FOREIGN_VARIABLES}
    return {**kept, "PATH": _search_path()}


def _mount(source: str, target: str, kind: str | None, flags: int, options: str) -> None:
    encoded_kind = kind.encode() if kind else None
    _check(_libc().mount(source.encode(), target.encode(), encoded_kind, flags, options.encode()),
           target)


def _furnish(project: str, build: str) -> None:
    """Puts empty folders over the machine's, after the project has been bound where they don't hide it."""
    held = {PROJECT: os.open(project, os.O_PATH), BUILD: os.open(build, os.O_PATH)}
    _mount("lab", "/run", "tmpfs", _MS_NOSUID | _MS_NODEV, "mode=755")
    for place, descriptor in held.items():
        place.mkdir(parents=True)
        _mount(f"/proc/self/fd/{descriptor}", str(place), None, _MS_BIND, "")
        os.close(descriptor)
    for folder, options in _PRIVATE_FOLDERS.items():
        _mount("lab", folder, "tmpfs", _MS_NOSUID | _MS_NODEV, options)
    os.chdir(PROJECT)


def _run_as_first_process(program: list[str]) -> int:
    """Starts the program, buries what is orphaned meanwhile, and ends with the program's status."""
    child = os.fork()
    if child == 0:
        os.execvpe(program[0], program, {**os.environ, INSIDE_VARIABLE: "1"})
    # An interrupt from the terminal reaches the program itself, which ends; the world ends with it.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    while True:
        ended, status = os.wait()
        if ended == child:
            return os.waitstatus_to_exitcode(status)


def _main() -> int:
    project, build, *program = sys.argv[1:]
    _furnish(project, build)
    status = _run_as_first_process(program)
    return status if status >= 0 else 128 - status


if __name__ == "__main__":
    sys.exit(_main())

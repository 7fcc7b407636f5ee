"""The package, as apt takes it from a local file."""

import functools
import os
import pathlib
import re
import subprocess

from uplink import run
from vantrylab import world

UNIT = "vantryd"


def file() -> pathlib.Path:
    return next((world.STATE / "packages").glob("vantry_*.deb"))


def install(package: pathlib.Path | None = None) -> str:
    """Gives what apt and the package said."""
    os.environ["DEBIAN_FRONTEND"] = "noninteractive"
    return run("apt-get", "install", "--yes", "--allow-downgrades", str(package or file()), seconds=240)


def leave_manual_unindexed() -> None:
    """Else each installation and upgrade indexes all of it, which takes an emulated machine long."""
    pathlib.Path("/var/lib/man-db/auto-update").unlink(missing_ok=True)


def upgrade() -> None:
    """To the same programs under a later version, over whatever version is there."""
    newest = run("dpkg-query", "--show", "--showformat=${Version}", "vantry")
    number = int(re.search(r"\+later(\d+)$|$", newest)[1] or 0) + 1
    run("dpkg", "--install", str(later_version(number)), seconds=240)


@functools.cache
def _unpacked() -> pathlib.Path:
    folder = world.STATE / "unpacked"
    run("rm", "-rf", str(folder))
    run("dpkg-deb", "--raw-extract", str(file()), str(folder))
    return folder


def later_version(number: int) -> pathlib.Path:
    """The package again, as if a release had followed."""
    control = _unpacked() / "DEBIAN" / "control"
    control.write_text(re.sub(r"^(Version: [^+\n]*).*$", rf"\1+later{number}", control.read_text(), flags=re.MULTILINE))
    made = world.STATE / f"later{number}.deb"
    run("dpkg-deb", "-Znone", "--build", str(_unpacked()), str(made))
    return made


def is_active() -> bool:
    return subprocess.run(["systemctl", "is-active", "--quiet", UNIT]).returncode == 0


def process() -> str:
    """The daemon's, as the service manager has it."""
    return run("systemctl", "show", "--value", "--property=MainPID", UNIT).strip()


def is_back(since: str) -> bool:
    """Whether another process than that one is ready."""
    return is_active() and process() not in ("0", since)

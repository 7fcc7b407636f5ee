"""Makes what a machine is run from: its disk, its kernel, and what is built for it.

Everything is kept in one folder outside of the project, named by what went into it, so that fresh clones
find it; what has not been used for a week is removed. mmdebstrap makes roots, as root or as an ordinary user.
"""

import concurrent.futures
import contextlib
import fcntl
import hashlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
from collections.abc import Callable, Iterator

from distributions import BUILD_PACKAGES, KEYRING, PROJECT, BuildFailed, CannotMake, Distribution

FOLDER = pathlib.Path(__file__).resolve().parent
# What build.sh ends with where the fault is the project's.
_BUILD_FAILED = 3
# What a disk, a root and a build take at the most, a build or a machine in memory.
_ROOM, _MEMORY = 5 << 30, 3 << 30
_TRIES, _PAUSE_SECONDS = 3, 10
# What apt says where the package source did not answer, or was just being changed.
_FETCHING_FAILED = re.compile(r"^E: (Failed to fetch|Unable to fetch|Some index files failed)", re.MULTILINE)
# Words before a command that needs a root of its own.
_INSIDE = [] if os.geteuid() == 0 else ["mmdebstrap", "--unshare-helper"]
_UNUSED_SECONDS = 7 * 24 * 3600
_running: set[subprocess.Popen] = set()
_is_interrupted = threading.Event()
_PACKAGES_OF_TOOLS = {"mmdebstrap": "mmdebstrap", "qemu-system-x86_64": "qemu-system-x86", "mke2fs": "e2fsprogs"}


def check_possible() -> None:
    """Raises CannotMake, with the reason, where no machine can be made or run."""
    path = os.pathsep.join([os.environ.get("PATH", ""), "/usr/sbin", "/sbin"])
    missing = sorted(package for tool, package in _PACKAGES_OF_TOOLS.items() if not shutil.which(tool, path=path))
    if not os.path.exists(KEYRING):
        missing.append("debian-archive-keyring")
    if os.geteuid() != 0 and not shutil.which("newuidmap"):
        missing.append("uidmap")
    if missing:
        raise CannotMake(f"these packages are missing: {' '.join(missing)}")
    tried = subprocess.run([*_INSIDE, "unshare", "--mount", "true"], stdin=subprocess.DEVNULL, capture_output=True,
                           text=True, env={**os.environ, "PATH": path})
    if tried.returncode != 0:
        reason = " ".join(tried.stderr.strip().splitlines()[-1:])
        raise CannotMake(f"no namespace can be made ({reason})")
    _check_memory()


def machine_image(distribution: Distribution, say: Callable[[str], None]) -> pathlib.Path:
    """The folder with `disk`, `kernel` and `initrd`; a minute or two of work where it is not there yet."""
    packages = distribution.machine_packages()
    key = _digest(distribution.suite, *packages, (FOLDER / "furnish.sh").read_text())

    def make(out: pathlib.Path) -> None:
        say(f"making the disk of {distribution.name} ({len(packages)} packages and what they need)")
        out.chmod(0o777)
        _mmdebstrap(distribution, packages, pathlib.Path("/dev/null"),
                    "--skip=chroot/policy-rc.d,chroot/start-stop-daemon", f"--customize-hook='{FOLDER / 'furnish.sh'}' \"$1\" '{out}'")
    return _kept(f"{distribution.name}-machine-{key}", make)


def build_root(distribution: Distribution, say: Callable[[str], None]) -> pathlib.Path:
    """The folder with `root.tar`, in which things are built for the distribution."""
    control = PROJECT / "debian" / "control"

    def make(out: pathlib.Path) -> None:
        say(f"making the root in which things are built for {distribution.name}")
        _mmdebstrap(distribution, BUILD_PACKAGES, out / "root.tar",
                    f"--customize-hook=mkdir -p \"$1/src/debian\" && cp '{control}' \"$1/src/debian/\"",
                    "--customize-hook=chroot \"$1\" apt-get build-dep --yes --no-install-recommends /src")
    key = _digest(distribution.suite, *BUILD_PACKAGES, control.read_text())
    return _kept(f"{distribution.name}-build-{key}", make)


def programs(distribution: Distribution, say: Callable[[str], None]) -> pathlib.Path:
    """The folder with the package (`*.deb`) and, below `build`, the programs, built in the distribution's root."""
    files = _sources()
    # The README goes into the package too, but has the tables that each measurement writes.
    key = _digest(distribution.suite, (FOLDER / "build.sh").read_text(),
                  *(f"{name} {_digest_of(PROJECT / name)}" for name in files if name != "README.md"))

    def make(out: pathlib.Path) -> None:
        root = build_root(distribution, say)
        say(f"building the package and the lab's programs for {distribution.name}")
        _build(root / "root.tar", files, _folder() / f"{distribution.name}-ccache.tar", out)
    return _kept(f"{distribution.name}-programs-{key}", make)


def all_of(distribution: Distribution, say: Callable[[str], None]) -> None:
    """Makes all that a machine takes; what takes one core each at the same time."""
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        making = [pool.submit(machine_image, distribution, say), pool.submit(programs, distribution, say)]
        try:
            for each in concurrent.futures.as_completed(making):
                each.result()
        except BaseException:
            _end_all()
            raise


def _folder() -> pathlib.Path:
    """Where things are kept: the user's cache; the build folder where that cannot be written."""
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    for folder in (pathlib.Path(base) / "vantry-machines", PROJECT / "build" / "machines"):
        with contextlib.suppress(OSError):
            folder.mkdir(parents=True, exist_ok=True)
            if os.access(folder, os.W_OK):
                return folder
    raise CannotMake(f"neither {base} nor the build folder can be written")


@contextlib.contextmanager
def _alone(name: str) -> Iterator[None]:
    """Holds off every other process that would make the same thing."""
    with open(_folder() / f"{name}.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def _kept(name: str, make: Callable[[pathlib.Path], None]) -> pathlib.Path:
    """The folder of that name, made if it is not there. It appears whole or not at all."""
    kept = _folder() / name
    with _alone(name):
        if not kept.exists():
            _check_room(kept.parent)
            made = pathlib.Path(tempfile.mkdtemp(prefix="vantry-machines-"))
            try:
                made.chmod(0o755)
                make(made)
                partial = kept.with_name(f"{name}.partial")
                shutil.rmtree(partial, ignore_errors=True)
                subprocess.run(["cp", "--recursive", "--sparse=always", made, partial], check=True)
                partial.rename(kept)
            finally:
                shutil.rmtree(made, ignore_errors=True)
    os.utime(kept)
    _remove_unused()
    return kept


def _check_room(folder: pathlib.Path) -> None:
    """Raises CannotMake where the making would fill up what others need too."""
    for place in (folder, pathlib.Path(tempfile.gettempdir())):
        if (free := shutil.disk_usage(place).free) < _ROOM:
            raise CannotMake(f"{place} has {free >> 20} MB left; {_ROOM >> 20} are needed")


def _check_memory() -> None:
    available = int(re.search(r"MemAvailable: *(\d+)", pathlib.Path("/proc/meminfo").read_text())[1]) << 10
    if available < _MEMORY:
        raise CannotMake(f"{available >> 20} MB of memory are left; {_MEMORY >> 20} are needed")


def _remove_unused() -> None:
    for folder in _folder().iterdir():
        with contextlib.suppress(FileNotFoundError):
            if time.time() - folder.stat().st_mtime > _UNUSED_SECONDS:
                shutil.rmtree(folder) if folder.is_dir() else folder.unlink()


def _digest(*parts: str) -> str:
    return hashlib.sha256("\n".join(parts).encode()).hexdigest()[:16]


def _digest_of(file: pathlib.Path) -> str:
    return hashlib.sha256(file.read_bytes()).hexdigest() + oct(file.stat().st_mode)


def _sources() -> list[str]:
    """The project's files that something is built from, relative to it."""
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard"], cwd=PROJECT,
                            check=True, capture_output=True, text=True).stdout.splitlines()
    return sorted(name for name in listed if (PROJECT / name).is_file() and not name.endswith(".py")
                  and not name.startswith((".ci/", "Tests/", "Benchmarks/"))
                  and (not name.startswith("Lab/machines/") or name.endswith("CMakeLists.txt")))


def _mmdebstrap(distribution: Distribution, packages: list[str], out: pathlib.Path, *options: str) -> None:
    mode = "root" if os.geteuid() == 0 else "unshare"
    with tempfile.NamedTemporaryFile("w", suffix=".list") as sources:
        sources.write("\n".join(distribution.sources()) + "\n")
        sources.flush()
        _fetch(["mmdebstrap", f"--mode={mode}", "--variant=minbase", "--dpkgopt=force-unsafe-io",
                '--aptopt=Acquire::Retries "3"', '--aptopt=Acquire::http::Timeout "30"',
                f"--include={','.join(packages)}", *options, distribution.suite, str(out), sources.name])


def _build(root: pathlib.Path, files: list[str], cache: pathlib.Path, out: pathlib.Path) -> None:
    """Everything goes into the root and out of it as archives, so that it works in a user namespace too."""
    with tempfile.TemporaryDirectory(prefix="vantry-machines-") as folder:
        sources = pathlib.Path(folder) / "sources.tar"
        subprocess.run(["tar", "-c", "-f", sources, "--transform=s,^,src/,", "--owner=0", "--group=0",
                        "--files-from=-"], cwd=PROJECT, input="\n".join(files), text=True, check=True)
        archives = [root, sources, *([cache] if cache.exists() else [])]
        result = pathlib.Path(folder) / "result.tar"
        with open(result, "wb") as archive:
            _run([*_INSIDE, "unshare", "--mount", "sh", str(FOLDER / "build.sh"), *map(str, archives)],
                 stdout=archive)
        subprocess.run(["tar", "-x", "-f", result, "-C", folder, "--no-same-owner"], check=True)
        subprocess.run(["cp", "--recursive", f"{folder}/out/.", out], check=True)
        with _alone("ccache"):
            shutil.copy(f"{folder}/ccache.tar", cache.with_suffix(".new"))
            cache.with_suffix(".new").rename(cache)


def _fetch(command: list[str]) -> None:
    """Runs what fetches packages, and once more where only the fetching has failed."""
    for further in reversed(range(_TRIES)):
        try:
            return _run(command)
        except CannotMake as reason:
            if not further or not _FETCHING_FAILED.search(str(reason)):
                raise
        time.sleep(_PAUSE_SECONDS)


def _run(command: list[str], stdout=None) -> None:
    if _is_interrupted.is_set():
        raise CannotMake("interrupted")
    with tempfile.TemporaryFile("w+") as log:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=stdout or log, stderr=log,
                                   start_new_session=True)
        _running.add(process)
        status = process.wait()
        _running.discard(process)
        if status == 0:
            return
        log.seek(0)
        told = [line for line in log if line.strip() and not line.startswith("[")][-60:]
        kind = BuildFailed if status == _BUILD_FAILED else CannotMake
        # The last line is the one that a summary shows: the first fault that apt named, or else the end.
        reason = next((line for line in told if line.startswith("E: ")), told[-1] if told else f"status {status}")
        raise kind(f"{''.join(told)}{command[0]} failed: {reason.strip()}")


def _end_all() -> None:
    """Ends what still makes something, with all that it has started, so that other threads come to their end."""
    _is_interrupted.set()
    for process in [*_running]:
        for number, seconds in ((signal.SIGTERM, 30), (signal.SIGKILL, None)):
            with contextlib.suppress(ProcessLookupError, subprocess.TimeoutExpired):
                os.killpg(process.pid, number)
                process.wait(seconds)

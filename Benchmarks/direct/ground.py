"""The ground that direct connections are measured on: the lab's network with a VPN up, the load generator's
servers on the other side, and the whole daemon with real attribution and one rule, or a peer, in the path."""

import contextlib
import importlib.util
import json
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent.parent
RELAY = PROJECT / "Benchmarks" / "relay"
sys.path.insert(0, str(PROJECT / "Lab"))

from vantrylab import host, network, world  # noqa: E402
from vantrylab.host import Rules  # noqa: E402

_spec = importlib.util.spec_from_file_location("relay_run", RELAY / "run.py")
relay_run = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(relay_run)

PORT = 7000
ACCOUNT = 4242
LOADGEN = world.APPLICATIONS / "bin" / "loadgen"
WORK = world.STATE / "direct-benchmark"
# So that figures repeat on other machines, and closed connections leave the ports and the table soon.
SETTINGS = ("net.ipv4.ip_local_port_range=1024 65535", "net.ipv4.tcp_tw_reuse=1", "net.core.somaxconn=65535",
            "net.ipv4.tcp_max_syn_backlog=65535", "net.ipv4.tcp_no_metrics_save=1",
            "net.ipv4.tcp_congestion_control=reno")
TABLE_SETTINGS = ("net.netfilter.nf_conntrack_tcp_timeout_time_wait=5", "net.netfilter.nf_conntrack_tcp_timeout_close=2",
                  "net.netfilter.nf_conntrack_tcp_timeout_fin_wait=10",
                  "net.netfilter.nf_conntrack_tcp_timeout_last_ack=5",
                  "net.netfilter.nf_conntrack_tcp_timeout_close_wait=10")


def enter(script: pathlib.Path, build: pathlib.Path, arguments: list[str]) -> None:
    """Goes on in a world of its own, or says why that cannot be."""
    if os.geteuid() != 0:
        sys.exit("needs root: the servers of peers have accounts of their own")
    try:
        world.check_possible()
    except world.CannotEnter as reason:
        sys.exit(f"this cannot run here: {reason}")
    inside = world.PROJECT / script.resolve().relative_to(PROJECT)
    world.enter(PROJECT, build.resolve(), [sys.executable, str(inside), "--build", str(world.BUILD), *arguments],
                has_own_processes=False)


def raise_descriptors() -> int:
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    return limit


@contextlib.contextmanager
def lab_network():
    """Both sides, the tunnel that takes all traffic, and the load generator as an ordinary program."""
    try:
        network.up()
        for side in ([], ["nsenter", f"--net={network.SERVER}"]):
            subprocess.run([*side, "sysctl", "-qw", *SETTINGS], check=True)
        network.vpn_up()
        LOADGEN.parent.mkdir(parents=True)
        WORK.mkdir()
        WORK.chmod(0o755)
        subprocess.run(["g++", "-O2", "-std=c++17", "-o", str(LOADGEN), str(RELAY / "loadgen.cpp")], check=True)
        yield
    finally:
        network.end_all()


def machine_cpu() -> float:
    return relay_run.machine_cpu()[0]


class Process:
    """A program of the ground, ended with all its children when the block is left."""

    def __init__(self, name: str, command: list[str], **keywords):
        self.log = WORK / f"{name}.log"
        with self.log.open("wb") as file:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=file, stderr=file, **keywords)
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pids = relay_run.tree(self.pid)[::-1]
        for number in (signal.SIGTERM, signal.SIGKILL):
            for pid in pids:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, number)
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(10)
                return

    def wait_until(self, condition, what: str) -> None:
        deadline = time.monotonic() + 20
        while not condition():
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"{what}: waited in vain\n{self.log.read_text(errors='replace')[-800:]}")
            time.sleep(0.02)


def listens(port: int, side: list[str] = ()) -> bool:
    asked = subprocess.run([*side, "ss", "-Hltn", f"sport = :{port}"], capture_output=True, text=True, check=True)
    return asked.stdout.strip() != ""


def server(address: str, port: int = PORT) -> Process:
    """The load generator's server; the port after this one answers questions about it."""
    command = [str(LOADGEN), "server", "--addr", address, "--port", str(port), "--ctl", str(port + 1)]
    started = Process(f"server-{port}", network.in_server(command))
    started.wait_until(lambda: listens(port, network.in_server([])), "the server listens")
    return started


def daemon(**preferences) -> Process:
    """The whole daemon as it is installed: no option, log at its usual level, and one rule for the load generator."""
    host.write_preferences(**preferences)
    host.write_rules(Rules(rules={LOADGEN.name: "direct"}))
    host.MESSAGE_SOCKET.unlink(missing_ok=True)
    started = Process("daemon", [str(world.BUILD / "vantryd")])
    wanted = ("Filter settings applied", "Transparent proxy started with", "hysical interface")
    started.wait_until(lambda: all(line in started.log.read_text(errors="replace") for line in wanted) and
                       host.MESSAGE_SOCKET.exists(), "the daemon starts")
    if health("attribution") != "by what the kernel notes":
        print(f"the daemon names programs {health('attribution')}", file=sys.stderr)
    return started


def health(key: str) -> object:
    answer = host.send('{"platform":"health"}')["health"]
    return next((each["value"] for each in answer if each["key"] == key), None)


def client(address: str, mode: str, *arguments: object, port: int = PORT) -> list[str]:
    return [str(LOADGEN), mode, "--dst", f"{address}:{port}", "--ctl", f"{address}:{port + 1}", "--uid", str(ACCOUNT),
            *map(str, arguments)]


def measured(command: list[str]) -> dict:
    """The load generator's report, and what the whole machine's processors worked meanwhile."""
    before = machine_cpu()
    run = subprocess.run(command, capture_output=True, text=True, timeout=120)
    if run.returncode != 0 or not run.stdout.strip():
        raise RuntimeError(f"{' '.join(command)}: {run.stderr.strip() or run.returncode}")
    return {**json.loads(run.stdout.strip().splitlines()[-1]), "machine_s": machine_cpu() - before}


def is_installed(program: str) -> bool:
    return shutil.which(program, path=world.environment()["PATH"]) is not None

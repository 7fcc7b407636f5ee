#!/usr/bin/env python3
"""Side-by-side measurement of TCP relays in the lab of lab.sh. See README.md."""
import argparse, json, os, re, resource, shutil, signal, statistics, subprocess, sys, tempfile, time

HERE = os.path.dirname(os.path.abspath(__file__))
PREFIX = os.environ.setdefault("LAB_PREFIX", "peers-")
CLI, SRV = PREFIX + "cli", PREFIX + "srv"
DST, DPORT, CTL, PORT, DEV, SRC, UID = "198.51.100.2", 7000, 7001, 9000, "eth0", "192.0.2.2", 4242
BUILD = os.path.abspath(os.environ.get("BUILD", os.path.join(HERE, "../../build/default")))
HZ = os.sysconf("SC_CLK_TCK")
CPUS = os.cpu_count() or 1
# what the redirect of the application's traffic looks like unless a candidate brings its own
REDIRECT = """table ip peers {
 chain out {
  type nat hook output priority -100;
  meta skuid %d ip daddr %s tcp dport %d counter redirect to :%d
 }
}
""" % (UID, DST, DPORT, PORT)


def nofile():
    """Raises the limit on open files as far as this machine lets us; relays and loadgen inherit it."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    for want in (max(hard, 65536), hard):
        try:
            resource.setrlimit(resource.RLIMIT_NOFILE, (want, want))
            return want
        except (ValueError, OSError):
            pass
    return resource.getrlimit(resource.RLIMIT_NOFILE)[0]


def log(*a):
    print(*a, file=sys.stderr, flush=True)


def in_cli(argv):
    return ["ip", "netns", "exec", CLI] + argv


def stat_of(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()
    except (OSError, IndexError):
        return None


def tree(pid):
    """pid and all its descendants."""
    kids = {}
    for d in os.listdir("/proc"):
        if d.isdigit():
            s = stat_of(int(d))
            if s:
                kids.setdefault(int(s[1]), []).append(int(d))
    out, todo = [], [pid]
    while todo:
        p = todo.pop()
        if os.path.exists("/proc/%d" % p):
            out.append(p)
        todo += kids.get(p, [])
    return out


def relay_cpu(pid):
    """CPU seconds of the relay: its processes, and their children already waited for."""
    if not pid:
        return 0.0
    t = 0
    for p in tree(pid):
        s = stat_of(p)
        if s:
            t += sum(int(x) for x in s[11:15])
    return t / HZ


def relay_mem(pid):
    rss = pss = fds = procs = 0
    for p in (tree(pid) if pid else []):
        try:
            with open("/proc/%d/smaps_rollup" % p) as f:
                for line in f:
                    if line.startswith("Rss:"):
                        rss += int(line.split()[1])
                    elif line.startswith("Pss:"):
                        pss += int(line.split()[1])
            fds += len(os.listdir("/proc/%d/fd" % p))
            procs += 1
        except OSError:
            pass
    return {"rss_mib": rss / 1024, "pss_mib": pss / 1024, "fds": fds, "procs": procs}


def machine_cpu():
    with open("/proc/stat") as f:
        v = [int(x) for x in f.readline().split()[1:9]]
    return (sum(v) - v[3] - v[4] - v[7]) / HZ, v[7] / HZ  # busy, stolen


def net_dev():
    out = subprocess.run(in_cli(["cat", "/proc/net/dev"]), capture_output=True, text=True).stdout
    r = {}
    for line in out.splitlines()[2:]:
        n, v = line.split(":")
        v = v.split()
        r[n.strip()] = int(v[0]) + int(v[8])
    return r


def redirected():
    """Connections the default redirect rule has seen (a nat chain sees the first packet of each)."""
    out = subprocess.run(in_cli(["nft", "list", "table", "ip", "peers"]), capture_output=True, text=True).stdout
    m = re.search(r"counter packets (\d+)", out)
    return int(m.group(1)) if m else None


class Block:
    """One candidate in a fresh lab: server, relay, rules; taken down again on exit."""

    def __init__(self, cand, work, exe, limit, copy=False):
        self.copy = int(copy)
        self.c, self.exe, self.started, self.relay, self.opened = cand, exe, [], None, 0
        self.dir = os.path.join(work, cand["name"])
        os.makedirs(self.dir, exist_ok=True)
        self.vars = {"dir": self.dir, "here": HERE, "port": PORT, "dst": DST, "dport": DPORT, "dev": DEV, "src": SRC,
                     "uid": UID, "cpus": CPUS, "build": BUILD, "nofile": limit, "maxconn": (limit - 160) // 2, "ns": CLI}

    def sub(self, s):
        for k, v in self.vars.items():
            s = s.replace("{%s}" % k, str(v))
        return s

    def spawn(self, argv, name, **kw):
        with open(os.path.join(self.dir, name + ".log"), "wb") as f:
            p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=f, stderr=f, **kw)
        self.started.append(p)
        return p

    def __enter__(self):
        subprocess.run([os.path.join(HERE, "lab.sh"), "up"], check=True)
        try:
            self.up()
        except BaseException:
            self.__exit__()
            raise
        return self

    def up(self):
        c = self.c
        self.spawn(["ip", "netns", "exec", SRV, self.exe, "server", "--addr", DST, "--port", str(DPORT), "--ctl", str(CTL),
                    "--copy", str(self.copy)], "server")
        self.wait(SRV, DPORT)
        for name, lines in c.get("files", {}).items():
            with open(os.path.join(self.dir, name), "w") as f:
                f.write(self.sub("\n".join(lines)) + "\n")
        if "start" not in c:
            return
        if c.get("rules", "default") == "default":
            subprocess.run(in_cli(["nft", "-f", "-"]), input=REDIRECT, text=True, check=True)
        for cmd in c.get("setup", []):
            subprocess.run(in_cli([self.sub(x) for x in cmd]), check=True)
        env = dict(os.environ, **{k: self.sub(v) for k, v in c.get("env", {}).items()})
        p = self.spawn(in_cli([self.sub(x) for x in c["start"]]), "relay", env=env)
        self.relay = p.pid
        if "ready" in c:
            self.poll(lambda: subprocess.run(in_cli([self.sub(x) for x in c["ready"]]), stdout=subprocess.DEVNULL,
                                             stderr=subprocess.DEVNULL).returncode == 0, "ready command")
        else:
            self.wait(CLI, PORT)
        if "pidfile" in c:
            with open(self.sub(c["pidfile"])) as f:
                self.relay = int(f.read())
        for cmd in c.get("after", []):
            subprocess.run(in_cli([self.sub(x) for x in cmd]), check=True)
        time.sleep(0.2)

    def poll(self, ok, what):
        end = time.time() + 10
        while not ok():
            if time.time() > end or any(p.poll() is not None for p in self.started):
                log_tail = ""
                for n in ("relay.log", "server.log"):
                    try:
                        with open(os.path.join(self.dir, n)) as f:
                            log_tail += f.read()[-600:]
                    except OSError:
                        pass
                raise RuntimeError("%s: no %s\n%s" % (self.c["name"], what, log_tail))
            time.sleep(0.05)

    def wait(self, ns, port):
        self.poll(lambda: subprocess.run(["ip", "netns", "exec", ns, "ss", "-Hltn", "sport = :%d" % port],
                                         capture_output=True, text=True).stdout.strip() != "", "listener on port %d" % port)

    def argv(self, mode, *args):
        a = [self.exe, mode, "--dst", "%s:%d" % (DST, DPORT), "--ctl", "%s:%d" % (DST, CTL), "--uid", str(UID)]
        return in_cli(a + [self.sub(x) for x in self.c.get("client", [])] + [str(x) for x in args])

    def gen(self, mode, *args, timeout=40):
        """Runs loadgen once; returns its report with CPU of the relay and of the machine added."""
        c0, (m0, s0) = relay_cpu(self.relay), machine_cpu()
        p = subprocess.run(self.argv(mode, *args), capture_output=True, text=True, timeout=timeout)
        if p.returncode or not p.stdout.strip():
            raise RuntimeError("%s %s: %s" % (mode, args, p.stderr.strip() or p.returncode))
        c1, (m1, s1) = relay_cpu(self.relay), machine_cpu()
        r = json.loads(p.stdout.strip().splitlines()[-1])
        if p.stderr.strip():
            log("   ", p.stderr.strip()[:300])
        r.update(relay_cpu_s=c1 - c0, machine_cpu_s=m1 - m0, steal_s=s1 - s0)
        self.opened += r.get("conns", 0) if mode != "status" else 0
        return r

    def idle(self, n, secs):
        p = subprocess.Popen(self.argv("idle", "--conns", n, "--secs", secs), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, text=True)
        self.started.append(p)
        try:
            r = json.loads(p.stdout.readline())
            time.sleep(0.2)
            r.update(relay_mem(self.relay))
            p.stdin.write("go\n"); p.stdin.flush()
            line = p.stdout.readline()
            r["gbps"] = json.loads(line)["gbps"] if line.strip() else 0.0
            p.stdin.write("\n"); p.stdin.flush()
            line = p.stdout.readline()
            r["lost"] = json.loads(line)["lost"] if line.strip() else None
            p.wait(20)
        finally:
            if p.poll() is None:
                p.kill()
                p.wait()
            self.started.remove(p)
        self.opened += n + 1
        return r

    def __exit__(self, *_):
        pids = []
        for p in self.started[::-1]:
            if p.poll() is None:
                pids += tree(p.pid)
        if self.relay and self.relay not in pids and any(p.pid == self.relay for p in self.started) is False:
            pids += tree(self.relay)  # a relay known by its pidfile
        if "stop" in self.c:
            subprocess.run(in_cli([self.sub(x) for x in self.c["stop"]]))
        for sig, secs in ((signal.SIGTERM, 2), (signal.SIGKILL, 2)):
            for pid in pids:
                try:
                    os.kill(pid, sig)
                except ProcessLookupError:
                    pass
            end = time.time() + secs
            while time.time() < end:
                for p in self.started:
                    p.poll()
                pids = [x for x in pids if (stat_of(x) or ["Z"])[0] != "Z"]
                if not pids:
                    break
                time.sleep(0.02)
            if not pids:
                break
        for p in self.started:
            p.wait(5)
        subprocess.run([os.path.join(HERE, "lab.sh"), "down"], check=False)
        time.sleep(0.2)  # the kernel clears the namespaces in the background


def measure(b, a, put, idle_counts):
    """All measures of one candidate block. put(metric, value)."""
    v = b.gen("verify", "--streams", 4, "--kib", 262144)
    if not v["ok"]:
        raise RuntimeError("contents differ: %r" % v)
    dev0 = net_dev()
    sent = 0
    steal = 0.0
    ok = True
    if "bulk" in a.measures:
        for d in ("up", "down", "both"):
            for n in (1, 8):
                r = b.gen("bulk", "--streams", n, "--dir", d, "--secs", a.secs, "--copy", int(a.copy))
                key = "bulk_%s_%d" % (d, n)
                gb = r["bytes"] / 1e9
                sent += r["bytes"]
                steal += r["steal_s"]
                ok &= r["bytes_match"]
                put(key + "_gbps", r["gbps"])
                put(key + "_relay_ms_per_GB", 1e3 * r["relay_cpu_s"] / gb)
                put(key + "_machine_ms_per_GB", 1e3 * r["machine_cpu_s"] / gb)
                if d == "both":
                    lo, hi = sorted((r["up_gbps"], r["down_gbps"]))
                    put(key + "_fairness", lo / hi if hi else 0)
    if "cps" in a.measures:
        for n in (1, 16):
            r = b.gen("cps", "--conc", n, "--secs", a.secs, "--max", 100000, "--close", a.close)
            put("cps_%d_per_s" % n, r["cps"])
            put("cps_%d_first_byte_p50_us" % n, r["first_byte_p50_us"])
            put("cps_%d_first_byte_p99_us" % n, r["first_byte_p99_us"])
            put("cps_%d_relay_us_per_conn" % n, 1e6 * r["relay_cpu_s"] / max(1, r["done"]))
            put("cps_%d_errors" % n, r["errors"])
            if r["errors"]:
                log("    cps errors:", r["errors"], r["first_errno"])
    if "rr" in a.measures:
        for n in (1, 64):
            r = b.gen("rr", "--conns", n, "--secs", a.secs, "--size", 64)
            put("rr_%d_p50_us" % n, r["rtt_p50_us"])
            put("rr_%d_p99_us" % n, r["rtt_p99_us"])
            put("rr_%d_per_s" % n, r["rate"])
            put("rr_%d_relay_us_per_msg" % n, 1e6 * r["relay_cpu_s"] / max(1, r["messages"]))
    if "idle" in a.measures:
        base = relay_mem(b.relay)
        put("base_rss_mib", base["rss_mib"])
        for n in idle_counts:
            if n > b.c.get("idle_max", 1 << 30):
                continue
            r = b.idle(n, a.secs)
            for k in ("up", "rss_mib", "pss_mib", "fds", "procs", "gbps", "ramp_s", "lost"):
                put("idle_%d_%s" % (n, k), r[k])
            if r["errors"]:
                log("    idle errors:", r["errors"], r["first_errno"])
            time.sleep(0.3)
    st = b.gen("status")
    dev1 = net_dev()
    eth = dev1["eth0"] - dev0["eth0"]
    checks = {"bytes_match": ok, "bulk_bytes": sent, "eth0_bytes": eth, "vpn0_bytes": dev1["vpn0"] - dev0["vpn0"],
              "connections_opened": b.opened, "connections_at_server": st["conns"], "sources": st["sources"],
              "redirected": redirected() if b.relay and b.c.get("rules", "default") == "default" else None,
              "steal_s": round(steal, 2)}
    bad = []
    if not ok:
        bad.append("byte counts differ")
    if eth < sent:
        bad.append("fewer bytes on eth0 than relayed")
    if list(st["sources"]) != [SRC]:
        bad.append("connections not from %s: %r" % (SRC, st["sources"]))
    if st["conns"] != b.opened:
        bad.append("server saw %d connections of %d" % (st["conns"], b.opened))
    if checks["redirected"] is not None and checks["redirected"] != b.opened:
        bad.append("rule redirected %d connections of %d" % (checks["redirected"], b.opened))
    checks["problems"] = bad
    return checks


def fmt(x):
    if x is None:
        return "-"
    if abs(x) >= 1000:
        return "%.0f" % x
    if abs(x) >= 100:
        return "%.0f" % x
    return "%.1f" % x if abs(x) >= 10 else "%.2f" % x


HIGHER = ("_gbps", "_per_s", "_up", "_fairness")
TITLES = [("bulk_", "Bulk throughput (Gbit/s) and CPU milliseconds per GB"), ("cps_", "New connections"),
          ("rr_", "64-byte request-response"), ("idle_", "Idle connections"), ("base_", "At rest")]


def write_md(path, res):
    names = list(res["samples"])
    metrics = []
    for n in names:
        for m in res["samples"][n]:
            if m not in metrics:
                metrics.append(m)
    med = {n: {m: statistics.median(v) for m, v in res["samples"][n].items() if v} for n in names}
    L = ["# Relay comparison", "",
         "%s, kernel %s, %d CPUs, %d rounds, %.1f s per measure, open-file limit %d." % (
             res["meta"]["date"], res["meta"]["kernel"], res["meta"]["cpus"], res["meta"]["rounds"], res["meta"]["secs"], res["meta"]["nofile"]),
         "Cells: median (min–max) over the rounds. Relay CPU is user+system of the relay's processes; machine CPU is everything.", ""]
    for n in names:
        L.append("- `%s`: %s%s" % (n, res["about"].get(n, ""), " [%s]" % res["versions"][n] if res["versions"].get(n) else ""))
    L.append("")
    for pre, title in TITLES:
        ms = [m for m in metrics if m.startswith(pre)]
        if not ms:
            continue
        L += ["## " + title, "", "| measure | " + " | ".join(names) + " |", "|---" * (len(names) + 1) + "|"]
        for m in ms:
            row = []
            for n in names:
                v = res["samples"][n].get(m)
                row.append("%s (%s–%s)" % (fmt(statistics.median(v)), fmt(min(v)), fmt(max(v))) if v else "-")
            L.append("| %s | %s |" % (m, " | ".join(row)))
        L.append("")
    main = [m for m in metrics if m.startswith(("bulk_", "cps_", "rr_", "idle_")) and not m.endswith(("_errors", "_lost", "_procs", "_up", "_fds"))]
    base, hap = "direct", "haproxy"
    L += ["## Ratios of medians (to direct / to haproxy)", "", "| measure | " + " | ".join(names) + " |", "|---" * (len(names) + 1) + "|"]
    for m in main:
        row = []
        for n in names:
            x = med[n].get(m)
            q = []
            for ref in (base, hap):
                y = med.get(ref, {}).get(m)
                q.append("%.2f" % (x / y) if x is not None and y else "-")
            row.append(" / ".join(q))
        L.append("| %s | %s |" % (m, " | ".join(row)))
    L += ["", "## Best relay on each line", "", "| measure | best | median | range |", "|---|---|---|---|"]
    relays = [n for n in names if n != base]
    for m in main:
        have = [n for n in relays if m in med[n]]
        if not have:
            continue
        pick = max if m.endswith(HIGHER) else min
        n = pick(have, key=lambda k: med[k][m])
        v = res["samples"][n][m]
        L.append("| %s (%s is better) | %s | %s | %s–%s |" % (m, "more" if pick is max else "less", n, fmt(med[n][m]), fmt(min(v)), fmt(max(v))))
    L += ["", "## Checks", "", "| candidate | rounds | problems | failures |", "|---|---|---|---|"]
    for n in names:
        ck = [c for c in res["checks"] if c["candidate"] == n]
        L.append("| %s | %d | %s | %s |" % (n, len(ck), "; ".join(p for c in ck for p in c.get("problems", [])) or "none",
                                            "; ".join(c["failed"] for c in ck if "failed" in c) or "none"))
    with open(path, "w") as f:
        f.write("\n".join(L) + "\n")


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--candidates", default="", help="comma-separated names (default: all not marked \"default\": false)")
    ap.add_argument("--add", action="append", default=[], metavar="FILE", help="JSON file with one more candidate or a list of them")
    ap.add_argument("--measures", default="bulk,cps,rr,idle")
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--secs", type=float, default=1.2, help="length of each measured window")
    ap.add_argument("--idle", default="1000,5000,10000", help="idle connection counts; cut to what the open-file limit lets one process relay")
    ap.add_argument("--close", choices=("server", "rst"), default="server", help="who closes in the connection test")
    ap.add_argument("--copy", action="store_true", help="receivers copy the bulk data out instead of discarding it in the kernel")
    ap.add_argument("--out", default=os.path.join(BUILD, "relay-benchmark"), help="folder for results.json and results.md (default: in the build)")
    a = ap.parse_args()
    a.measures = a.measures.split(",")
    if os.geteuid():
        sys.exit("needs root (network namespaces)")
    with open(os.path.join(HERE, "candidates.json")) as f:
        cands = json.load(f)
    added = set()
    for p in a.add:
        with open(p) as f:
            more = json.load(f)
        more = more if isinstance(more, list) else [more]
        added |= {m["name"] for m in more}
        cands = [c for c in cands if c["name"] not in [m["name"] for m in more]] + more
    if a.candidates:
        want = a.candidates.split(",")
        unknown = set(want) - {c["name"] for c in cands}
        if unknown:
            sys.exit("unknown candidates: %s" % ", ".join(sorted(unknown)))
        cands = [c for w in want for c in cands if c["name"] == w]
    else:
        cands = [c for c in cands if c.get("default", True) or c["name"] in added]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the finally blocks run
    limit = nofile()
    idle = []
    for n in [int(x) for x in a.idle.split(",") if x]:
        n = min(n, (limit - 200) // 2)
        if n not in idle:
            idle.append(n)
    work = tempfile.mkdtemp(prefix="peers-bench-")
    exe = os.path.join(work, "loadgen")
    res = {"meta": {"date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()), "kernel": os.uname().release, "cpus": CPUS, "rounds": a.rounds,
                    "secs": a.secs, "nofile": limit, "close": a.close, "copy": a.copy, "idle": idle},
           "about": {}, "versions": {}, "samples": {c["name"]: {} for c in cands}, "checks": []}
    t0 = time.time()
    try:
        subprocess.run(["g++", "-O2", "-std=c++17", "-o", exe, os.path.join(HERE, "loadgen.cpp")], check=True)
        os.chmod(work, 0o755)
        for c in cands:
            res["about"][c["name"]] = c.get("about", "")
            if "version" in c:
                p = subprocess.run(c["version"], capture_output=True, text=True)
                m = re.search(r"(\d+\.\d+[\w.+-]*)", p.stdout + p.stderr)
                res["versions"][c["name"]] = m.group(1) if m else ""
        for rnd in range(a.rounds):
            k = (rnd * max(1, len(cands) // a.rounds)) % len(cands)
            for c in cands[k:] + cands[:k]:
                log("[%4.0f s] round %d %s" % (time.time() - t0, rnd + 1, c["name"]))
                smp = res["samples"][c["name"]]
                try:
                    with Block(c, work, exe, limit, a.copy) as b:
                        ck = measure(b, a, lambda m, v: smp.setdefault(m, []).append(v), idle)
                    if ck["problems"]:
                        log("    problems:", ck["problems"])
                except (RuntimeError, subprocess.SubprocessError, ValueError, OSError) as e:
                    ck = {"failed": str(e)[:500]}
                    log("    failed:", e)
                res["checks"].append(dict(candidate=c["name"], round=rnd + 1, **ck))
    finally:
        res["meta"]["took_s"] = round(time.time() - t0, 1)
        os.makedirs(a.out, exist_ok=True)
        with open(os.path.join(a.out, "results.json"), "w") as f:
            json.dump(res, f, indent=1)
        write_md(os.path.join(a.out, "results.md"), res)
        shutil.rmtree(work, ignore_errors=True)
    log("[%4.0f s] wrote results.json and results.md" % (time.time() - t0))


if __name__ == "__main__":
    main()

// Load generator for TCP relays: one epoll thread per process, no dependencies.
//   loadgen server --addr A --port P --ctl C
//   loadgen bulk   --dst A:P --ctl A:C --streams N --dir up|down|both --secs S
//   loadgen cps    --dst A:P --ctl A:C --conc N --secs S --max M --close server|rst
//   loadgen rr     --dst A:P --ctl A:C --conns N --secs S --size B
//   loadgen idle   --dst A:P --ctl A:C --conns N --secs S     (talks with run.py over stdin/stdout)
//   loadgen verify --dst A:P --ctl A:C --streams N --kib K
// common client options: --dev IFACE (SO_BINDTODEVICE), --uid U (setuid before connecting),
//   --warm S (not measured), --copy 1 (receivers copy the data; default: MSG_TRUNC, discarded in the kernel)
// A client prints one JSON object per report line. Every loop ends by time and by count.
//
// Protocol: the first byte a client sends on a connection is an operation:
//   Q reply 1 byte and close | K reply 1 byte and stay | E echo what follows | U count until EOF
//   D u32 ms: send for ms, then half-close | B u32 ms: send for ms and count, until EOF
//   V u32 KiB: send a known pattern of that length and check that the same length of the other one comes
// Some relays end a connection as a whole with the first end that they see. So where both sides send, neither
// ends before both have received everything.
// The control port answers one line per byte: server clock, totals, CPU, connections per source address.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

using std::string;
static const size_t CHUNK = 128 << 10;      // bytes per send()
static const size_t TRUNC_CHUNK = 4 << 20;  // bytes per discarding recv()
static bool g_copy = false;
static char* g_buf;   // zero-filled send buffer
static char* g_rbuf;  // receive scratch

static uint64_t now_ns() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000ull + t.tv_nsec;
}
static double cpu_s() {
    rusage r;
    getrusage(RUSAGE_SELF, &r);
    return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1e-6;
}
static void die(const char* f, ...) {
    va_list a;
    va_start(a, f);
    vfprintf(stderr, f, a);
    va_end(a);
    fputc('\n', stderr);
    exit(1);
}
static ssize_t sink(int fd) {  // reads and drops
    if (g_copy) return recv(fd, g_rbuf, CHUNK, MSG_DONTWAIT);
    return recv(fd, nullptr, TRUNC_CHUNK, MSG_DONTWAIT | MSG_TRUNC);
}
static inline uint8_t pat(uint64_t i, unsigned k) {
    return uint8_t((i * 2654435761u) >> 13) ^ uint8_t(i >> 17) ^ uint8_t(k * 0x5b);
}
static void set_nodelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}
static void raise_nofile() {
    rlimit r;
    getrlimit(RLIMIT_NOFILE, &r);
    r.rlim_cur = r.rlim_max;
    setrlimit(RLIMIT_NOFILE, &r);
}

// ---------------------------------------------------------------- server
struct SConn {
    int fd;
    char op = 0;
    int got = 0;
    uint8_t arg[4];
    bool rd_eof = false, wr_done = false;
    uint32_t ev = EPOLLIN;
    uint64_t rx = 0, tx = 0, end_ns = 0, len = 0;
    bool bad = false;
    string pend;
};
struct Totals {
    uint64_t rx = 0, tx = 0, conns = 0, vok = 0, vbad = 0, open = 0;
    std::map<uint32_t, uint64_t> src;
};

static int listener(const char* addr, int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, addr, &a.sin_addr);
    if (bind(fd, (sockaddr*)&a, sizeof a) || listen(fd, 65535))
        die("bind %s:%d: %s", addr, port, strerror(errno));
    return fd;
}

static int server_main(const char* addr, int port, int ctl_port) {
    int ep = epoll_create1(EPOLL_CLOEXEC), ls = listener(addr, port), cl = listener(addr, ctl_port);
    std::vector<SConn*> conns(1 << 16, nullptr);
    std::vector<char> is_ctl(1 << 16, 0);
    Totals T;
    auto add = [&](int fd, uint32_t ev) {
        epoll_event e{};
        e.events = ev;
        e.data.fd = fd;
        epoll_ctl(ep, EPOLL_CTL_ADD, fd, &e);
    };
    auto want = [&](SConn* c, uint32_t ev) {
        if (c->ev == ev) return;
        epoll_event e{};
        e.events = ev;
        e.data.fd = c->fd;
        epoll_ctl(ep, EPOLL_CTL_MOD, c->fd, &e);
        c->ev = ev;
    };
    auto drop = [&](SConn* c) {
        conns[c->fd] = nullptr;
        close(c->fd);
        T.open--;
        delete c;
    };
    add(ls, EPOLLIN);
    add(cl, EPOLLIN);
    signal(SIGPIPE, SIG_IGN);
    printf("ready\n");
    fflush(stdout);
    std::vector<epoll_event> evs(512);
    uint64_t deadline = now_ns() + 3600ull * 1000000000;
    while (now_ns() < deadline) {
        int n = epoll_wait(ep, evs.data(), evs.size(), 1000);
        for (int i = 0; i < n; i++) {
            int fd = evs[i].data.fd;
            if (fd == ls || fd == cl) {
                for (int k = 0; k < 256; k++) {
                    sockaddr_in a;
                    socklen_t l = sizeof a;
                    int c = accept4(fd, (sockaddr*)&a, &l, SOCK_NONBLOCK | SOCK_CLOEXEC);
                    if (c < 0) break;
                    if (c >= (int)conns.size()) {
                        close(c);
                        break;
                    }
                    set_nodelay(c);
                    if (fd == cl) {
                        is_ctl[c] = 1;
                        add(c, EPOLLIN);
                        continue;
                    }
                    T.conns++;
                    T.open++;
                    T.src[a.sin_addr.s_addr]++;
                    auto* s = new SConn;
                    s->fd = c;
                    conns[c] = s;
                    add(c, EPOLLIN);
                }
                continue;
            }
            if (is_ctl[fd]) {
                char b;
                ssize_t r = recv(fd, &b, 1, 0);
                if (r <= 0) {
                    is_ctl[fd] = 0;
                    close(fd);
                    continue;
                }
                char out[1024];
                int o = snprintf(out, sizeof out, "%llu %llu %llu %llu %llu %llu %llu %.6f",
                                 (unsigned long long)now_ns(), (unsigned long long)T.rx,
                                 (unsigned long long)T.tx, (unsigned long long)T.conns,
                                 (unsigned long long)T.open, (unsigned long long)T.vok,
                                 (unsigned long long)T.vbad, cpu_s());
                for (auto& p : T.src) {
                    in_addr ia;
                    ia.s_addr = p.first;
                    char s[32];
                    inet_ntop(AF_INET, &ia, s, sizeof s);
                    if (o < 900)
                        o += snprintf(out + o, sizeof out - o, " %s=%llu", s,
                                      (unsigned long long)p.second);
                }
                out[o++] = '\n';
                if (send(fd, out, o, 0) < 0) {
                }
                continue;
            }
            SConn* c = conns[fd];
            if (!c) continue;
            if (!c->op) {  // operation byte (and argument)
                char op;
                ssize_t r = recv(fd, &op, 1, 0);
                if (r <= 0) {
                    if (r == 0 || errno != EAGAIN) drop(c);
                    continue;
                }
                c->op = op;
                if (op == 'Q') {
                    char y = 'y';
                    if (send(fd, &y, 1, 0) < 0) {
                    }
                    drop(c);
                    continue;
                }
                if (op == 'K') {
                    char y = 'y';
                    if (send(fd, &y, 1, 0) < 0) {
                    }
                    continue;
                }
                if (op == 'E' || op == 'U') {
                    c->wr_done = true;
                    c->got = 4;
                } else if (op != 'D' && op != 'B' && op != 'V') {
                    drop(c);
                    continue;
                }
            }
            if (c->op == 'K') {
                ssize_t r = sink(fd);
                if (r == 0 || (r < 0 && errno != EAGAIN)) drop(c);
                continue;
            }
            if (c->op == 'E') {
                char b[65536];
                bool gone = false;
                if (c->pend.empty()) {
                    ssize_t r = recv(fd, b, sizeof b, 0);
                    if (r == 0 || (r < 0 && errno != EAGAIN))
                        gone = true;
                    else if (r > 0) {
                        T.rx += r;
                        ssize_t w = send(fd, b, r, 0);
                        if (w < 0) {
                            if (errno == EAGAIN)
                                w = 0;
                            else
                                gone = true;
                        }
                        if (!gone) {
                            T.tx += w;
                            if (w < r) {
                                c->pend.assign(b + w, r - w);
                                want(c, EPOLLOUT);
                            }
                        }
                    }
                } else {
                    ssize_t w = send(fd, c->pend.data(), c->pend.size(), 0);
                    if (w < 0) {
                        if (errno != EAGAIN) gone = true;
                    } else {
                        T.tx += w;
                        c->pend.erase(0, w);
                        if (c->pend.empty()) want(c, EPOLLIN);
                    }
                }
                if (gone) drop(c);
                continue;
            }
            if (c->got < 4) {
                ssize_t r = recv(fd, c->arg + c->got, 4 - c->got, 0);
                if (r <= 0) {
                    if (r == 0 || errno != EAGAIN) drop(c);
                    continue;
                }
                if ((c->got += r) < 4) continue;
                uint32_t v;
                memcpy(&v, c->arg, 4);
                if (c->op == 'V')
                    c->len = (uint64_t)v << 10;
                else
                    c->end_ns = now_ns() + v * 1000000ull;
                want(c, EPOLLIN | EPOLLOUT);
            }
            bool gone = false;
            if (!c->rd_eof && (evs[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
                ssize_t r = c->op == 'V' ? recv(fd, g_rbuf, CHUNK, MSG_DONTWAIT) : sink(fd);
                if (r > 0) {
                    T.rx += r;
                    if (c->op == 'V')
                        for (ssize_t k = 0; k < r; k++)
                            if ((uint8_t)g_rbuf[k] != pat(c->rx + k, 1)) {
                                c->bad = true;
                                break;
                            }
                    c->rx += r;
                } else if (r == 0)
                    c->rd_eof = true;
                else if (errno != EAGAIN)
                    gone = true;
            }
            if (!gone && !c->wr_done) {
                if (c->op == 'V') {
                    size_t m = std::min<uint64_t>(CHUNK, c->len - c->tx);
                    for (size_t k = 0; k < m; k++) g_rbuf[k] = pat(c->tx + k, 2);
                    ssize_t w = m ? send(fd, g_rbuf, m, MSG_DONTWAIT) : 0;
                    if (w < 0 && errno != EAGAIN) gone = true;
                    if (w > 0) {
                        c->tx += w;
                        T.tx += w;
                    }
                    if (!gone && c->tx == c->len && c->rx == c->len) {
                        shutdown(fd, SHUT_WR);
                        c->wr_done = true;
                    }
                } else if (now_ns() >= c->end_ns) {
                    if (c->op == 'D') shutdown(fd, SHUT_WR);
                    c->wr_done = true;
                } else
                    for (int k = 0; k < 4; k++) {
                        ssize_t w = send(fd, g_buf, CHUNK, MSG_DONTWAIT);
                        if (w < 0) {
                            if (errno != EAGAIN) gone = true;
                            break;
                        }
                        T.tx += w;
                        c->tx += w;
                        if (w < (ssize_t)CHUNK) break;
                    }
            }
            if (!gone && c->rd_eof && c->wr_done) {
                if (c->op == 'V') {
                    if (!c->bad && c->rx == c->len)
                        T.vok++;
                    else
                        T.vbad++;
                }
                gone = true;
            } else if (gone && c->op == 'V')
                T.vbad++;
            if (gone)
                drop(c);
            else
                want(c, (c->rd_eof ? 0u : (uint32_t)EPOLLIN) |
                            (c->wr_done || (c->op == 'V' && c->tx == c->len && !c->rd_eof)
                                 ? 0u
                                 : (uint32_t)EPOLLOUT));
        }
    }
    return 0;
}

// ---------------------------------------------------------------- client
struct Opt {
    string dst = "198.51.100.2:7000", ctl = "198.51.100.2:7001", dev, dir = "down",
           close = "server";
    int streams = 1, conc = 1, conns = 1, max = 40000, uid = -1, size = 64, kib = 8192;
    double secs = 2, warm = 0.3;
} o;
static sockaddr_in addr_of(const string& s) {
    size_t p = s.find(':');
    sockaddr_in a{};
    a.sin_family = AF_INET;
    if (p == string::npos || inet_pton(AF_INET, s.substr(0, p).c_str(), &a.sin_addr) != 1)
        die("bad address %s", s.c_str());
    a.sin_port = htons(atoi(s.c_str() + p + 1));
    return a;
}
struct Stat {
    uint64_t t, rx, tx, conns, open, vok, vbad;
    double cpu;
    string src;
};
static int g_ctl = -1;
static Stat ctl() {
    if (g_ctl < 0) {
        g_ctl = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a = addr_of(o.ctl);
        if (connect(g_ctl, (sockaddr*)&a, sizeof a)) die("control connection: %s", strerror(errno));
        set_nodelay(g_ctl);
    }
    if (send(g_ctl, "S", 1, 0) != 1) die("control send");
    string l;
    char b[1024];
    while (l.empty() || l.back() != '\n') {
        ssize_t r = recv(g_ctl, b, sizeof b, 0);
        if (r <= 0) die("control closed");
        l.append(b, r);
    }
    Stat s;
    unsigned long long v[7];
    int used = 0;
    sscanf(l.c_str(), "%llu %llu %llu %llu %llu %llu %llu %lf%n", v, v + 1, v + 2, v + 3, v + 4,
           v + 5, v + 6, &s.cpu, &used);
    s.t = v[0];
    s.rx = v[1];
    s.tx = v[2];
    s.conns = v[3];
    s.open = v[4];
    s.vok = v[5];
    s.vbad = v[6];
    s.src = l.substr(used);
    while (!s.src.empty() && s.src.back() == '\n') s.src.pop_back();
    return s;
}
static sockaddr_in g_dst;
static int start_connect() {  // nonblocking; -1 on immediate failure
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (!o.dev.empty() &&
        setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, o.dev.c_str(), o.dev.size() + 1))
        die("SO_BINDTODEVICE: %s", strerror(errno));
    set_nodelay(fd);
    if (connect(fd, (sockaddr*)&g_dst, sizeof g_dst) && errno != EINPROGRESS) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    return fd;
}
static int connect_wait(int ms) {
    int fd = start_connect();
    if (fd < 0) return -1;
    pollfd p{fd, POLLOUT, 0};
    int e = 0;
    socklen_t l = sizeof e;
    if (poll(&p, 1, ms) != 1) {
        close(fd);
        return -1;
    }
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &e, &l);
    if (e) {
        close(fd);
        return -1;
    }
    return fd;
}
static void abort_close(int fd) {
    linger l{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    close(fd);
}
static double pct(std::vector<uint32_t>& v,
                  double p) {  // microseconds; v sorted, holds units of 10 ns
    if (v.empty()) return -1;
    size_t i = std::min(v.size() - 1, (size_t)(p * v.size()));
    return v[i] / 100.0;
}

static int bulk() {
    bool up = o.dir != "down", down = o.dir != "up";
    struct C {
        int fd;
        uint64_t rx = 0, tx = 0;
        bool rd = false, wr = false, end = false;
        uint32_t ev;
    };
    std::vector<C> cs(o.streams);
    int ep = epoll_create1(0);
    Stat s0 = ctl();
    uint64_t next_check = 0;
    uint32_t ms = (o.warm + o.secs + 0.1) * 1000;
    for (auto& c : cs) {
        c.fd = connect_wait(3000);
        if (c.fd < 0) die("connect failed: %s", strerror(errno));
        char h[5] = {down ? (up ? 'B' : 'D') : 'U'};
        memcpy(h + 1, &ms, 4);
        if (send(c.fd, h, down ? 5 : 1, 0) < 0) die("send");
        c.wr = !up;
        c.rd = false;
        if (!up) { /* keep our half open until the server is done */
        }
        epoll_event e{};
        c.ev = e.events = EPOLLIN | (up ? (uint32_t)EPOLLOUT : 0u);
        e.data.ptr = &c;
        epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &e);
    }
    uint64_t t0 = now_ns(), w0 = t0 + o.warm * 1e9, w1 = w0 + o.secs * 1e9, stop = w1 + 100000000,
             hard = stop + 5000000000ull;
    uint64_t rx = 0, tx = 0, rx0 = 0, rx1 = 0, tw0 = 0, tw1 = 0;
    Stat a{}, b{};
    int phase = 0, left = o.streams, errs = 0;
    std::vector<epoll_event> ev(64);
    while (left > 0) {
        uint64_t t = now_ns();
        if (phase == 0 && t >= w0) {
            a = ctl();
            rx0 = rx;
            tw0 = now_ns();
            phase = 1;
        }
        if (phase == 1 && t >= w1) {
            b = ctl();
            rx1 = rx;
            tw1 = now_ns();
            phase = 2;
        }
        if (t > hard) break;
        if (up && down && t >= stop && t >= next_check) {  // all received on both sides: end
            Stat s = ctl();
            next_check = now_ns() + 5000000;
            if (s.rx - s0.rx == tx && s.tx - s0.tx == rx)
                for (auto& c : cs)
                    if (c.fd >= 0 && c.wr && !c.end) {
                        shutdown(c.fd, SHUT_WR);
                        c.end = true;
                    }
        }
        int n = epoll_wait(ep, ev.data(), ev.size(), up && down && t >= stop ? 2 : 50);
        for (int i = 0; i < n; i++) {
            C& c = *(C*)ev[i].data.ptr;
            bool gone = false;
            if (ev[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                ssize_t r = sink(c.fd);
                if (r > 0) {
                    rx += r;
                    c.rx += r;
                } else if (r == 0)
                    c.rd = true;
                else if (errno != EAGAIN) {
                    gone = true;
                    errs++;
                }
            }
            if (!gone && !c.wr) {
                if (now_ns() >= stop) {
                    if (!down) shutdown(c.fd, SHUT_WR);
                    c.wr = true;
                } else
                    for (int k = 0; k < 4; k++) {
                        ssize_t w = send(c.fd, g_buf, CHUNK, MSG_DONTWAIT);
                        if (w < 0) {
                            if (errno != EAGAIN) {
                                gone = true;
                                errs++;
                            }
                            break;
                        }
                        c.tx += w;
                        tx += w;
                        if (w < (ssize_t)CHUNK) break;
                    }
            }
            if (gone || (c.rd && c.wr)) {
                epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
                close(c.fd);
                c.fd = -1;
                left--;
                continue;
            }
            uint32_t w = (c.rd ? 0u : (uint32_t)EPOLLIN) | (c.wr ? 0u : (uint32_t)EPOLLOUT);
            if (w != c.ev) {
                epoll_event e{};
                e.events = c.ev = w;
                e.data.ptr = &c;
                epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &e);
            }
        }
    }
    Stat s1 = ctl();
    for (int k = 0; k < 100 && s1.open > s0.open; k++) {
        usleep(10000);
        s1 = ctl();
    }
    double down_gbps = phase == 2 && down ? (rx1 - rx0) * 8.0 / (tw1 - tw0) : 0,
           up_gbps = phase == 2 && up ? (b.rx - a.rx) * 8.0 / (b.t - a.t) : 0;
    bool match = (s1.rx - s0.rx) == tx && (s1.tx - s0.tx) == rx && !errs && left == 0;
    printf(
        "{\"gbps\":%.4f,\"up_gbps\":%.4f,\"down_gbps\":%.4f,\"bytes\":%llu,\"bytes_match\":%s,"
        "\"errors\":%d,\"unfinished\":%d,"
        "\"conns\":%d,\"client_cpu_s\":%.3f,\"server_cpu_s\":%.3f}\n",
        up_gbps + down_gbps, up_gbps, down_gbps, (unsigned long long)(rx + tx),
        match ? "true" : "false", errs, left, o.streams, cpu_s(), s1.cpu - s0.cpu);
    if (!match)
        fprintf(stderr,
                "bulk mismatch: client tx %llu server rx %llu, server tx %llu client rx %llu, errs "
                "%d left %d\n",
                (unsigned long long)tx, (unsigned long long)(s1.rx - s0.rx),
                (unsigned long long)(s1.tx - s0.tx), (unsigned long long)rx, errs, left);
    return 0;
}

static int cps() {
    struct C {
        int fd = -1, st = 0;
        uint64_t t0 = 0;
    };
    std::vector<C> cs(o.conc);
    int ep = epoll_create1(0);
    std::vector<uint32_t> lat, connects;
    lat.reserve(o.max);
    connects.reserve(o.max);
    Stat s0 = ctl();
    uint64_t t0 = now_ns(), w0 = t0 + o.warm * 1e9, end = w0 + o.secs * 1e9;
    uint64_t opened = 0, done = 0, errs = 0, in_win = 0, tlast = 0, first_err = 0;
    bool rst = o.close == "rst";
    std::vector<epoll_event> ev(256);
    int live = 0;
    auto open1 = [&](C& c) {
        c.t0 = now_ns();
        if (c.t0 >= end || opened >= (uint64_t)o.max || errs > 1000) return false;
        c.fd = start_connect();
        if (c.fd < 0) {
            errs++;
            first_err = first_err ? first_err : errno;
            return false;
        }
        opened++;
        c.st = 0;
        live++;
        epoll_event e{};
        e.events = EPOLLOUT;
        e.data.ptr = &c;
        epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &e);
        return true;
    };
    auto fin = [&](C& c, bool ok) {
        if (ok) {
            done++;
            uint64_t t = now_ns();
            if (t >= w0 && t < end) {
                in_win++;
                tlast = t;
            }
        } else
            errs++;
        if (rst)
            abort_close(c.fd);
        else
            close(c.fd);
        c.fd = -1;
        live--;
        open1(c);
    };
    for (auto& c : cs) open1(c);
    uint64_t hard = end + 4000000000ull;
    while (live > 0 && now_ns() < hard) {
        int n = epoll_wait(ep, ev.data(), ev.size(), 100);
        if (n == 0)
            for (auto& c : cs)
                if (c.fd >= 0 && now_ns() - c.t0 > 3000000000ull) {
                    first_err = first_err ? first_err : ETIMEDOUT;
                    fin(c, false);
                }
        for (int i = 0; i < n; i++) {
            C& c = *(C*)ev[i].data.ptr;
            if (c.st == 0) {
                uint64_t connected = now_ns();
                if (connected >= w0)
                    connects.push_back(std::min<uint64_t>((connected - c.t0) / 10, UINT32_MAX));
                if (send(c.fd, "Q", 1, 0) != 1) {
                    int e = errno;
                    first_err = first_err ? first_err : e;
                    fin(c, false);
                    continue;
                }
                epoll_event e{};
                e.events = EPOLLIN;
                e.data.ptr = &c;
                epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &e);
                c.st = 1;
                continue;
            }
            char b[16];
            ssize_t r = recv(c.fd, b, sizeof b, 0);
            if (c.st == 1) {
                if (r != 1) {
                    first_err = first_err ? first_err : (r < 0 ? errno : ENODATA);
                    fin(c, false);
                    continue;
                }
                uint64_t t = now_ns();
                if (t >= w0)
                    lat.push_back((uint32_t)std::min<uint64_t>((t - c.t0) / 10, UINT32_MAX));
                c.st = 2;
                if (rst) {
                    fin(c, true);
                    continue;
                }
                r = recv(c.fd, b, sizeof b, 0);
            }
            if (r < 0 && errno == EAGAIN) continue;
            fin(c, r == 0);
        }
    }
    usleep(50000);
    Stat s1 = ctl();
    std::sort(lat.begin(), lat.end());
    std::sort(connects.begin(), connects.end());
    double win = (std::min(end, std::max(tlast, w0 + 1)) - w0) / 1e9;
    printf(
        "{\"cps\":%.1f,\"connect_p50_us\":%.1f,\"connect_p99_us\":%.1f,\"first_byte_p50_us\":%.1f,"
        "\"first_byte_p99_us\":%.1f,\"done\":%llu,"
        "\"errors\":%llu,\"first_errno\":\"%s\",\"capped\":%s,"
        "\"conns\":%llu,\"server_conns\":%llu,\"client_cpu_s\":%.3f,\"server_cpu_s\":%.3f}\n",
        win > 0 ? in_win / win : 0, pct(connects, .5), pct(connects, .99), pct(lat, .5),
        pct(lat, .99), (unsigned long long)done, (unsigned long long)errs,
        first_err ? strerror(first_err) : "", opened >= (uint64_t)o.max ? "true" : "false",
        (unsigned long long)opened, (unsigned long long)(s1.conns - s0.conns), cpu_s(),
        s1.cpu - s0.cpu);
    return 0;
}

static int rr() {
    struct C {
        int fd;
        uint64_t t0;
        int got = 0;
    };
    std::vector<C> cs(o.conns);
    int ep = epoll_create1(0);
    std::vector<uint32_t> lat;
    lat.reserve(1 << 20);
    string msg(o.size, 'm');
    Stat s0 = ctl();
    for (auto& c : cs) {
        c.fd = connect_wait(3000);
        if (c.fd < 0) die("connect failed");
        if (send(c.fd, "E", 1, 0) != 1) die("send");
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.ptr = &c;
        epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &e);
    }
    usleep(50000);
    uint64_t t0 = now_ns(), w0 = t0 + o.warm * 1e9, end = w0 + o.secs * 1e9, sent = 0, errs = 0,
             n_win = 0;
    int live = 0;
    for (auto& c : cs) {
        c.t0 = now_ns();
        if (send(c.fd, msg.data(), o.size, 0) == o.size) {
            live++;
            sent++;
        } else
            errs++;
    }
    std::vector<epoll_event> ev(256);
    std::vector<char> b(o.size);
    while (live > 0 && now_ns() < end + 3000000000ull) {
        int n = epoll_wait(ep, ev.data(), ev.size(), 100);
        for (int i = 0; i < n; i++) {
            C& c = *(C*)ev[i].data.ptr;
            ssize_t r = recv(c.fd, b.data(), o.size - c.got, 0);
            if (r <= 0) {
                if (r < 0 && errno == EAGAIN) continue;
                errs++;
                live--;
                epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
                continue;
            }
            if ((c.got += r) < o.size) continue;
            uint64_t t = now_ns();
            c.got = 0;
            if (t >= w0 && t < end) {
                n_win++;
                if (lat.size() < (4u << 20)) lat.push_back((uint32_t)((t - c.t0) / 10));
            }
            if (t >= end || sent > 20000000) {
                live--;
                continue;
            }
            c.t0 = t;
            if (send(c.fd, msg.data(), o.size, 0) != o.size) {
                errs++;
                live--;
            } else
                sent++;
        }
    }
    for (auto& c : cs) close(c.fd);
    Stat s1 = ctl();
    std::sort(lat.begin(), lat.end());
    printf(
        "{\"rtt_p50_us\":%.1f,\"rtt_p99_us\":%.1f,\"rate\":%.0f,\"messages\":%llu,\"errors\":%llu,"
        "\"conns\":%d,\"client_cpu_s\":%.3f,\"server_cpu_s\":%.3f}\n",
        pct(lat, .5), pct(lat, .99), n_win / o.secs, (unsigned long long)sent,
        (unsigned long long)errs, o.conns, cpu_s(), s1.cpu - s0.cpu);
    return 0;
}

// Opens N connections, prints {"up":..}; on a line from stdin measures one active stream and 64-byte round trips
// among them, prints that, and on the next line (or EOF) closes everything with RST.
static int idle() {
    struct C {
        int fd = -1, st = 0;
    };
    std::vector<C> cs(o.conns);
    int ep = epoll_create1(0);
    size_t next = 0;
    int pending = 0, up = 0, errs = 0;
    uint64_t first_err = 0;
    Stat s0 = ctl();
    uint64_t t0 = now_ns(), hard = t0 + 120000000000ull;
    std::vector<epoll_event> ev(256);
    uint64_t tdone = t0;
    while ((next < cs.size() || pending > 0) && now_ns() < hard && errs < 500) {
        while (next < cs.size() && pending < 64) {
            C& c = cs[next++];
            c.fd = start_connect();
            if (c.fd < 0) {
                errs++;
                first_err = first_err ? first_err : errno;
                continue;
            }
            pending++;
            epoll_event e{};
            e.events = EPOLLOUT;
            e.data.ptr = &c;
            epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &e);
        }
        int n = epoll_wait(ep, ev.data(), ev.size(), 100);
        for (int i = 0; i < n; i++) {
            C& c = *(C*)ev[i].data.ptr;
            if (c.st == 0) {
                if (send(c.fd, "K", 1, 0) != 1) {
                    errs++;
                    pending--;
                    first_err = first_err ? first_err : errno;
                    epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
                    close(c.fd);
                    c.fd = -1;
                    continue;
                }
                epoll_event e{};
                e.events = EPOLLIN;
                e.data.ptr = &c;
                epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &e);
                c.st = 1;
                continue;
            }
            char b;
            ssize_t r = recv(c.fd, &b, 1, 0);
            if (r < 0 && errno == EAGAIN) continue;
            pending--;
            if (r == 1) {
                up++;
                c.st = 2;
                tdone = now_ns();
            } else {
                errs++;
                first_err = first_err ? first_err : (r < 0 ? errno : ENODATA);
                close(c.fd);
                c.fd = -1;
                c.st = 3;
                continue;
            }
            epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
        }
    }
    Stat s1 = ctl();
    printf(
        "{\"asked\":%d,\"up\":%d,\"errors\":%d,\"first_errno\":\"%s\",\"ramp_s\":%.3f,\"server_"
        "open\":%llu}\n",
        o.conns, up, errs, first_err ? strerror(first_err) : "", (tdone - t0) / 1e9,
        (unsigned long long)(s1.open - s0.open));
    fflush(stdout);
    char line[64];
    if (fgets(line, sizeof line, stdin)) {
        o.streams = 1;
        o.dir = "down";
        o.conns = 1;
        // still up? a lost idle connection shows as readable (EOF or RST)
        bulk();
        fflush(stdout);
        if (fgets(line, sizeof line, stdin)) {
        }
    }
    int lost = 0;
    for (auto& c : cs)
        if (c.st == 2) {
            char b;
            ssize_t r = recv(c.fd, &b, 1, MSG_DONTWAIT);
            if (r == 0 || (r < 0 && errno != EAGAIN)) lost++;
        }
    printf("{\"lost\":%d}\n", lost);
    fflush(stdout);
    for (auto& c : cs)
        if (c.fd >= 0) abort_close(c.fd);
    return 0;
}

static int verify() {
    struct C {
        int fd;
        uint64_t rx = 0, tx = 0;
        bool rd = false, wr = false, bad = false;
        uint32_t ev;
    };
    std::vector<C> cs(o.streams);
    int ep = epoll_create1(0);
    Stat s0 = ctl();
    uint64_t len = (uint64_t)o.kib << 10;
    uint32_t k32 = o.kib;
    for (auto& c : cs) {
        c.fd = connect_wait(3000);
        if (c.fd < 0) die("connect failed: %s", strerror(errno));
        char h[5] = {'V'};
        memcpy(h + 1, &k32, 4);
        if (send(c.fd, h, 5, 0) != 5) die("send");
        epoll_event e{};
        c.ev = e.events = EPOLLIN | EPOLLOUT;
        e.data.ptr = &c;
        epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &e);
    }
    uint64_t hard = now_ns() + 20000000000ull;
    int left = o.streams, errs = 0;
    std::vector<epoll_event> ev(64);
    while (left > 0 && now_ns() < hard) {
        int n = epoll_wait(ep, ev.data(), ev.size(), 100);
        for (int i = 0; i < n; i++) {
            C& c = *(C*)ev[i].data.ptr;
            bool gone = false;
            if (ev[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
                ssize_t r = recv(c.fd, g_rbuf, CHUNK, MSG_DONTWAIT);
                if (r > 0) {
                    for (ssize_t k = 0; k < r; k++)
                        if ((uint8_t)g_rbuf[k] != pat(c.rx + k, 2)) {
                            c.bad = true;
                            break;
                        }
                    c.rx += r;
                } else if (r == 0)
                    c.rd = true;
                else if (errno != EAGAIN) {
                    gone = true;
                    errs++;
                }
            }
            if (!gone && !c.wr) {
                size_t m = std::min<uint64_t>(CHUNK, len - c.tx);
                for (size_t k = 0; k < m; k++) g_rbuf[k] = pat(c.tx + k, 1);
                ssize_t w = m ? send(c.fd, g_rbuf, m, MSG_DONTWAIT) : 0;
                if (w > 0)
                    c.tx += w;
                else if (w < 0 && errno != EAGAIN) {
                    gone = true;
                    errs++;
                }
                if (!gone && c.tx == len && c.rx == len) {
                    shutdown(c.fd, SHUT_WR);
                    c.wr = true;
                }
            }
            if (gone || (c.rd && c.wr)) {
                if (c.bad || c.rx != len) errs++;
                epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
                close(c.fd);
                left--;
                continue;
            }
            uint32_t w =
                (c.rd ? 0u : (uint32_t)EPOLLIN) | (c.wr || c.tx == len ? 0u : (uint32_t)EPOLLOUT);
            if (w != c.ev) {
                epoll_event e{};
                e.events = c.ev = w;
                e.data.ptr = &c;
                epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &e);
            }
        }
    }
    Stat s1 = ctl();
    for (int k = 0; k < 100 && s1.open > s0.open; k++) {
        usleep(10000);
        s1 = ctl();
    }
    printf(
        "{\"ok\":%s,\"errors\":%d,\"unfinished\":%d,\"server_ok\":%llu,\"server_bad\":%llu,"
        "\"conns\":%d,\"sources\":\"%s\"}\n",
        !errs && !left && s1.vok - s0.vok == (uint64_t)o.streams && s1.vbad == s0.vbad ? "true"
                                                                                       : "false",
        errs, left, (unsigned long long)(s1.vok - s0.vok), (unsigned long long)(s1.vbad - s0.vbad),
        o.streams, s1.src.c_str());
    return 0;
}
static int status() {
    Stat s = ctl();
    string j;
    size_t p = 0;
    while (p < s.src.size()) {
        size_t e = s.src.find(' ', p + 1);
        if (e == string::npos) e = s.src.size();
        string kv = s.src.substr(p, e - p);
        p = e;
        while (!kv.empty() && kv[0] == ' ') kv.erase(0, 1);
        size_t q = kv.find('=');
        if (q == string::npos) continue;
        j += (j.empty() ? "" : ",") + ("\"" + kv.substr(0, q) + "\":" + kv.substr(q + 1));
    }
    printf("{\"rx\":%llu,\"tx\":%llu,\"conns\":%llu,\"open\":%llu,\"sources\":{%s}}\n",
           (unsigned long long)s.rx, (unsigned long long)s.tx, (unsigned long long)s.conns,
           (unsigned long long)s.open, j.c_str());
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 2) die("usage: loadgen server|bulk|cps|rr|idle|verify|status [--option value]...");
    string mode = argv[1];
    string addr = "198.51.100.2";
    int port = 7000, ctlp = 7001;
    for (int i = 2; i + 1 < argc; i += 2) {
        string k = argv[i];
        const char* v = argv[i + 1];
        if (k == "--addr")
            addr = v;
        else if (k == "--port")
            port = atoi(v);
        else if (k == "--ctl") {
            o.ctl = v;
            ctlp = atoi(v);
        } else if (k == "--dst")
            o.dst = v;
        else if (k == "--dev")
            o.dev = v;
        else if (k == "--uid")
            o.uid = atoi(v);
        else if (k == "--streams")
            o.streams = atoi(v);
        else if (k == "--dir")
            o.dir = v;
        else if (k == "--secs")
            o.secs = atof(v);
        else if (k == "--warm")
            o.warm = atof(v);
        else if (k == "--conc")
            o.conc = atoi(v);
        else if (k == "--max")
            o.max = atoi(v);
        else if (k == "--close")
            o.close = v;
        else if (k == "--conns")
            o.conns = atoi(v);
        else if (k == "--size")
            o.size = atoi(v);
        else if (k == "--kib")
            o.kib = atoi(v);
        else if (k == "--copy")
            g_copy = atoi(v);
        else
            die("unknown option %s", k.c_str());
    }
    if (o.secs > 60 || o.streams > 256 || o.conc > 1024 || o.conns > 60000 || o.size > 65536 ||
        o.size < 1 || o.kib > 1 << 20)
        die("out of bounds");
    raise_nofile();
    signal(SIGPIPE, SIG_IGN);
    g_buf = (char*)calloc(1, CHUNK);
    g_rbuf = (char*)malloc(CHUNK);
    memset(g_buf, 'x', CHUNK);
    if (mode == "server") return server_main(addr.c_str(), port, ctlp);
    if (o.uid >= 0 && setuid(o.uid)) die("setuid: %s", strerror(errno));
    g_dst = addr_of(o.dst);
    if (mode == "bulk") return bulk();
    if (mode == "cps") return cps();
    if (mode == "rr") return rr();
    if (mode == "idle") return idle();
    if (mode == "verify") return verify();
    if (mode == "status") return status();
    die("unknown mode %s", mode.c_str());
}

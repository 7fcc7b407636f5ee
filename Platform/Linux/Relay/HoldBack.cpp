#include "Platform/Linux/Relay/HoldBack.h"

#include <linux/filter.h>
#include <sys/socket.h>

#include <array>

namespace platform {
namespace {

// Bytes a second; 0 would mean any speed.
constexpr unsigned slowestPace = 1;

// A packet is seen from its TCP header on. It passes if nothing follows that.
constexpr std::array<sock_filter, 8> onlyWithoutContent{{
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 12),  // the header's length in words, in the upper four bits
    BPF_STMT(BPF_ALU | BPF_RSH | BPF_K, 2),  // in bytes, and what the lower four bits have become
    BPF_STMT(BPF_ALU | BPF_AND | BPF_K, 0x3c),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_X, 0, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, ~0u),
    BPF_STMT(BPF_RET | BPF_K, 0),
}};

}  // namespace

// What cannot be set leaves what the system holds on its way; the relay itself hands on no more.
void holdBackContent(int socket) {
    auto instructions = onlyWithoutContent;
    const sock_fprog program{.len = instructions.size(), .filter = instructions.data()};
    ::setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
    ::setsockopt(socket, SOL_SOCKET, SO_MAX_PACING_RATE, &slowestPace, sizeof slowestPace);
}

}  // namespace platform

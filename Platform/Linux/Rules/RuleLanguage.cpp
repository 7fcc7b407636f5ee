#include "Platform/Linux/Rules/RuleLanguage.h"

#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nftables/libnftables.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace platform::interception {

namespace {

using Clock = std::chrono::steady_clock;

// Half of what the service manager gives a daemon that is silent.
constexpr std::chrono::seconds longestRun{15};

bool sendAll(int channel, const void* bytes, std::size_t length) {
    const auto* at = static_cast<const char*>(bytes);
    while (length > 0) {
        const ssize_t sent = ::send(channel, at, length, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        at += sent;
        length -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool sendText(int channel, const std::string& text) {
    const std::uint64_t length = text.size();
    return sendAll(channel, &length, sizeof length) && sendAll(channel, text.data(), text.size());
}

// By the deadline, where there is one.
bool awaitBytes(int channel, const std::optional<Clock::time_point>& deadline) {
    for (;;) {
        const auto left =
            deadline
                ? std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now())
                      .count()
                : -1;
        if (deadline && left <= 0) return false;
        pollfd ready{channel, POLLIN, 0};
        const int count = ::poll(&ready, 1, static_cast<int>(left));
        if (count > 0) return true;
        if (count < 0 && errno != EINTR) return false;
    }
}

bool receiveAll(int channel, void* bytes, std::size_t length,
                const std::optional<Clock::time_point>& deadline) {
    auto* at = static_cast<char*>(bytes);
    while (length > 0) {
        if (!awaitBytes(channel, deadline)) return false;
        const ssize_t received = ::recv(channel, at, length, 0);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) return false;
        at += received;
        length -= static_cast<std::size_t>(received);
    }
    return true;
}

std::optional<std::string> receiveText(int channel,
                                       const std::optional<Clock::time_point>& deadline) {
    std::uint64_t length = 0;
    if (!receiveAll(channel, &length, sizeof length, deadline)) return std::nullopt;
    std::string text(length, '\0');
    if (!receiveAll(channel, text.data(), text.size(), deadline)) return std::nullopt;
    return text;
}

// The process is the same program, told apart by this argument and by a socket at this descriptor. A copy of a
// process with threads, as fork makes one, could find locks that are held for ever.
constexpr const char* argument = "--packet-rules";
constexpr int channelOfProcess = STDERR_FILENO + 1;

bool isSocketOfPair(int descriptor) {
    int domain = 0;
    socklen_t length = sizeof domain;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
           domain == AF_UNIX;
}

// Stops are for us, who then end it.
void becomeItsOwn() {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) std::signal(signal, SIG_IGN);
    ::close_range(channelOfProcess + 1, UINT_MAX, 0);
    ::prctl(PR_SET_NAME, "packet-rules");
}

[[noreturn]] void serve(int channel) {
    becomeItsOwn();
    nft_ctx* const context = nft_ctx_new(NFT_CTX_DEFAULT);
    if (!context) ::_exit(EXIT_FAILURE);
    nft_ctx_buffer_output(context);
    nft_ctx_buffer_error(context);
    // Marks may have names.
    nft_ctx_output_set_flags(context, NFT_CTX_OUTPUT_NUMERIC_SYMBOL);
    while (const auto commands = receiveText(channel, std::nullopt)) {
        const char isDone = nft_run_cmd_from_buffer(context, commands->c_str()) == 0 ? 1 : 0;
        const bool isTaken = sendAll(channel, &isDone, sizeof isDone) &&
                             sendText(channel, nft_ctx_get_output_buffer(context)) &&
                             sendText(channel, nft_ctx_get_error_buffer(context));
        if (!isTaken) break;
    }
    ::_exit(EXIT_SUCCESS);
}

// Before anything else of the program begins. glibc gives constructors the arguments of main.
[[gnu::constructor]] void serveIfAsked(int count, char** arguments) {
    if (count == 2 && std::strcmp(arguments[1], argument) == 0 && isSocketOfPair(channelOfProcess))
        serve(channelOfProcess);
}

// The process's id; none, with errno set, if it can't be started.
std::optional<pid_t> spawn(int channel) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, channel, channelOfProcess);
    std::array<char*, 3> arguments{::program_invocation_name, const_cast<char*>(argument), nullptr};
    pid_t child = 0;
    errno = ::posix_spawn(&child, "/proc/self/exe", &actions, nullptr, arguments.data(), ::environ);
    posix_spawn_file_actions_destroy(&actions);
    return errno == 0 ? std::optional(child) : std::nullopt;
}

}  // namespace

bool isPlainName(std::string_view name) {
    return std::ranges::all_of(name, [](char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 ||
               std::string_view("._-@+").find(letter) != std::string_view::npos;
    });
}

RuleLanguage::Answer RuleLanguage::run(const std::string& commands) {
    constexpr int attempts = 2;
    std::string failure;
    for (int count = 0; count < attempts; ++count) {
        if (!isThere() && !begin())
            return {false, "",
                    std::string("cannot start a process for the packet rules: ") +
                        std::strerror(errno)};
        if (auto answer = attempt(commands)) return std::move(*answer);
        failure = howItEnded();
        if (wasTooSlow) break;
    }
    return {false, "", failure};
}

bool RuleLanguage::begin() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
    FileDescriptor ours(ends[0]);
    const FileDescriptor theirs(ends[1]);
    const auto child = spawn(theirs.get());
    if (!child) return false;
    channel = std::move(ours);
    process = *child;
    return true;
}

std::optional<RuleLanguage::Answer> RuleLanguage::attempt(const std::string& commands) {
    const auto deadline = Clock::now() + longestRun;
    char isDone = 0;
    if (sendText(channel.get(), commands) &&
        receiveAll(channel.get(), &isDone, sizeof isDone, deadline)) {
        auto output = receiveText(channel.get(), deadline);
        auto failure = receiveText(channel.get(), deadline);
        if (output && failure) return Answer{isDone == 1, std::move(*output), std::move(*failure)};
    }
    wasTooSlow = Clock::now() >= deadline;
    return std::nullopt;
}

bool RuleLanguage::isThere() {
    if (process < 0) return false;
    pollfd ready{channel.get(), POLLIN, 0};
    // It says nothing unasked: what can be read is its end.
    if (::poll(&ready, 1, 0) <= 0) return true;
    end();
    return false;
}

// Ends what is left of it.
std::string RuleLanguage::howItEnded() {
    if (wasTooSlow) {
        end();
        return "the process for the packet rules has not answered in time";
    }
    channel = FileDescriptor();
    int status = 0;
    ::waitpid(std::exchange(process, -1), &status, 0);
    if (WIFSIGNALED(status))
        return "the process for the packet rules was ended by signal " +
               std::to_string(WTERMSIG(status)) +
               " (libnftables does so at rules that it does not know, or without memory)";
    return "the process for the packet rules ended with status " +
           std::to_string(WEXITSTATUS(status));
}

void RuleLanguage::end() {
    if (process < 0) return;
    channel = FileDescriptor();
    if (wasTooSlow) ::kill(process, SIGKILL);
    wasTooSlow = false;
    ::waitpid(std::exchange(process, -1), nullptr, 0);
}

}  // namespace platform::interception

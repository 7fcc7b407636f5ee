#include "Platform/Linux/HostChannel/MessageSocket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/HostChannel/HostChannelLog.h"
#include "Platform/Linux/HostChannel/TrustedAccounts.h"

namespace platform {

namespace {

// How long the listener rests when no descriptor is left for a new client.
constexpr std::chrono::milliseconds restWithoutDescriptors{200};

// How long until the next look at a place where the socket cannot be made or is not watched.
constexpr std::chrono::milliseconds restWithoutWatch{1000};

// The order of what the thread waits for; the clients come last.
enum WaitedFor : std::size_t { stop, answer, removal, newClient, firstClient };

std::optional<sockaddr_un> socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return std::nullopt;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

bool bindTo(int socket, const std::string& path) {
    const auto address = socketAddress(path);
    return address &&
           bind(socket, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0;
}

// The mode keeps strangers out already at their connect; each peer is checked all the same. Where the
// socket cannot be given to the group, it stays its owner's.
bool openToTrustedGroup(const std::string& path) {
    const auto group = trustedGroup();
    const bool isGroups = group && chown(path.c_str(), static_cast<uid_t>(-1), *group) == 0;
    if (group && !isGroups)
        hostChannelLog.error(
            "%{public}s cannot be given to the group vantry (%{public}s): only root can use it",
            path, std::strerror(errno));
    return chmod(path.c_str(), isGroups ? 0660 : 0600) == 0;
}

// Prepared under another name and moved to its own: the socket is never there with another mode or
// without somebody who listens.
FileDescriptor makeListener(const std::string& path) {
    FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const std::string unfinished = path + "." + std::to_string(getpid());
    unlink(unfinished.c_str());
    if (!listener || !bindTo(listener.get(), unfinished)) return {};
    if (openToTrustedGroup(unfinished) && ::listen(listener.get(), SOMAXCONN) == 0 &&
        rename(unfinished.c_str(), path.c_str()) == 0)
        return listener;
    const int reason = errno;
    unlink(unfinished.c_str());
    errno = reason;
    return {};
}

std::optional<ino_t> inodeAt(const std::string& path) {
    struct stat present {};
    if (lstat(path.c_str(), &present) != 0) return std::nullopt;
    return present.st_ino;
}

}  // namespace

// Answers on their way from whatever thread gave them to the socket's thread. Outlives the socket
// for completions that are still held somewhere.
class MessageSocket::Answers {
public:
    int descriptor() const { return signal.get(); }

    void put(std::uint64_t client, std::optional<Data> answer) {
        {
            const MutexGuard guard(lock);
            waiting.emplace_back(client, std::move(answer));
        }
        eventfd_write(signal.get(), 1);
    }

    std::vector<std::pair<std::uint64_t, std::optional<Data>>> takeAll() {
        eventfd_t ignored = 0;
        eventfd_read(signal.get(), &ignored);
        const MutexGuard guard(lock);
        return std::exchange(waiting, {});
    }

private:
    const FileDescriptor signal{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    Mutex lock;
    std::vector<std::pair<std::uint64_t, std::optional<Data>>> waiting GUARDED_BY(lock);
};

// What a completion holds. The client has its answer, if only that there is none, when it is gone.
struct MessageSocket::Answerer {
    Answerer(std::shared_ptr<Answers> toAnswer, std::uint64_t clientNumber)
        : answers(std::move(toAnswer)), client(clientNumber) {}
    ~Answerer() { answers->put(client, std::move(answer)); }
    Answerer(const Answerer&) = delete;
    Answerer& operator=(const Answerer&) = delete;

    const std::shared_ptr<Answers> answers;
    const std::uint64_t client;
    std::optional<Data> answer;
};

MessageSocket::MessageSocket(std::string socketPath, FolderWatch::MakeFolder makeItsFolder,
                             Handler requestHandler, Limits clientLimits)
    : path(std::move(socketPath)),
      makeFolder(std::move(makeItsFolder)),
      handler(std::move(requestHandler)),
      limits(clientLimits),
      stopSignal(eventfd(0, EFD_CLOEXEC)),
      answers(std::make_shared<Answers>()),
      folder(path.substr(0, path.rfind('/')), makeFolder, IN_DELETE | IN_MOVED_FROM) {
    listen();
    thread = std::thread([this] { serve(); });
}

MessageSocket::~MessageSocket() {
    eventfd_write(stopSignal.get(), 1);
    thread.join();
    // A daemon that came after this one may have put its own socket there.
    if (inode && inodeAt(path) == inode) unlink(path.c_str());
}

// A failure is reported once, not at every new attempt.
void MessageSocket::listen() {
    const auto made = makeFolder();
    listener = made ? makeListener(path) : FileDescriptor();
    if (!listener && !hasReportedFailure)
        hostChannelLog.error("No messages arrive for now: %{public}s cannot be made: %{public}s",
                             path, (made ? Error::last() : made.error()).text());
    hasReportedFailure = !listener;
    inode = listener ? inodeAt(path) : std::nullopt;
}

// What somebody else has put in its place, such as a daemon that came after this one, stays.
void MessageSocket::putBackIfMissing() {
    folder.read();
    if (!listener || !inodeAt(path)) {
        listen();
        if (listener) hostChannelLog.error("%{public}s was missing and has been made", path);
    }
    const bool isLookedAfter = listener && folder.isWatching();
    looksAgainAt = isLookedAfter ? Clock::time_point::max() : Clock::now() + restWithoutWatch;
}

void MessageSocket::serve() {
    while (serveOneRound()) {
    }
}

// Waits until something can be done and does it. False at the end.
bool MessageSocket::serveOneRound() {
    const bool isListening = clients.size() < limits.clients && Clock::now() >= listensAgainAt;
    std::vector<pollfd> descriptors{
        {stopSignal.get(), POLLIN, 0},
        {answers->descriptor(), POLLIN, 0},
        {folder.descriptor(), POLLIN, 0},
        {isListening ? listener.get() : -1, POLLIN, 0},
    };
    std::vector<std::uint64_t> numbers;
    for (const auto& [number, client] : clients) {
        const short wanted = client.phase == Phase::receiving ? POLLIN
                             : client.phase == Phase::sending ? POLLOUT
                                                              : short{0};
        descriptors.push_back({client.socket.get(), wanted, 0});
        numbers.push_back(number);
    }
    if (poll(descriptors.data(), descriptors.size(), millisecondsToWait()) < 0) return true;
    if (descriptors[WaitedFor::stop].revents != 0) return false;
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        const short events = descriptors[WaitedFor::firstClient + index].revents;
        auto& client = clients.at(numbers[index]);
        if (events != 0 && proceed(numbers[index], client, events) == Fate::ends)
            clients.erase(numbers[index]);
    }
    if (descriptors[WaitedFor::answer].revents != 0) takeAnswers();
    if (descriptors[WaitedFor::newClient].revents != 0) acceptClients();
    if (descriptors[WaitedFor::removal].revents != 0 || Clock::now() >= looksAgainAt)
        putBackIfMissing();
    dropLateClients();
    return true;
}

// Until the next deadline; without one, as long as it takes.
int MessageSocket::millisecondsToWait() const {
    const auto now = Clock::now();
    auto next = looksAgainAt;
    for (const auto& [number, client] : clients) next = std::min(next, client.deadline);
    if (listensAgainAt > now) next = std::min(next, listensAgainAt);
    if (next == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

void MessageSocket::acceptClients() {
    while (clients.size() < limits.clients) {
        FileDescriptor socket(
            accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!socket) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)
                listensAgainAt = Clock::now() + restWithoutDescriptors;
            return;
        }
        if (!isTrustedPeer(socket.get())) {
            hostChannelLog.error("A message from an account that is not trusted was refused");
            continue;
        }
        clients.emplace(
            ++lastNumber,
            Client{std::move(socket), Phase::receiving, Clock::now() + limits.clientTime, {}, {}});
    }
}

void MessageSocket::takeAnswers() {
    for (auto& [number, answer] : answers->takeAll()) {
        const auto found = clients.find(number);
        if (found == clients.end()) continue;
        const auto bytes = answer ? answer->bytes() : std::nullopt;
        if (!bytes || bytes->empty()) {
            clients.erase(found);
            continue;
        }
        Client& client = found->second;
        client.reply = *bytes;
        client.phase = Phase::sending;
        client.deadline = Clock::now() + limits.clientTime;
    }
}

MessageSocket::Fate MessageSocket::proceed(std::uint64_t number, Client& client, short events) {
    switch (client.phase) {
        case Phase::receiving:
            return receive(number, client);
        case Phase::sending:
            return send(client);
        case Phase::waitingForAnswer:
            // Nothing is asked for here: the client has gone and takes no reply.
            return (events & (POLLHUP | POLLERR)) != 0 ? Fate::ends : Fate::goesOn;
    }
    return Fate::ends;
}

MessageSocket::Fate MessageSocket::receive(std::uint64_t number, Client& client) {
    std::array<char, 64 * 1024> buffer;
    for (;;) {
        const ssize_t length = recv(client.socket.get(), buffer.data(), buffer.size(), 0);
        if (length < 0) return errno == EAGAIN || errno == EINTR ? Fate::goesOn : Fate::ends;
        if (length == 0) break;
        client.request.append(buffer.data(), static_cast<std::size_t>(length));
        if (client.request.size() > limits.requestBytes) {
            hostChannelLog.error("A message of more than %ld bytes was refused",
                                 limits.requestBytes);
            return Fate::ends;
        }
    }
    handle(number, client);
    return Fate::goesOn;
}

void MessageSocket::handle(std::uint64_t number, Client& client) {
    client.phase = Phase::waitingForAnswer;
    client.deadline = Clock::now() + limits.handlerTime;
    auto answerer = std::make_unique<Answerer>(answers, number);
    handler(Data(std::exchange(client.request, {})),
            [answerer = std::move(answerer)](std::optional<Data> answer) {
                answerer->answer = std::move(answer);
            });
}

MessageSocket::Fate MessageSocket::send(Client& client) {
    while (client.bytesSent < client.reply.size()) {
        const ssize_t length = ::send(client.socket.get(), client.reply.data() + client.bytesSent,
                                      client.reply.size() - client.bytesSent, MSG_NOSIGNAL);
        if (length < 0) return errno == EAGAIN || errno == EINTR ? Fate::goesOn : Fate::ends;
        client.bytesSent += static_cast<std::size_t>(length);
    }
    return Fate::ends;
}

void MessageSocket::dropLateClients() {
    const auto now = Clock::now();
    const auto dropped =
        std::erase_if(clients, [now](const auto& entry) { return entry.second.deadline <= now; });
    if (dropped > 0) hostChannelLog.info("%ld messages took too long and were dropped", dropped);
}

}  // namespace platform

// The socket through which the host application's messages arrive: a connection carries one request,
// ended by the end of writing, and at most one reply. One thread of its own serves all clients,
// several at once. Only trusted accounts are heard; what a client may take of memory and time is
// bounded, so that a slow or silent one costs no one else anything. A socket that is removed, with or
// without its folder, is made again.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"

namespace platform {

class MessageSocket {
public:
    // Takes a request and answers it, now or later and on any thread; no data is no reply. A
    // completion that is let go without an answer is no reply either. Called on the socket's thread.
    using Handler = std::function<void(Data request, Completion<std::optional<Data>> answer)>;

    struct Limits {
        std::size_t requestBytes = 8 << 20;
        std::size_t clients = 16;                    // more wait in the listener's queue
        std::chrono::milliseconds clientTime{5000};  // to send the request; again to take the reply
        std::chrono::milliseconds handlerTime{10000};  // to answer
    };

    // Listens at `path`, in place of whatever socket an earlier process left there, in a folder that
    // `makeFolder` makes sure of. Where that fails, with one line, it is tried again every second.
    MessageSocket(std::string path, FolderWatch::MakeFolder makeFolder, Handler handler,
                  Limits limits);
    // Removes the socket and ends the thread; the handler is not running any more.
    ~MessageSocket();
    MessageSocket(const MessageSocket&) = delete;
    MessageSocket& operator=(const MessageSocket&) = delete;

private:
    using Clock = std::chrono::steady_clock;
    enum class Phase { receiving, waitingForAnswer, sending };
    struct Client {
        FileDescriptor socket;
        Phase phase;
        Clock::time_point deadline;
        std::string request;
        std::string reply;
        std::size_t bytesSent = 0;
    };
    using Clients = std::map<std::uint64_t, Client>;
    class Answers;
    struct Answerer;
    enum class Fate { goesOn, ends };

    void listen();
    void putBackIfMissing();

    void serve();
    bool serveOneRound();
    int millisecondsToWait() const;
    void acceptClients();
    void takeAnswers();
    Fate proceed(std::uint64_t number, Client& client, short events);
    Fate receive(std::uint64_t number, Client& client);
    void handle(std::uint64_t number, Client& client);
    Fate send(Client& client);
    void dropLateClients();

    const std::string path;
    const FolderWatch::MakeFolder makeFolder;
    const Handler handler;
    const Limits limits;
    const FileDescriptor stopSignal;
    const std::shared_ptr<Answers> answers;
    // The thread's own.
    FolderWatch folder;
    FileDescriptor listener;
    std::optional<ino_t> inode;
    bool hasReportedFailure = false;
    Clock::time_point looksAgainAt{};
    Clients clients;
    std::uint64_t lastNumber = 0;
    Clock::time_point listensAgainAt{};
    std::thread thread;
};

}  // namespace platform

#include "Platform/Linux/Network/NameResolver.h"

#include <netdb.h>
#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <memory>
#include <thread>
#include <utility>

#include "Platform/Common/Mutex.h"
#include "Platform/Dispatch.h"

namespace platform {
namespace {

constexpr int threadCount = 4;
constexpr std::size_t mostWaiting = 1024;

struct Query {
    std::string name;
    std::uint16_t port;
    Completion<ResolvedName> completion;
};

struct FreeAddressList {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

ResolvedName lookUp(const std::string& name, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(name.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (error != 0) return {{}, error};
    const std::unique_ptr<addrinfo, FreeAddressList> list(found);
    std::vector<SocketAddress> addresses;
    for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next)
        if (const auto address = SocketAddress::from(*entry->ai_addr))
            addresses.push_back(*address);
    return {alternateFamilies(addresses), addresses.empty() ? EAI_NONAME : 0};
}

class Resolver {
public:
    static Resolver& shared() {
        // Never destroyed: its threads run until the process ends.
        static Resolver& resolver = *std::unique_ptr<Resolver>(new Resolver).release();
        return resolver;
    }

    // False if too many are waiting; the query is then left as it was.
    bool add(Query& query) {
        const MutexGuard guard(mutex);
        if (waiting.size() >= mostWaiting) return false;
        waiting.push_back(std::move(query));
        changed.notifyOne();
        return true;
    }

private:
    Resolver() {
        for (int i = 0; i < threadCount; ++i) std::thread([this] { serve(); }).detach();
    }

    [[noreturn]] void serve() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
        ::pthread_setname_np(::pthread_self(), "resolver");
        for (;;) {
            Query query = next();
            query.completion(lookUp(query.name, query.port));
        }
    }

    Query next() {
        const MutexGuard guard(mutex);
        while (waiting.empty()) changed.wait(mutex);
        Query query = std::move(waiting.front());
        waiting.pop_front();
        return query;
    }

    Mutex mutex;
    Condition changed;
    std::deque<Query> waiting GUARDED_BY(mutex);
};

}  // namespace

std::vector<SocketAddress> alternateFamilies(const std::vector<SocketAddress>& addresses) {
    if (addresses.empty()) return {};
    std::vector<SocketAddress> preferred, others, result;
    for (const auto& address : addresses)
        (address.family() == addresses.front().family() ? preferred : others).push_back(address);
    for (std::size_t i = 0; i < std::max(preferred.size(), others.size()); ++i) {
        if (i < preferred.size()) result.push_back(preferred[i]);
        if (i < others.size()) result.push_back(others[i]);
    }
    return result;
}

void resolveName(std::string name, std::uint16_t port, Completion<ResolvedName> completion) {
    Query query{std::move(name), port, std::move(completion)};
    if (Resolver::shared().add(query)) return;
    DispatchQueue::global(QualityOfService::userInitiated)
        .async([completion = std::move(query.completion)]() mutable {
            completion(ResolvedName{{}, EAI_AGAIN});
        });
}

}  // namespace platform

#include "Platform/Linux/DirectSessions.h"

#include <memory>
#include <utility>

namespace platform {

namespace {
// As many as the log of flows holds.
constexpr std::size_t mostRemembered = 1000;
}  // namespace

DirectSessions& DirectSessions::shared() {
    static auto& sessions = *new DirectSessions;  // handlers may outlive everything else
    return sessions;
}

DirectSessions::Offer::Offer(const std::string& signedAs, const FlowTuple& offered)
    : identifier(signedAs), flow(offered), before(current) {
    current = this;
}

DirectSessions::Offer::~Offer() { current = before; }

// Goes with the connection's handler.
class DirectSessions::Follower {
public:
    explicit Follower(std::uint64_t sessionNumber) : number(sessionNumber) {}
    ~Follower() { shared().end(number); }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    void tell(const NWConnection::State& state) const { shared().tell(number, state); }

private:
    const std::uint64_t number;
};

DirectSessions::StateHandler DirectSessions::following(StateHandler handler) {
    const auto* offer = Offer::current;
    if (offer == nullptr || !handler) return handler;
    const auto number = shared().begin({.identifier = offer->identifier, .flow = offer->flow});
    return [follower = std::make_shared<const Follower>(number),
            handler = std::move(handler)](const NWConnection::State& state) {
        follower->tell(state);
        handler(state);
    };
}

std::vector<DirectSession> DirectSessions::list() const {
    const MutexGuard guard(lock);
    std::vector<DirectSession> all;
    all.reserve(living.size() + over.size());
    for (const auto& [number, session] : living) all.push_back(session);
    all.insert(all.end(), over.begin(), over.end());
    return all;
}

std::uint64_t DirectSessions::begin(DirectSession session) {
    const MutexGuard guard(lock);
    living.emplace(++lastNumber, std::move(session));
    return lastNumber;
}

void DirectSessions::tell(std::uint64_t number, const NWConnection::State& state) {
    using Kind = NWConnection::State::Kind;
    const MutexGuard guard(lock);
    const auto found = living.find(number);
    if (found == living.end()) return;
    auto& session = found->second;
    if (state.kind == Kind::ready) session.phase = DirectSession::Phase::open;
    const bool isNews = state.kind == Kind::waiting || state.kind == Kind::failed;
    if (isNews && state.error) session.error = state.error->localizedDescription;
}

void DirectSessions::end(std::uint64_t number) {
    using Phase = DirectSession::Phase;
    const MutexGuard guard(lock);
    auto entry = living.extract(number);
    if (!entry) return;
    auto& session = over.emplace_back(std::move(entry.mapped()));
    session.phase = session.phase == Phase::open ? Phase::ended : Phase::failed;
    if (over.size() > mostRemembered) over.pop_front();
}

}  // namespace platform

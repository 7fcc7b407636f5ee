#include "Platform/Linux/Daemon/Interception.h"

#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <set>
#include <utility>

#include "Platform/Linux/Decisions/NetworkRules.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/SystemError.h"

namespace platform::interception {

namespace {

constexpr std::chrono::seconds betweenHousekeepings{5};
constexpr std::chrono::seconds betweenReturnsOfMemory{60};
// Less is not worth the work.
constexpr std::size_t unusedMemoryKept = std::size_t{8} << 20;
constexpr std::chrono::milliseconds firstDelay{100};
constexpr std::chrono::milliseconds longestDelay{2000};

std::set<std::uint8_t> protocolsOf(const Offers& offers) {
    if (offers.filterAction) return {IPPROTO_TCP, IPPROTO_UDP};
    std::set<std::uint8_t> protocols;
    for (const NENetworkRule& rule : offers.proxyRules) {
        if (rule.protocol != NENetworkRule::Protocol::UDP) protocols.insert(IPPROTO_TCP);
        if (rule.protocol != NENetworkRule::Protocol::TCP) protocols.insert(IPPROTO_UDP);
    }
    return protocols;
}

// What threads have freed stays in the allocator's arenas, one for each few threads, until it is handed back: after a
// busy hour that is more than what is in use.
void returnFreedMemory() {
    if (mallinfo2().fordblks > unusedMemoryKept) malloc_trim(0);
}

int millisecondsUntil(std::chrono::steady_clock::time_point instant) {
    using namespace std::chrono;
    const auto left = ceil<milliseconds>(instant - steady_clock::now());
    return std::max(0, static_cast<int>(left.count()));
}

}  // namespace

Interception::Interception(Providers providers, Choices choices)
    : decisions(std::move(providers)),
      path(decisions, choices.carriage, choices.ownership, choices.limits),
      wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      nextTry(Clock::now()),
      nextHousekeeping(Clock::now() + betweenHousekeepings),
      nextReturnOfMemory(Clock::now() + betweenReturnsOfMemory) {
    settingsThread = std::thread([this] { serveSettings(); });
}

Interception::~Interception() {
    std::deque<Setting> unserved;
    {
        const MutexGuard guard(lock);
        isStopping = true;
    }
    eventfd_write(wakeUp.get(), 1);
    settingsThread.join();
    {
        const MutexGuard guard(lock);
        unserved.swap(waiting);
    }
    for (Setting& setting : unserved)
        if (setting.completion) setting.completion(systemError(ECANCELED));
}

void Interception::setProxyRules(std::vector<NENetworkRule> rules, ErrorCompletion completion) {
    apply([rules = std::move(rules)](Offers& offers) { offers.proxyRules = rules; },
          std::move(completion));
}

void Interception::setFilterAction(std::optional<NEFilterAction> action,
                                   ErrorCompletion completion) {
    apply([action](Offers& offers) { offers.filterAction = action; }, std::move(completion));
}

void Interception::setRulesChanging(bool areChanging) {
    decisions.setRulesChanging(areChanging);
    if (areChanging) return;
    areDatagramsDue = true;
    eventfd_write(wakeUp.get(), 1);
    // One setting does for all changes before it is carried out.
    if (isFilterDue.exchange(true)) return;
    apply(
        [this](Offers& offers) {
            isFilterDue = false;
            ++offers.changesOver;
        },
        {});
}

void Interception::setDirectDatagrams(bool areDirect) {
    apply([areDirect](Offers& offers) { offers.areDatagramsDirect = areDirect; }, {});
}

void Interception::apply(Change change, ErrorCompletion completion) {
    {
        const MutexGuard guard(lock);
        waiting.push_back({isEnding ? Change() : std::move(change), std::move(completion)});
        isAllInForce = false;
    }
    eventfd_write(wakeUp.get(), 1);
}

void Interception::endOffers(ErrorCompletion completion) {
    {
        const MutexGuard guard(lock);
        for (Setting& setting : waiting) setting.change = nullptr;
        isEnding = true;
        waiting.push_back({[](Offers& offers) {
                               offers.proxyRules.clear();
                               offers.filterAction.reset();
                               offers.areDatagramsDirect = false;
                           },
                           std::move(completion)});
        isAllInForce = false;
    }
    eventfd_write(wakeUp.get(), 1);
}

bool Interception::isInForce() const {
    const MutexGuard guard(lock);
    return isAllInForce;
}

std::optional<Error> Interception::failure() const {
    const MutexGuard guard(lock);
    return fatal;
}

void Interception::serveSettings() {
    while (waitForWork()) carryOutSettings();
}

// False when the end has come.
bool Interception::waitForWork() {
    std::array<pollfd, 3> polled{{{wakeUp.get(), POLLIN, 0},
                                  {path.ruleEvents(), POLLIN, 0},
                                  {path.routeEvents(), POLLIN, 0}}};
    const auto until = triesInVain > 0 ? std::min(nextTry, nextHousekeeping) : nextHousekeeping;
    poll(polled.data(), polled.size(), millisecondsUntil(until));
    eventfd_t ignored = 0;
    eventfd_read(wakeUp.get(), &ignored);
    if (polled[1].revents != 0) path.rulesHaveChanged();
    if (polled[2].revents != 0) path.routesHaveChanged();
    if (areDatagramsDue.exchange(false) && decisions.offers()->areDatagramsDirect)
        decisions.offerSteeredDatagramsAgain();
    // Due whatever else happens: addresses are kept for a limited time.
    if (Clock::now() >= nextHousekeeping) {
        nextHousekeeping = Clock::now() + betweenHousekeepings;
        decisions.keepHouse();
        path.keepHouse();
    }
    if (Clock::now() >= nextReturnOfMemory) {
        nextReturnOfMemory = Clock::now() + betweenReturnsOfMemory;
        returnFreedMemory();
    }
    const MutexGuard guard(lock);
    return !isStopping;
}

void Interception::carryOutSettings() {
    if (!isTryDue()) return;
    while (const auto change = firstChange()) {
        const Result<> done = *change ? carryOut(*change) : Error(ECANCELED, "offer flows");
        if (!done && *change && canBeRetried(done.error())) return postpone(done.error());
        if (done) sayItIsOver();
        finishFirst(done);
    }
}

bool Interception::isTryDue() const {
    const MutexGuard guard(lock);
    return isEnding || triesInVain == 0 || Clock::now() >= nextTry;
}

std::optional<Interception::Change> Interception::firstChange() {
    const MutexGuard guard(lock);
    if (waiting.empty()) return std::nullopt;
    return waiting.front().change;
}

void Interception::finishFirst(const Result<>& outcome) {
    ErrorCompletion completion;
    {
        const MutexGuard guard(lock);
        completion = std::move(waiting.front().completion);
        waiting.pop_front();
        isAllInForce = path.isInstalled() && waiting.empty();
        if (!outcome && !isEnding) fatal = outcome.error();
    }
    if (completion)
        completion(outcome ? std::nullopt : std::optional(systemError(outcome.error())));
}

// Once flows have been offered everything that is needed has been seen to work.
bool Interception::canBeRetried(const Error& error) const {
    constexpr std::array passing{EBUSY, EINTR, EAGAIN, ENOBUFS, ENOMEM, ETIMEDOUT};
    return path.isInstalled() || std::ranges::find(passing, error.code()) != passing.end();
}

void Interception::postpone(const Error& error) {
    const auto delay = std::min(firstDelay * (1u << std::min(triesInVain, 5u)), longestDelay);
    nextTry = Clock::now() + delay;
    ++triesInVain;
    if (notInForce.begin(error.text()))
        platformLog.error("Settings are not in force and are tried again: %{public}s",
                          error.text());
}

void Interception::sayItIsOver() {
    triesInVain = 0;
    if (notInForce.end()) platformLog.info("Settings are in force after all");
}

Result<> Interception::carryOut(const Change& change) {
    const auto before = decisions.offers();
    Offers wanted = *before;
    change(wanted);
    const bool isOfferedAgain = !keepsAllRules(before->proxyRules, wanted.proxyRules) ||
                                before->areDatagramsDirect != wanted.areDatagramsDirect;
    needsFlush |= path.isInstalled() && !wanted.proxyRules.empty() && isOfferedAgain;
    needsFilter |=
        path.isInstalled() && wanted.filterAction && before->changesOver != wanted.changesOver;
    wereDatagramsDirect |= before->areDatagramsDirect;
    if (auto put = path.offer(protocolsOf(wanted), before->generation); !put) return put;
    decisions.setOffers(wanted);
    return needsFlush || needsFilter ? offerAgain(std::move(wanted)) : Result<>();
}

// From here on verdicts carry the new generation, and those that were asked for before don't.
Result<> Interception::offerAgain(Offers offers) {
    ++offers.generation;
    if (needsFlush) offers.flush = offers.generation;
    if (auto offered = path.offerAgain(offers.generation, offers.flush); !offered) return offered;
    decisions.setOffers(std::move(offers));
    if (needsFlush && wereDatagramsDirect) decisions.offerSteeredDatagramsAgain();
    needsFlush = needsFilter = wereDatagramsDirect = false;
    return {};
}

}  // namespace platform::interception

#include "Platform/Linux/Recording/Recorder.h"

#include <utility>

namespace platform::recording {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t mostWaiting = 16 << 20;
constexpr std::size_t mostOfState = 4 << 20;
constexpr std::size_t mostStateCalls = 256;
// The start and its completions stay.
constexpr std::size_t stateCallsOfStart = 8;
constexpr std::chrono::seconds longestWithoutFetch{10};
constexpr std::size_t usualCall = 400;

}  // namespace

Recorder& Recorder::shared() {
    static auto& recorder = *new Recorder;  // calls may outlive everything else
    return recorder;
}

std::int64_t Recorder::microseconds() {
    static const auto origin = Clock::now();
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - origin).count();
}

std::optional<std::int64_t> Recorder::start() {
    const MutexGuard guard(lock);
    endIfForgotten();
    if (isRecording()) return std::nullopt;
    waiting.assign(recorded::head).append(std::to_string(recorded::format));
    waiting.append(" ").append(std::to_string(stateCallsDropped)).append("\n");
    for (const auto& call : stateCalls) waiting += call;
    waiting += "recording\n";
    lost = 0;
    knownTokens.clear();
    lastFetch = Clock::now();
    recording = true;
    return ++present;
}

bool Recorder::stop(std::int64_t number) {
    const MutexGuard guard(lock);
    if (number != present) return false;
    return recording.exchange(false);
}

Recorder::Piece Recorder::fetch(std::int64_t number) {
    const MutexGuard guard(lock);
    if (number != present) return {};
    lastFetch = Clock::now();
    return {std::exchange(waiting, {}), lost, !isRecording()};
}

void Recorder::take(std::string lines, bool isOfState) {
    const MutexGuard guard(lock);
    endIfForgotten();
    if (isRecording()) {
        if (waiting.size() + lines.size() > mostWaiting)
            ++lost;
        else
            waiting += lines;
    }
    if (isOfState) keep(std::move(lines));
}

void Recorder::endIfForgotten() {
    if (!isRecording() || Clock::now() - lastFetch <= longestWithoutFetch) return;
    recording = false;
    waiting.clear();
    waiting.shrink_to_fit();
}

void Recorder::keep(std::string lines) {
    stateBytes += lines.size();
    stateCalls.push_back(std::move(lines));
    while ((stateCalls.size() > mostStateCalls || stateBytes > mostOfState) &&
           stateCalls.size() > stateCallsOfStart + 1) {
        const auto oldest = stateCalls.begin() + stateCallsOfStart;
        stateBytes -= oldest->size();
        stateCalls.erase(oldest);
        ++stateCallsDropped;
    }
}

bool Recorder::isNews(const Data& auditToken) {
    const auto bytes = auditToken.bytes().value_or("");
    const MutexGuard guard(lock);
    if (knownTokens.contains(bytes)) return false;
    knownTokens.emplace(bytes);
    return true;
}

Call::Call(Kind kindOfCall, std::string_view name)
    : kind(kindOfCall),
      isWritten(kindOfCall == Kind::ofState || Recorder::isRecording()),
      around(present) {
    present = this;
    if (!isWritten) return;
    ownNumber = Recorder::nextNumber();
    begun = Recorder::microseconds();
    given.reserve(usualCall);
    given.word(name);
}

Call::~Call() {
    present = around;
    if (!isWritten) return;
    recorded::Fields all;
    all.reserve(given.text().size() + answer.text().size() + inside.text().size() + usualCall / 4);
    all.line('>').number(ownNumber).number(Recorder::nextNumber()).number(begun);
    all.append(given);
    all.word("|");
    all.append(answer);
    auto lines = all.take();
    lines += '\n';
    if (!inside.text().empty()) lines.append(inside.text()) += '\n';
    Recorder::shared().take(std::move(lines), kind == Kind::ofState);
}

void addError(recorded::Fields& fields, const std::optional<NSError>& error) {
    if (error)
        fields.number(error->code);
    else
        fields.none();
}

}  // namespace platform::recording

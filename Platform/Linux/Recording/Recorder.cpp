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
constexpr std::int64_t longestWithoutFetch = 10'000'000;  // microseconds
constexpr std::size_t usualCall = 400;
constexpr std::size_t mostRoomOfThread = 64 << 10;

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
    const auto now = microseconds();
    const MutexGuard guard(lock);
    endIfForgotten(now);
    if (isRecording()) return std::nullopt;
    waiting.assign(recorded::head).append(std::to_string(recorded::format));
    waiting.append(" ").append(std::to_string(stateCallsDropped)).append("\n");
    for (const auto& call : stateCalls) waiting += call;
    waiting += "recording\n";
    lost = 0;
    knownTokens.clear();
    lastFetch = now;
    recording = true;
    return ++present;
}

bool Recorder::stop(std::int64_t number) {
    const MutexGuard guard(lock);
    if (number != present) return false;
    return recording.exchange(false);
}

Recorder::Piece Recorder::fetch(std::int64_t number) {
    const auto now = microseconds();
    const MutexGuard guard(lock);
    if (number != present) return {};
    lastFetch = now;
    Piece piece{std::exchange(waiting, std::exchange(room, {})), lost, !isRecording()};
    if (piece.isOver) freeRoom();
    return piece;
}

void Recorder::giveBack(std::string lines) {
    lines.clear();
    const MutexGuard guard(lock);
    if (isRecording()) room = std::move(lines);
}

void Recorder::freeRoom() {
    waiting = {};
    room = {};
}

void Recorder::take(std::string_view lines, bool isOfState, std::int64_t begun) {
    const MutexGuard guard(lock);
    endIfForgotten(begun);
    if (isRecording()) {
        if (waiting.size() + lines.size() > mostWaiting)
            ++lost;
        else
            waiting += lines;
    }
    if (isOfState) keep(std::string(lines));
}

void Recorder::endIfForgotten(std::int64_t now) {
    if (!isRecording() || now - lastFetch <= longestWithoutFetch) return;
    recording = false;
    freeRoom();
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
    std::swap(text, room);
    text.reserve(usualCall);
    text.line('>').number(ownNumber).number(begun).word(name);
}

Call::~Call() {
    present = around;
    if (!isWritten) return;
    text.line('.').number(Recorder::nextNumber()).endLine();
    Recorder::shared().take(text.text(), kind == Kind::ofState, begun);
    if (text.capacity() > mostRoomOfThread) return;
    text.clear();
    std::swap(text, room);
}

void addError(recorded::Fields& fields, const std::optional<NSError>& error) {
    if (error)
        fields.number(error->code);
    else
        fields.none();
}

}  // namespace platform::recording

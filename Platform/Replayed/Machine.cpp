#include "Platform/Replayed/Machine.h"

#include <algorithm>
#include <utility>

namespace platform::replayed {

namespace {

bool isAbout(const recorded::Line& line, std::string_view question) {
    return line.at(0).text == question;
}

std::string keyOf(std::string_view question, std::string_view about) {
    return std::string(question).append(" ").append(about);
}

bool isQuestion(const recorded::Line& line) {
    const auto& name = line.at(0).text;
    return name == "file" || name == "parent" || name == "executable" || name == "bundle" ||
           name == "configuration";
}

std::string keyOf(const recorded::Line& line) {
    const bool isPlain = isAbout(line, "configuration");
    return keyOf(line.at(0).text, isPlain ? "" : line.at(1).text);
}

}  // namespace

Machine& Machine::shared() {
    static auto& machine = *new Machine;  // the core's objects may outlive everything else
    return machine;
}

// Of what is asked before the recording has it answered, the first answer counts.
void Machine::load(const Recording& recording) {
    for (const auto& call : recording.calls) {
        callsByNumber.emplace(call.number, &call);
        for (const auto& line : call.asked)
            if (isQuestion(line)) answers.emplace(keyOf(line), line);
    }
}

void Machine::learn(const RecordedCall& call) {
    for (const auto& line : call.asked)
        if (isQuestion(line)) answers.insert_or_assign(keyOf(line), line);
}

void Machine::begin(const RecordedCall& call) {
    present = &call;
    heldBackInCall.clear();
    asksInCall.clear();
    worksInCall = 0;
    learn(call);
}

const recorded::Line* Machine::answerTo(std::string_view question, std::string_view about) {
    const auto key = keyOf(question, about);
    const auto found = answers.find(key);
    if (found != answers.end()) return &found->second;
    questionsWithoutAnswer.insert(key);
    return nullptr;
}

void Machine::act(std::uint64_t number, std::string action) {
    checkNoFieldLockIsHeld(action.c_str());
    session(number).actions.push_back(std::move(action));
}

void Machine::holdBack(std::uint64_t number) {
    act(number, "holdBack");
    session(number).heldBackIn = presentNumber();
    heldBackInCall.push_back(number);
}

void Machine::ask(std::string what) {
    checkNoFieldLockIsHeld(what.c_str());
    asksInCall.push_back(std::move(what));
}

// Sessions that a change ends are held back one after the other, and then get their turns in the same
// order, which is another one each time.
void Machine::later(double, DispatchQueue::Work work) {
    checkNoFieldLockIsHeld("asyncAfter");
    std::uint64_t ofSession = 0;
    if (!heldBackInCall.empty()) {
        ofSession = heldBackInCall.front();
        heldBackInCall.pop_front();
    }
    works.push_back({presentNumber(), worksInCall++, ofSession, std::move(work)});
}

std::uint64_t Machine::sessionOfRecordedWork(std::uint64_t origin, int index) const {
    const auto found = callsByNumber.find(origin);
    if (found == callsByNumber.end()) return 0;
    std::deque<std::uint64_t> heldBack;
    for (const auto& line : found->second->asked) {
        if (isAbout(line, "holdBack"))
            heldBack.push_back(static_cast<std::uint64_t>(line.at(1).number()));
        if (!isAbout(line, "later")) continue;
        const auto next = heldBack.empty() ? 0 : heldBack.front();
        if (line.at(1).number() == index) return next;
        if (!heldBack.empty()) heldBack.pop_front();
    }
    return 0;
}

bool Machine::runWork(std::uint64_t origin, int index) {
    const auto ofSession = sessionOfRecordedWork(origin, index);
    const auto found = std::ranges::find_if(works, [&](const Work& each) {
        const bool isSame = ofSession ? each.ofSession == ofSession : each.index == index;
        return each.origin == origin && isSame;
    });
    if (found == works.end()) return false;
    auto work = std::move(found->work);
    works.erase(found);
    work();
    return true;
}

void Machine::step() {
    if (!stepWatcher) return;
    const auto watcher = std::exchange(stepWatcher, nullptr);
    watcher();
    stepWatcher = watcher;
}

void Machine::breach(const std::string& what) {
    broken.insert("call " + std::to_string(presentNumber()) + ": " + what);
}

}  // namespace platform::replayed

#include "Platform/Simulated/Exploration.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <utility>

#include "Platform/Simulated/World.h"

namespace platform::simulated {
namespace {

// What a process is at, for its parent to see.
using SharedSeed = std::shared_ptr<std::uint64_t>;

SharedSeed makeSharedSeed() {
    void* const page = mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return nullptr;
    return {static_cast<std::uint64_t*>(page),
            [](std::uint64_t* mapped) { munmap(mapped, sizeof *mapped); }};
}

struct Child {
    SharedSeed seed;
    int outputFile;
};

std::string readAll(int file) {
    std::string all;
    char buffer[4096];
    lseek(file, 0, SEEK_SET);
    for (ssize_t length; (length = read(file, buffer, sizeof buffer)) > 0;)
        all.append(buffer, static_cast<std::size_t>(length));
    return all;
}

// Plays one seed after the other, up to the first that fails; what the last one printed is kept.
[[noreturn]] void playIn(int outputFile, std::uint64_t& seed, std::uint64_t count, double seconds,
                         const std::function<bool(std::uint64_t)>& story) {
    dup2(outputFile, STDOUT_FILENO);
    dup2(outputFile, STDERR_FILENO);
    for (; count > 0; --count) {
        alarm(static_cast<unsigned>(seconds) + 1);
        const bool isWell = story(seed);
        std::fflush(nullptr);
        if (!isWell) _exit(1);
        if (count == 1 || ftruncate(outputFile, 0) != 0) break;
        lseek(outputFile, 0, SEEK_SET);
        ++seed;
    }
    _exit(0);
}

std::string describeStatus(int status) {
    if (WIFSIGNALED(status)) {
        if (WTERMSIG(status) == SIGALRM) return "it did not come to an end";
        return "signal " + std::to_string(WTERMSIG(status));
    }
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

class Children {
public:
    explicit Children(const Exploration& toRun, const std::function<bool(std::uint64_t)>& toPlay)
        : exploration(toRun), story(toPlay) {}

    std::size_t count() const { return running.size(); }

    std::optional<FailedSeed> begin(std::uint64_t seed, std::uint64_t count) {
        const auto current = makeSharedSeed();
        if (!current) return FailedSeed{seed, "no memory could be had for it", {}};
        *current = seed;
        const int file = memfd_create("story", MFD_CLOEXEC);
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) playIn(file, *current, count, exploration.secondsPerSeed, story);
        if (pid < 0) {
            close(file);
            return FailedSeed{seed, "no process could be made for it", {}};
        }
        running.emplace(pid, Child{current, file});
        return std::nullopt;
    }

    // Waits for one of ours to end.
    std::optional<FailedSeed> finishOne() {
        int status = 0;
        const auto first = running.begin();
        const pid_t pid = running.size() == 1 ? waitpid(first->first, &status, 0) : wait(&status);
        const auto found = running.find(pid);
        if (found == running.end()) return std::nullopt;
        const Child child = found->second;
        running.erase(found);
        std::optional<FailedSeed> failed;
        if (status != 0)
            failed = FailedSeed{*child.seed, describeStatus(status), readAll(child.outputFile)};
        close(child.outputFile);
        return failed;
    }

private:
    const Exploration& exploration;
    const std::function<bool(std::uint64_t)>& story;
    std::map<pid_t, Child> running;
};

}  // namespace

std::optional<FailedSeed> explore(const Exploration& exploration,
                                  const std::function<bool(std::uint64_t seed)>& story) {
    if (const auto only = seedFromEnvironment()) {
        if (story(*only)) return std::nullopt;
        return FailedSeed{*only, "it failed in this process", {}};
    }
    Children children(exploration, story);
    std::optional<FailedSeed> failed;
    const auto keepFirst = [&failed](std::optional<FailedSeed> other) {
        if (other && (!failed || other->seed < failed->seed)) failed = std::move(other);
    };
    for (std::uint64_t i = 0; i < exploration.seeds && !failed; i += exploration.seedsPerProcess) {
        const auto count = std::min(exploration.seedsPerProcess, exploration.seeds - i);
        keepFirst(children.begin(exploration.firstSeed + i, count));
        while (children.count() >= exploration.processesAtOnce) keepFirst(children.finishOne());
    }
    while (children.count() > 0) keepFirst(children.finishOne());
    return failed;
}

}  // namespace platform::simulated

// Touches against a model of inotify: programs post in every shape and read, all at once, and the kernel
// makes one event of equal neighbours. Every post is heard after it began, at the latest when its last
// event has been read; reading is no post; a post that meets no one is heard once.

#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Fuzz/Input.h"
#include "Platform/Linux/HostChannel/NotificationTouches.h"

namespace {

using platform::FolderWatch;

struct Shape {
    std::vector<std::uint32_t> events;
    int posts = 1;
};
const std::array<Shape, 6> shapes{{
    {{IN_OPEN, IN_ATTRIB, IN_CLOSE_WRITE}},                // touch
    {{IN_OPEN, IN_CLOSE_WRITE}},                           // the shell's >
    {{IN_ATTRIB}},                                         // utime of the path
    {{IN_MOVED_TO}},                                       // another file in its place
    {{IN_OPEN, IN_CLOSE_NOWRITE}, 0},                      // reading
    {{IN_OPEN, IN_ATTRIB, IN_ATTRIB, IN_CLOSE_WRITE}, 2},  // touched twice while open
}};

struct Program {
    const Shape* shape;
    std::string name;
    std::size_t done = 0;
    bool isAlone = true;
    int deliveries = 0;

    bool hasEnded() const { return done == shape->events.size(); }
};

class Folder {
public:
    void begin(const Shape& shape, std::string name) {
        Program program{&shape, std::move(name)};
        for (auto& other : programs)
            if (other.name == program.name) other.isAlone = program.isAlone = false;
        programs.push_back(std::move(program));
        goOn(programs.size() - 1);
    }

    void goOn(std::size_t index) {
        auto& program = programs[index];
        if (program.hasEnded()) return;
        const FolderWatch::Event event{program.name, program.shape->events[program.done++]};
        if (program.shape->posts > 0) posted.insert(program.name);
        const bool isMerged =
            !queue.empty() && queue.back().name == event.name && queue.back().mask == event.mask;
        if (!isMerged) queue.push_back(event);
        story += event.name + " " + std::to_string(event.mask) + "\n";
    }

    void read() {
        const auto names = touches.touchedNames(std::exchange(queue, {}));
        story += "read\n";
        for (const auto& name : names) {
            fuzz::require(posted.contains(name), "heard without a post", story);
            for (auto& program : programs)
                if (program.name == name) ++program.deliveries;
        }
        posted.clear();
        for (const auto& program : programs) {
            if (!program.hasEnded() || program.shape->posts == 0) continue;
            fuzz::require(program.deliveries > 0, "a post is unheard", story);
            fuzz::require(!program.isAlone || program.deliveries <= program.shape->posts,
                          "heard twice", story);
        }
        std::erase_if(programs, [](const Program& program) { return program.hasEnded(); });
    }

    std::size_t size() const { return programs.size(); }

private:
    platform::NotificationTouches touches;
    std::vector<FolderWatch::Event> queue;
    std::vector<Program> programs;  // those that go on, or ended since the last read
    std::set<std::string> posted;   // names with an event of a post since then
    std::string story;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input({data, size});
    Folder folder;
    while (!input.isEmpty()) {
        const auto choice = input.below(8);
        if (choice < 2)
            folder.begin(shapes[input.below(shapes.size())], input.oneIn(4) ? "b" : "a");
        else if (choice == 2)
            folder.read();
        else if (folder.size() > 0)
            folder.goOn(input.below(folder.size()));
    }
    folder.read();
    return 0;
}

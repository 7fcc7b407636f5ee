// Has libnftables carry out commands of the packet rules' language, in a process of its own: at rules that it
// does not know, or where the kernel is short of memory, that library ends the process that it is in. The process
// holds nothing of ours but the way to it, and ends with this object or with us, whatever ends us. A table that
// commands give an owner goes with it. One thread.
//
//   State     | run                          | it ends, or is silent too long      | end
//   none      | begun, then as waiting       |                                     | none
//   waiting   | carried out: waiting         | none; the next run begins another   | none
//   at work   |                              | none; run once more in another one  |
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/FileDescriptor.h"

namespace platform::interception {

// Whether the name of an interface can stand in commands, in quotes. The kernel allows quotes and brackets in names, and the
// language has no way to escape them: where this is false the interface's number has to do.
bool isPlainName(std::string_view name);

class RuleLanguage {
public:
    RuleLanguage() = default;
    ~RuleLanguage() { end(); }
    RuleLanguage(const RuleLanguage&) = delete;
    RuleLanguage& operator=(const RuleLanguage&) = delete;

    struct Answer {
        bool isDone = false;
        std::string output;
        std::string failure;  // the library's words, or what became of its process
    };
    // Commands may be carried out twice, the second time from where a process that ended had brought them.
    Answer run(const std::string& commands);

    // Whether there is a process, with what it owns.
    bool isThere();
    // Readable when the process has ended; -1 while there is none.
    int descriptor() const { return channel.get(); }
    void end();

private:
    bool begin();
    std::optional<Answer> attempt(const std::string& commands);
    std::string howItEnded();

    FileDescriptor channel;
    pid_t process = -1;
    bool wasTooSlow = false;
};

}  // namespace platform::interception

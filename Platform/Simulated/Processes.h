// The processes and bundles of the simulated machine: who runs, as whose child, from which path, and
// which directories are bundles with which identifiers. Tests build the table and may change it at
// any moment; the core asks through proc_pidinfo, proc_pidpath and NSBundle. Any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Common/Data.h"
#include "Platform/Common/Mutex.h"

namespace platform::simulated {

// A process, as tests name it. What is left out is chosen: the id, an ordinary user, no parent.
struct Process {
    std::string path = {};
    std::int32_t pid = 0;
    std::int32_t parent = 1;
    std::uint32_t effectiveUserId = 501;
    // What the flows of the process carry as sourceAppSigningIdentifier.
    std::string signingIdentifier = {};
    // Word 7 of its audit token; another one after an exec or a reuse of the id.
    std::uint32_t version = 1;

    Data auditToken() const;
};

// The 32 bytes of an audit token: word 1 the effective user id, word 5 the process id, word 7 the
// version, in the machine's byte order.
Data makeAuditToken(std::uint32_t effectiveUserId, std::int32_t pid, std::uint32_t version = 1);

class Processes {
public:
    // Adds a process, or replaces the one with its id; gives it an id of its own if it has none.
    Process add(Process process);
    void end(std::int32_t pid);
    void setParent(std::int32_t pid, std::int32_t parent);

    // Makes a directory a bundle, with an identifier or with none. Every other path is no bundle
    // and fails to open.
    void addBundle(std::string_view path, std::optional<std::string> identifier);

    // The paths at which the core tried to open bundles, in order, and how often it asked about
    // processes: to see caches at work.
    std::vector<std::string> bundlesAskedFor() const;
    std::uint64_t questions() const { return processQuestions.load(std::memory_order_relaxed); }
    void forgetQuestions();

    // The core's side.
    std::optional<std::int32_t> parentOf(std::int32_t pid);
    std::optional<std::string> pathOf(std::int32_t pid);
    // The outer optional: whether it is a bundle. The inner one: whether it has an identifier.
    std::optional<std::optional<std::string>> bundleAt(std::string_view path);

private:
    mutable Mutex mutex;
    std::map<std::int32_t, Process> processes GUARDED_BY(mutex);
    std::int32_t lastPid GUARDED_BY(mutex) = 1000;
    std::map<std::string, std::optional<std::string>, std::less<>> bundles GUARDED_BY(mutex);
    std::vector<std::string> openings GUARDED_BY(mutex);
    std::atomic<std::uint64_t> processQuestions = 0;
};

}  // namespace platform::simulated

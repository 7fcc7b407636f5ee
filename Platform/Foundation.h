// What the core uses of the system's foundation: locks, errors, whole files, bundles. Everything
// here may be called on any thread and returns when it is done; nothing throws.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Common/Date.h"
#include "Platform/Common/JSON.h"
#include "Platform/Common/ThreadAnnotations.h"
#include "Platform/Common/UUID.h"

namespace platform {

// Why an operation failed: a domain ("NEAppProxyErrorDomain", "posix", ...), a code of that domain
// and a sentence for people. The description is for whoever looks for the cause: "Connection refused
// (posix 111)".
struct NSError {
    std::string domain;
    long code = 0;
    std::string localizedDescription;

    std::string description() const {
        return localizedDescription + " (" + domain + " " + std::to_string(code) + ")";
    }

    friend bool operator==(const NSError&, const NSError&) = default;
};

// A mutual-exclusion lock that its owner may not take twice. A lock guards fields and is let go
// before any call to the platform but a log line, which the simulated platform checks; the few that
// put whole pieces of work in one order are made with `heldAcrossCalls`.
class CAPABILITY("mutex") NSLock {
public:
    enum class Use { fieldsOnly, heldAcrossCalls };
    static constexpr Use heldAcrossCalls = Use::heldAcrossCalls;

    NSLock() = default;
    explicit NSLock(Use lockUse) : use(lockUse) {}
    NSLock(const NSLock&) = delete;
    NSLock& operator=(const NSLock&) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();

private:
    [[maybe_unused]] const Use use = Use::fieldsOnly;  // for a platform that checks
    std::mutex mutex;
};

// Holds a lock for a scope.
class SCOPED_CAPABILITY NSLockGuard {
public:
    explicit NSLockGuard(NSLock& toHold) ACQUIRE(toHold) : lock(toHold) { lock.lock(); }
    ~NSLockGuard() RELEASE() { lock.unlock(); }
    NSLockGuard(const NSLockGuard&) = delete;
    NSLockGuard& operator=(const NSLockGuard&) = delete;

private:
    NSLock& lock;
};

// The scope whose temporary objects die at its end. Objects are reference counted here and die with
// their last owner, so that the scope alone does the work.
struct NSAutoreleasePool {
    NSAutoreleasePool() {}
    ~NSAutoreleasePool() {}
    NSAutoreleasePool(const NSAutoreleasePool&) = delete;
    NSAutoreleasePool& operator=(const NSAutoreleasePool&) = delete;
};

// The files of the machine. Every operation takes an absolute path.
class NSFileManager {
public:
    static NSFileManager& defaultManager();

    // The whole file, in memory; nothing on any failure, among them a file that the platform does
    // not trust (not a regular file, writable by strangers).
    std::optional<Data> contentsAtPath(std::string_view path);

    // Replaces the file by `bytes` in one step: a reader sees the old or the new content, never a
    // part, and a failure leaves the old file whole. Returns why it failed, or nothing.
    std::optional<NSError> writeAtomically(std::string_view bytes, std::string_view path);

    // Overwrites or creates the file, not atomically: a failure may leave a part. One that the platform
    // does not trust gives way to a new file. Returns why it failed, or nothing.
    std::optional<NSError> write(std::string_view bytes, std::string_view path);

    // Sets the permission bits (octal, `NSFilePosixPermissions`). False if that failed.
    bool setPosixPermissions(int permissions, std::string_view path);

    // Removes a file. False if that failed or there was none.
    bool removeItemAtPath(std::string_view path);

    // The folder that the group's applications share, as an absolute path; null if there is
    // none.
    std::optional<std::string> containerURLForSecurityApplicationGroupIdentifier(
        std::string_view groupIdentifier);

private:
    NSFileManager() = default;
};

// A directory that holds an application or a part of one.
class NSBundle {
public:
    // Opens the bundle at a path; null if there is no bundle.
    static std::optional<NSBundle> bundleWithPath(std::string_view path);

    // The identifier that the bundle's property list gives; null if it gives none. Valid UTF-8.
    const std::optional<std::string>& bundleIdentifier() const { return identifier; }

private:
    explicit NSBundle(std::optional<std::string> bundleIdentifier)
        : identifier(std::move(bundleIdentifier)) {}
    std::optional<std::string> identifier;
};

}  // namespace platform

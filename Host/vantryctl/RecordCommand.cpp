#include "Host/vantryctl/RecordCommand.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <string_view>
#include <thread>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Daemon.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantryctl {

using platform::FileDescriptor;
using platform::JSONObject;

namespace {

constexpr std::chrono::milliseconds betweenPieces{100};

volatile std::sig_atomic_t isRecordingInterrupted = 0;

Failure cannotWrite(const std::string& file, int cause) {
    return {
        ExitCode::failed, fmt::format("{} cannot be written: {}.", file, std::strerror(cause)),
        cause == ENOSPC
            ? "Make room, or record into another file system. What is in the file is whole up to "
              "its last line."
            : "Name another file."};
}

// One of its own, for this account only: what is there already is not followed or written over.
Outcome<FileDescriptor> newFile(const std::string& file) {
    FileDescriptor opened(
        open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!opened) return cannotWrite(file, errno);
    return opened;
}

// Null if all of it is in the file.
std::optional<int> causeOfShortWrite(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const auto written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return std::nullopt;
}

Outcome<JSONObject> start(bool isVerbatim) {
    return askPlatform({{"question", "record"}, {"do", "start"}, {"verbatim", isVerbatim}});
}

Outcome<JSONObject> ask(const char* what, std::int64_t recording) {
    return askPlatform({{"question", "record"}, {"do", what}, {"number", recording}});
}

Failure endedByDaemon(const std::string& file) {
    return {
        ExitCode::failed,
        fmt::format(
            "The daemon ended the recording: nothing was taken from it for ten seconds, or it has "
            "started again. What came later is not in {}.",
            file),
        "Record again, into a new file."};
}

struct Progress {
    std::int64_t recording = 0;
    std::size_t bytes = 0;
    std::int64_t lost = 0;
    bool isOver = false;
};

// Null if there was nothing to report.
std::optional<Failure> fetchInto(const FileDescriptor& file, const std::string& name,
                                 Progress& progress) {
    const auto answer = ask("fetch", progress.recording);
    if (const auto* failure = failureOf(answer)) return *failure;
    const auto& piece = std::get<JSONObject>(answer);
    const auto lines = vantryhost::textUnder(piece, "lines");
    if (const auto cause = causeOfShortWrite(file.get(), lines)) return cannotWrite(name, *cause);
    progress.bytes += lines.size();
    progress.lost = vantryhost::numberUnder(piece, "lost");
    progress.isOver = vantryhost::flagUnder(piece, "isOver");
    return std::nullopt;
}

std::optional<Failure> followTo(const FileDescriptor& file, const RecordOptions& options,
                                Progress& progress) {
    const auto end = std::chrono::steady_clock::now() + options.time;
    const auto mostBytes = static_cast<std::size_t>(options.mostMegabytes) << 20U;
    while (!isRecordingInterrupted && !progress.isOver && progress.bytes < mostBytes &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(betweenPieces);
        if (auto failure = fetchInto(file, options.file, progress)) return failure;
    }
    return std::nullopt;
}

// What was left when the recording stopped.
std::optional<Failure> takeLast(const FileDescriptor& file, const std::string& name,
                                const Outcome<JSONObject>& stopped, Progress& progress) {
    if (const auto* failure = failureOf(stopped)) return *failure;
    if (vantryhost::flagUnder(std::get<JSONObject>(stopped), "wasOver")) return endedByDaemon(name);
    return fetchInto(file, name, progress);
}

}  // namespace

ExitCode record(const RecordOptions& options, const Console& console) {
    const auto opened = newFile(options.file);
    if (const auto* failure = failureOf(opened)) return console.report(*failure);
    const auto& file = std::get<FileDescriptor>(opened);
    const auto started = start(options.isVerbatim);
    if (const auto* failure = failureOf(started)) {
        unlink(options.file.c_str());
        return console.report(*failure);
    }
    std::signal(SIGINT, [](int) { isRecordingInterrupted = 1; });
    std::signal(SIGTERM, [](int) { isRecordingInterrupted = 1; });
    Progress progress{.recording =
                          vantryhost::numberUnder(std::get<JSONObject>(started), "number")};
    auto failure = followTo(file, options, progress);
    const auto stopped = ask("stop", progress.recording);
    if (!failure) failure = takeLast(file, options.file, stopped, progress);
    if (failure) return console.report(*failure);
    console.out << fmt::format("{}: {} bytes. replay {} plays it.\n", options.file, progress.bytes,
                               options.file);
    if (progress.lost > 0)
        console.note(fmt::format("{} calls found no room: the recording has gaps.", progress.lost));
    return ExitCode::done;
}

}  // namespace vantryctl

// Looks at a file system that may hang, without hanging with it. A look runs on a thread of its own;
// whoever asks waits a little for it. As long as one look at a thing has not come back, no other look
// at that thing is begun, and who asks meanwhile does not wait any more: a dead network file system
// costs its own programs one short wait each and the others nothing. Any thread.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace platform {

// Has `look` run for the thing called `key`, before ordinary programs, as a flow waits for it. Waits for it;
// true if it has returned. What the look finds it has to keep where the caller reads it: it may run on
// after this has returned, so it owns all that it uses. False also where too many others have not come back.
bool lookWithPatience(const std::string& key, std::function<void()> look);

// Long enough for a cold disk on a busy machine, as a look that comes too late gives a flow the wrong name; two,
// of an executable and of its bundle, end before the two seconds after which packets are let go.
inline constexpr std::chrono::milliseconds patienceWithFiles{800};

}  // namespace platform

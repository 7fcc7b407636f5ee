// Data-less notifications between processes. Posts are delivered by one thread, one at a time, to
// the observers of their name; posts during a delivery give one more delivery. The observer is a
// plain pointer that the center neither keeps alive nor looks at.
#pragma once

#include <string_view>

namespace platform {

class CFNotificationCenter;

// Called for each delivery with the center, the observer as registered, the notification's name,
// and no object and no user information (this center delivers none).
using CFNotificationCallback = void (*)(CFNotificationCenter& center, void* observer,
                                        std::string_view name, const void* object,
                                        const void* userInfo);

enum class CFNotificationSuspensionBehavior { deliverImmediately = 4 };

// The center for the whole machine. There is one.
CFNotificationCenter& CFNotificationCenterGetDarwinNotifyCenter();

// Calls `callback` with `observer` for each later post of `name`, and once soon after this call, as
// no one knows what was posted before it. Any thread.
void CFNotificationCenterAddObserver(CFNotificationCenter& center, void* observer,
                                     CFNotificationCallback callback, std::string_view name,
                                     const void* object,
                                     CFNotificationSuspensionBehavior suspensionBehavior);

// Takes every registration of `observer` back. Waits for a delivery to it that is under way on another
// thread, so that it may be destroyed once this has returned; the caller holds nothing that the
// observer's callback waits for. Any thread, also from a delivery, which it then does not wait for.
void CFNotificationCenterRemoveEveryObserver(CFNotificationCenter& center, void* observer);

}  // namespace platform

// The daemon's ears on this machine: messages of the host application, the platform preferences
// that may change while it runs, the machine's sleep and wake, and the service manager that wants to
// know when it is ready and whether it lives. Made, started and stopped by the one thread that starts
// and stops the providers. (Notifications have a life of their own: they flow while observers are
// registered.)
//
//   HostChannel channel;            before the first provider is called
//   startFilter ..., startProxy ... and its completion, whatever its outcome
//   channel.start(provider, ...);
//   channel.sayReady();             once flows are decided
//   ... until SIGTERM ...
//   channel.stop();                 before stopProxy
//   stopProxy ..., stopFilter ...
#pragma once

#include <functional>
#include <memory>

#include "Platform/Linux/HostChannel/Preferences.h"
#include "Platform/Linux/HostChannel/Questions.h"
#include "Platform/NEProvider.h"

namespace platform {

class HostChannel {
public:
    // Makes the daemon's folders and puts the preferences' log level in force. What cannot be made
    // costs one line each; the daemon goes on without it.
    HostChannel();
    ~HostChannel();
    HostChannel(const HostChannel&) = delete;
    HostChannel& operator=(const HostChannel&) = delete;

    // The request for the platform's health is answered here; all others are the provider's.
    // From here on the channel calls `handleAppMessage`, `sleep` and `wake` of the provider, on
    // threads of its own, answers questions, and gives the service manager the signs of life that it asks
    // for, as long as `isAlive` says so. Holds the provider until `stop`. Called once.
    using IsAlive = std::function<bool()>;
    // Gets the preferences when the channel starts and whenever they change.
    using PreferencesListener = std::function<void(const Preferences&)>;
    void start(std::shared_ptr<NETransparentProxyProvider> provider, Questions::Sources sources,
               IsAlive isAlive, PreferencesListener listener = {});

    // Tells the service manager that the daemon is ready.
    void sayReady();

    // Tells the service manager that the daemon is stopping and closes the message socket. When it
    // returns, none of the provider's operations is running for the channel and none will. Once or
    // never; the destructor stops too.
    void stop();

private:
    class Running;
    std::unique_ptr<Running> running;
};

}  // namespace platform

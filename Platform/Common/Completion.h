// A callback that runs at most once and owns what it captures until then. Every asynchronous
// operation of the platform takes one. Running it moves the callable out first, so that whatever it
// holds is let go when the call returns, even if the object that stored the completion lives on;
// cycles between an operation and its caller therefore end by themselves.
//
// A Completion is a plain value without a lock: one owner at a time. It may be made on one thread
// and run on another.
#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

namespace platform {

template <class... Arguments>
class Completion {
public:
    Completion() = default;
    Completion(std::nullptr_t) {}

    // Takes any callable, also one that can only be moved.
    template <class Callable>
    requires(!std::same_as<std::remove_cvref_t<Callable>, Completion> &&
             std::invocable<std::decay_t<Callable>&, Arguments...>) Completion(Callable&& callable)
        : body(std::make_unique<Holder<std::decay_t<Callable>>>(std::forward<Callable>(callable))) {
    }

    // True until it has run: calling an empty completion is a programming error.
    explicit operator bool() const { return body != nullptr; }

    // Runs the callback and lets go of what it holds. The completion is empty from the start of the
    // call on.
    void operator()(Arguments... arguments) {
        const std::unique_ptr<Body> running = std::move(body);
        running->run(std::forward<Arguments>(arguments)...);
    }

private:
    struct Body {
        virtual ~Body() = default;
        virtual void run(Arguments... arguments) = 0;
    };
    template <class Callable>
    struct Holder final : Body {
        template <class From>
        explicit Holder(From&& from) : callable(std::forward<From>(from)) {}
        void run(Arguments... arguments) override {
            callable(std::forward<Arguments>(arguments)...);
        }
        Callable callable;
    };

    std::unique_ptr<Body> body;
};

}  // namespace platform

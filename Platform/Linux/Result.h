// What an operation of the Linux platform that can fail returns: its value or the error, in one
// object. `errno` is read where it was set and travels from there as a value, so that no call in
// between can change it. Plain values; any thread.
//
//     Result<Socket> opened = Socket::open(NETLINK_ROUTE);
//     if (!opened) return opened.error();
//     opened->send(...);
#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "Platform/Foundation.h"

namespace platform {

// An error number of the system (`errno`, never 0) and what was being done, for people.
class Error {
public:
    // `doing` completes "cannot ..." and outlives the error: "open the packet queue".
    explicit Error(int number, const char* doing = "") : code_(number), doing_(doing) {}
    // Where the number says too little: `reason` takes the place of the system's words for it.
    Error(int number, const char* doing, std::string reason)
        : code_(number), doing_(doing), reason_(std::move(reason)) {}
    // Of the system call that has just failed.
    static Error last(const char* doing = "") { return Error(errno, doing); }

    int code() const { return code_; }
    const char* doing() const { return doing_; }
    // "cannot open the packet queue: Operation not permitted".
    std::string text() const;

    friend bool operator==(const Error& left, const Error& right) {
        return left.code_ == right.code_;
    }

private:
    int code_;
    const char* doing_;
    std::string reason_;
};

template <class Value = void>
class [[nodiscard]] Result {
public:
    Result(Value value) : content(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : content(std::in_place_index<1>, std::move(error)) {}
    template <class Other>
    requires(!std::is_same_v<Other, Value> && std::is_constructible_v<Value, Other>)
        Result(Result<Other> other)
        : content(other ? Content(std::in_place_index<0>, std::move(*other))
                        : Content(std::in_place_index<1>, other.error())) {}

    explicit operator bool() const { return content.index() == 0; }

    // Only of a success.
    Value& operator*() & { return std::get<0>(content); }
    const Value& operator*() const& { return std::get<0>(content); }
    Value&& operator*() && { return std::get<0>(std::move(content)); }
    Value* operator->() { return &std::get<0>(content); }
    const Value* operator->() const { return &std::get<0>(content); }

    // Only of a failure.
    const Error& error() const { return std::get<1>(content); }

private:
    using Content = std::variant<Value, Error>;
    Content content;
};

// Success without a value, or an error.
template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : failure(std::move(error)) {}

    explicit operator bool() const { return !failure; }
    // Only of a failure.
    const Error& error() const { return failure.value(); }

private:
    std::optional<Error> failure;
};

// The error as the seam knows it: domain "posix", the number, and its text.
NSError systemError(const Error& error);

}  // namespace platform

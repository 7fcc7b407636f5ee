#pragma once

#include <utility>

namespace lab {

// Owns one file descriptor and closes it at the end of its life. Both programs of the lab use it
// for every socket. It is moved, never copied, and belongs to one thread at a time.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor() { close(); }

    explicit operator bool() const { return number_ >= 0; }
    int number() const { return number_; }
    void close();

private:
    int number_ = -1;
};

}  // namespace lab

#include "Lab/sockets/Descriptor.h"

#include <unistd.h>

namespace lab {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        close();
        number_ = std::exchange(other.number_, -1);
    }
    return *this;
}

void Descriptor::close() {
    if (number_ >= 0) ::close(std::exchange(number_, -1));
}

}  // namespace lab

// What all objects of programs for the kernel have in common: they are attached at the root of the control
// groups, where they see the sockets of every process, and look at one network namespace only. Any
// thread.
#pragma once

#include <cstdint>
#include <optional>

#include "Platform/Linux/FileDescriptor.h"

struct bpf_object_skeleton;

namespace platform {

// From now on the journal has what the kernel says about a program that it refuses.
void logDetailsOfKernelPrograms();

// The number of our network namespace, as the programs see it; none before Linux 5.14.
std::optional<std::uint64_t> networkNamespace();

// The root of all control groups. Empty, with errno set, where it cannot be opened.
FileDescriptor openControlGroups();

// Attaches every program of the object. False, with errno set, at the first that cannot be.
bool attachAll(const bpf_object_skeleton& object, const FileDescriptor& controlGroups);

}  // namespace platform

// A table that the programs in the kernel fill and the daemon reads, or the other way round: one system call a question. It
// refers to a table of KernelPrograms and lives no longer than those. Any thread.
#pragma once

#include <linux/bpf.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <optional>

namespace platform {

template <class Key, class Value>
class KernelTable {
public:
    explicit KernelTable(int tableDescriptor) : descriptor(tableDescriptor) {}

    // A copy of the entry. The kernel may be writing to it meanwhile: what two programs can write at
    // once has to be checked by who reads it.
    std::optional<Value> find(const Key& key) const {
        Value value;
        if (call(BPF_MAP_LOOKUP_ELEM, &key, &value) != 0) return std::nullopt;
        return value;
    }

    // False if there is no room.
    bool put(const Key& key, Value value) const {
        return call(BPF_MAP_UPDATE_ELEM, &key, &value) == 0;
    }

    void remove(const Key& key) const { call(BPF_MAP_DELETE_ELEM, &key, nullptr); }

    // The key after this one, in no order; the first for null. It fails at the end.
    std::optional<Key> keyAfter(const Key* key) const {
        Key next;
        if (call(BPF_MAP_GET_NEXT_KEY, key, &next) != 0) return std::nullopt;
        return next;
    }

private:
    long call(bpf_cmd command, const Key* key, void* result) const {
        bpf_attr attributes{};
        attributes.map_fd = static_cast<std::uint32_t>(descriptor);
        attributes.key = reinterpret_cast<std::uint64_t>(key);
        attributes.value = reinterpret_cast<std::uint64_t>(result);
        return ::syscall(SYS_bpf, command, &attributes, sizeof attributes);
    }

    int descriptor;
};

}  // namespace platform

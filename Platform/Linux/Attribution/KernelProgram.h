// Puts a small program for the kernel's virtual machine together, instruction by instruction.
// Registers and sizes go by the kernel's names (BPF_REG_1, BPF_W, ...); stack offsets count from the
// frame pointer. One thread.
#pragma once

#include <linux/bpf.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class KernelProgram {
public:
    void copy(int to, int from) { add(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0); }
    void set(int to, std::int32_t number) { add(BPF_ALU64 | BPF_MOV | BPF_K, to, 0, 0, number); }
    void setAddress(int to, std::int16_t offset) {
        copy(to, BPF_REG_10);
        add(BPF_ALU64 | BPF_ADD, to, 0, 0, offset);
    }
    void setWide(int to, std::uint64_t number, int meaning = 0) {
        add(BPF_DW | BPF_IMM, to, meaning, 0, static_cast<std::int32_t>(number));
        add(0, 0, 0, 0, static_cast<std::int32_t>(number >> 32));
    }
    void setTable(int to, const FileDescriptor& table) {
        setWide(to, static_cast<std::uint64_t>(table.get()), BPF_PSEUDO_MAP_FD);
    }
    void shiftRight(int which, int bits) { add(BPF_ALU64 | BPF_RSH | BPF_K, which, 0, 0, bits); }
    void load(int size, int to, int base, std::size_t offset) {
        add(BPF_LDX | size | BPF_MEM, to, base, static_cast<std::int16_t>(offset), 0);
    }
    void store(int size, std::int16_t offset, int from) {
        add(BPF_STX | size | BPF_MEM, BPF_REG_10, from, offset, 0);
    }
    void storeNumber(std::int16_t offset, std::uint32_t number) {
        add(BPF_ST | BPF_W | BPF_MEM, BPF_REG_10, 0, offset, static_cast<std::int32_t>(number));
    }
    void call(bpf_func_id function) { add(BPF_JMP | BPF_CALL, 0, 0, 0, function); }
    // Returns 1, with which a hook lets happen what happens.
    void end() {
        set(BPF_REG_0, 1);
        add(BPF_JMP | BPF_EXIT, 0, 0, 0, 0);
    }
    void endUnlessEqual(int left, int right) {
        constexpr std::int16_t lengthOfEnd = 2;
        add(BPF_JMP | BPF_JEQ | BPF_X, left, right, lengthOfEnd, 0);
        end();
    }
    std::span<const bpf_insn> instructions() const { return list; }

private:
    void add(int code, int to, int from, std::int16_t offset, std::int32_t number) {
        bpf_insn instruction{};
        instruction.code = static_cast<std::uint8_t>(code);
        instruction.dst_reg = static_cast<std::uint8_t>(to & 0xf);
        instruction.src_reg = static_cast<std::uint8_t>(from & 0xf);
        instruction.off = offset;
        instruction.imm = number;
        list.push_back(instruction);
    }
    std::vector<bpf_insn> list;
};

}  // namespace platform

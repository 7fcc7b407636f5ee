// Runs a fuzz target without a fuzzer, over inputs that are drawn from seeds:
//
//     fuzz_touches 20000        seeds 1 to 20000
//     fuzz_touches 1 4711       seed 4711 alone
//
// A failure prints its seed.

#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

unsigned long long seed = 1;

void sayWhichSeed(int number) {
    char text[64];
    const int length = std::snprintf(text, sizeof text, "repeat it with seed %llu\n", seed);
    [[maybe_unused]] const auto written = write(STDERR_FILENO, text, static_cast<size_t>(length));
    std::signal(number, SIG_DFL);
    std::raise(number);
}

}  // namespace

int main(int argc, char** argv) {
    constexpr std::size_t longest = 400;
    const auto count = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
    if (argc > 2) seed = std::strtoull(argv[2], nullptr, 10);
    for (const int number : {SIGABRT, SIGSEGV, SIGFPE}) std::signal(number, sayWhichSeed);
    for (const auto end = seed + count; seed < end; ++seed) {
        std::mt19937_64 random(seed);
        std::vector<std::uint8_t> bytes(random() % longest);
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%llu inputs\n", count);
}

// What a line of a level that is off costs where it stands: the price of having it in the code.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <new>
#include <string>

#include "Platform/Logging.h"

namespace {
thread_local std::size_t allocations = 0;
}

// Counts what the measured code allocates, and is otherwise what the library's operator does. Not
// inlined, as g++ would take the pair apart and warn of a free without its malloc.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace platform {
namespace {

constexpr Logger logger("org.quillmere.Vantry.Extension", "Benchmark");

void disabledDebugLine(benchmark::State& state) {
    Logger::setLowestLevel(LogLevel::info);
    const std::string bundleId = "com.example.browser.with.a.long.identifier";
    const std::string decision = "direct";
    std::uint16_t port = 443;
    const auto before = allocations;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(port);
        logger.debug("%{public}s port %d: %s", bundleId, port, decision);
    }
    state.counters["allocations"] = static_cast<double>(allocations - before);
}
BENCHMARK(disabledDebugLine);

}  // namespace
}  // namespace platform

// The per-record cost of the data commands that is not a system call: the
// record pattern (one running draw, 252 pattern values, one reseeding).
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "context/context.h"
#include "device/data_commands.h"
#include "device/generator.h"

namespace {

void fill_pattern(benchmark::State& state) {
    int64_t sector = 0;
    for (auto _ : state) {
        fill_record_pattern(test_context.io_buffer, sector++);
        benchmark::DoNotOptimize(test_context.io_buffer[255]);
    }
    state.SetBytesProcessed(state.iterations() * 512);
}
BENCHMARK(fill_pattern);

void verify_pattern(benchmark::State& state) {
    fill_record_pattern(test_context.io_buffer, 9);
    uint8_t expected = 0;
    for (auto _ : state) benchmark::DoNotOptimize(verify_record_pattern(test_context.io_buffer, 9, expected));
}
BENCHMARK(verify_pattern);

// The running draw around each pattern: one value straight after a seeding.
void draw_after_seeding(benchmark::State& state) {
    uint32_t seed = 0;
    for (auto _ : state) {
        seed_running_sequence(seed++);
        benchmark::DoNotOptimize(next_running_value());
    }
}
BENCHMARK(draw_after_seeding);

// What srand alone costs in the C library, for comparison.
void library_srand(benchmark::State& state) {
    unsigned seed = 0;
    for (auto _ : state) {
        srand(seed++);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(library_srand);

}  // namespace

// The per-record cost of the write path that is not a system call: the
// record pattern (two reseedings and 252 draws of the C library generator).
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "context/context.h"
#include "device/device.h"

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

// The floor under the pattern: what one srand costs in the C library.
void reseed_only(benchmark::State& state) {
    unsigned seed = 0;
    for (auto _ : state) {
        srand(seed++);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(reseed_only);

}  // namespace

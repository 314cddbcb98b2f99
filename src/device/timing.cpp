#include "device/timing.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

bool timing_wanted = false;
TransferTiming last_timing;

namespace {

int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Two readings a record are most of what -j costs at small records. Where
// the kernel keeps its own time by the time-stamp counter (it is then
// invariant and in step on every core) the counter is read instead, in
// less than half the time, at a rate taken against CLOCK_MONOTONIC once.
struct TickClock {
    bool usable = false;
    bool calibrated = false;
    uint64_t base_ticks = 0;
    int64_t base_ns = 0;
    double ns_per_tick = 0;
};
TickClock ticks;

#if defined(__x86_64__)
void calibrate_ticks() {
    ticks.calibrated = true;
    char source[16] = {};
    if (FILE* f = fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "re")) {
        if (fgets(source, sizeof source, f) == nullptr) source[0] = '\0';
        fclose(f);
    }
    if (std::strcmp(source, "tsc\n") != 0) return;
    const int64_t ns0 = monotonic_ns();
    const uint64_t ticks0 = __rdtsc();
    int64_t ns1 = ns0;
    while (ns1 - ns0 < 2000000) ns1 = monotonic_ns();
    const uint64_t ticks1 = __rdtsc();
    if (ticks1 <= ticks0) return;
    ticks.ns_per_tick = static_cast<double>(ns1 - ns0) / static_cast<double>(ticks1 - ticks0);
    ticks.base_ticks = ticks1;
    ticks.base_ns = ns1;
    ticks.usable = true;
}
#else
void calibrate_ticks() { ticks.calibrated = true; }
#endif

}  // namespace

int64_t timing_now_ns() {
#if defined(__x86_64__)
    if (ticks.usable) {
        const auto elapsed = static_cast<double>(__rdtsc() - ticks.base_ticks);
        return ticks.base_ns + static_cast<int64_t>(elapsed * ticks.ns_per_tick);
    }
#endif
    return monotonic_ns();
}

void timing_start_clock() {
    if (!ticks.calibrated) calibrate_ticks();
}

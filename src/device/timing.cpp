#include "device/timing.h"

#include <ctime>

bool timing_wanted = false;
TransferTiming last_timing;

// CLOCK_MONOTONIC through the vDSO: a few tens of nanoseconds, no system
// call, and right under load (a time-stamp counter calibrated against it
// in a few milliseconds is off by as much as the calibration was preempted).
int64_t timing_now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

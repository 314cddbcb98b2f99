// Requests in flight. With a service time set for a device, a transfer is
// issued under the driver lock (its path chosen, scheduled faults counted),
// then spends the service time on its path with no lock held, so transfers
// of every thread and process overlap; it completes under the lock again.
// The table of those requests lives in the shared state, so a path failing
// in one process finds the requests another process has on it.
#pragma once

#include <cstdint>

#include "vpath/vpath_ioctl.h"

namespace vpathsim {

constexpr int kMaxInFlight = 1024;
constexpr int kTimedDevices = 16;  // = kMaxDevices
// Longest service time and failover delay a device takes.
constexpr uint32_t kMaxLatencyUs = 60000000;
constexpr uint32_t kMaxFailoverDelayMs = 60000;

enum SlotState : uint8_t {
    kSlotFree = 0,
    kSlotTaken,    // taken by a transfer that is choosing its path
    kSlotOnPath,   // on its path for the service time
    kSlotRequeue,  // its path failed under it: retried on another path
    kSlotLost,     // its path failed under it and the write is dropped
    kSlotStates,
};

struct InFlight {
    uint8_t state;
    uint8_t write;
    int16_t device;
    int16_t path;
    int16_t reserved;
    int32_t pid;       // the process that waits for it
    uint32_t ticket;   // tells the slot's holder it is still its own
    uint64_t position;
    uint64_t length;
};

struct DeviceTiming {
    uint32_t latency_us;         // service time of every transfer
    uint32_t failover_delay_ms;  // wait before a request of a failed path is retried
};

struct InFlightTable {
    DeviceTiming timing[kTimedDevices];
    // Requests taken off each path because it failed under them.
    uint32_t requeued[kTimedDevices][kMaxPathEntries];
    uint32_t next_ticket;
    uint32_t reserved;
    InFlight slots[kMaxInFlight];
};

// One transfer on its way through the driver.
struct Flight {
    int device = -1;
    bool write = false;
    uint64_t position = 0;
    size_t length = 0;
    int path = -1;
    int slot = -1;       // -1: done at once, under the lock (no service time)
    uint32_t ticket = 0;
    bool counted = false;  // scheduled faults counted it as it was issued
    bool lost = false;     // completes without storing its data
    bool locked = true;  // whether the driver lock is held
};

}  // namespace vpathsim

// Timing of the records of one data command, kept by the I/O engine for
// results that programs read (JSON lines). Nothing is recorded unless
// timing_wanted is set, so a run without those results pays nothing for it.
#pragma once

#include <cstdint>
#include <vector>

struct TransferTiming {
    const char* command = "";   // the data command's name: "write", "read_verify", ...
    int depth = 1;              // records the command kept in flight at most
    int64_t records = 0;        // records that completed, successfully or not
    int64_t bytes = 0;          // bytes those records transferred
    int64_t first_sector = 0;   // sector of the command's first record
    double elapsed_s = 0;       // from the first record issued to the last completed
    // Per completed record: its service time (issue to completion), in record order.
    std::vector<uint32_t> latency_us;
    // Per completed record: when it completed, microseconds since the command's
    // first issue, in completion order; gaps between them are the stalls.
    std::vector<uint32_t> completed_at_us;
    // Sector of each completed record, in completion order (beside completed_at_us).
    std::vector<int64_t> completed_sector;
};

// Set once at start-up when some output wants the timing.
extern bool timing_wanted;
// The most recent data command's timing; reset when a data command starts.
extern TransferTiming last_timing;

// A monotonic clock in nanoseconds, cheap enough to read twice a record,
// from any thread.
int64_t timing_now_ns();

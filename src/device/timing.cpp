#include "device/timing.h"

#include <ctime>

bool timing_wanted = false;
TransferTiming last_timing;

// ---- depth-1 fill: the data commands' own loops call these until the
// queue-depth engine keeps last_timing itself (then these go) ----
int64_t timing_now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

namespace {
int64_t first_issue_ns = 0;
}

void timing_begin(const char* command) {
    last_timing = TransferTiming{};
    last_timing.command = command;
}

void timing_record(int64_t issued_ns, int64_t sector, int32_t bytes) {
    const int64_t done_ns = timing_now_ns();
    TransferTiming& t = last_timing;
    if (t.records++ == 0) {
        first_issue_ns = issued_ns;
        t.first_sector = sector;
    }
    if (bytes > 0) t.bytes += bytes;
    t.latency_us.push_back(static_cast<uint32_t>((done_ns - issued_ns) / 1000));
    t.completed_at_us.push_back(static_cast<uint32_t>((done_ns - first_issue_ns) / 1000));
    t.completed_sector.push_back(sector);
    t.elapsed_s = static_cast<double>(done_ns - first_issue_ns) / 1e9;
}
// ---- end of the depth-1 fill ----

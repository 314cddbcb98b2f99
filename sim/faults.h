// Faults that strike during a transfer: armed now, they fire after a count
// of transfers or sectors, or hit the data going through one path (a flaky
// path, dropped writes, corrupted reads). They are kept in the shared state
// beside the driver's own, so every process sees them and they outlive the
// program that armed them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "vpath/vpath_ioctl.h"

namespace vpathsim {

constexpr int kFaultDevices = 16;  // = kMaxDevices
constexpr int kMaxScheduled = 32;
// A dropped write keeps the old data aside in memory; a larger write
// through a dropping path is carried out (and traced as such).
constexpr size_t kMaxDroppedWrite = 64u << 20;

enum FaultKind : uint8_t {
    kFaultNone = 0,
    kFaultFailPath,
    kFaultRestorePath,
    kFaultFailAdapter,
    kFaultRestoreAdapter,
    kFaultFailDevice,
    kFaultRestoreDevice,
    kFaultFlakyPath,
    kFaultDropWrites,
    kFaultCorruptReads,
    kFaultLoseInFlight,  // fail-path, and the writes in flight through it are lost
    kFaultKinds,
};

// Data-level faults of one path, beside PathRuntime::failed.
struct PathFaults {
    uint32_t flaky_every;  // 0: not flaky; else every k-th try on the path fails
    uint32_t flaky_count;  // tries on the path since it turned flaky
    uint8_t drop_writes;
    uint8_t corrupt_reads;
    uint8_t reserved[2];
    uint32_t corrupt_byte;  // offset in the transfer of the byte flipped
    uint32_t hits;          // transfers the fault struck
};

struct ScheduledFault {
    uint8_t kind;
    uint8_t in_sectors;  // the countdown is in sectors, not transfers
    uint8_t reserved[2];
    int32_t device;      // -1 for adapter faults: every transfer counts
    int32_t target;      // path or adapter
    uint32_t argument;   // flaky interval, corrupted byte
    uint64_t armed;      // the count it was armed with
    uint64_t remaining;  // left until it strikes
};

struct FaultTable {
    PathFaults paths[kFaultDevices][kMaxPathEntries];
    int32_t scheduled_count;
    ScheduledFault scheduled[kMaxScheduled];
};

// What the control program asks for: strike now (after 0) or after a count.
struct FaultRequest {
    FaultKind kind = kFaultNone;
    int device = -1;
    int target = -1;
    uint32_t argument = 0;
    uint64_t after = 0;
    bool in_sectors = false;
};

// Bytes of a backing image changed around one transfer (a corrupted byte
// for a read) or kept aside (the old data under a dropped write), put back
// once the transfer is done.
class ImagePatch {
public:
    ImagePatch() = default;
    ~ImagePatch() { undo(); }
    ImagePatch(const ImagePatch&) = delete;
    ImagePatch& operator=(const ImagePatch&) = delete;

    bool hold(const char* image, uint64_t offset, size_t length);
    void undo();

    int fd = -1;
    uint64_t offset = 0;
    std::vector<uint8_t> saved;
};

}  // namespace vpathsim

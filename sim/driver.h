// The simulated multipath driver: topology, the state a loaded driver keeps
// (shared by every process through one mapped, flock-guarded file), the
// control requests and the I/O bookkeeping. Free of any interposing so that
// the control program and the unit tests drive the very same code.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "faults.h"
#include "inflight.h"
#include "vpath/vpath_ioctl.h"

namespace vpathsim {

constexpr int kMaxDevices = 16;
constexpr int kMaxInjected = 64;
constexpr uint32_t kTraceTableSize = 65536;
constexpr uint32_t kSectorSize = 512;
constexpr char kStateMagic[8] = {'v', 'p', 'a', 't', 'h', 's', 'i', 'm'};
constexpr uint32_t kStateVersion = 3;
// A topology file larger than this is no topology (and /dev/zero never ends).
constexpr size_t kMaxConfigBytes = 1 << 20;
static_assert(kFaultDevices == kMaxDevices && kTimedDevices == kMaxDevices);

struct PathConfig {
    int32_t adapter;
    char name[15];
};

struct DeviceConfig {
    char serial[33];
    char type[8];
    uint32_t policy;
    int32_t controllers;
    uint64_t size;
    uint8_t inquiry[sizeof(InquiryData)];
    int32_t path_count;
    PathConfig paths[kMaxPathEntries];
};

struct Topology {
    int32_t device_count;
    int32_t adapter_count;
    char adapter_names[kMaxAdapterEntries][16];
    DeviceConfig devices[kMaxDevices];
};

struct PathRuntime {
    uint8_t offline;  // set_path / set_adapter offline
    uint8_t failed;   // fault injection
    int32_t times_used;
    int32_t recovered_errors;
};

struct DeviceRuntime {
    PathRuntime paths[kMaxPathEntries];
    int32_t last_path;
    StatsRow io;
    StatsRow sectors;
    uint32_t sizes[5];
    int32_t active_controller;
    int32_t preferred_controller;
};

struct AdapterRuntime {
    uint8_t offline;
    uint8_t failed;
    int32_t count;
    int32_t errors;
    StatsRow io;
    StatsRow sectors;
};

struct InjectedSector {
    int32_t device;
    uint64_t sector;
};

// Entries are stored exactly as they are reported: two hex digits of the
// whole length, the text, a NUL. Oldest entries are dropped when full.
struct TraceTable {
    uint32_t flags;
    uint32_t used;
    uint32_t entries;
    uint32_t last_offset;
    uint32_t total_entries;
    uint32_t lap_count;
    uint8_t bytes[kTraceTableSize];
};

struct SharedState {
    char magic[8];
    uint32_t version;
    uint32_t size;
    Topology topology;
    DeviceRuntime devices[kMaxDevices];
    AdapterRuntime adapters[kMaxAdapterEntries];
    int32_t injected_count;
    InjectedSector injected[kMaxInjected];
    TraceTable trace;
    FaultTable faults;
    InFlightTable flight;
};

// The signed counters of a long-lived state wrap round, as the driver's
// do, rather than overflow.
inline void count_one(int32_t& counter) { counter = static_cast<int32_t>(static_cast<uint32_t>(counter) + 1u); }

// The fault table of a state file names only devices, paths and adapters
// the topology has (sim/faults.cpp).
bool valid_faults(const SharedState& state);
// The table of requests in flight holds only slots the topology can have,
// and timings in range (sim/inflight.cpp).
bool valid_in_flight(const SharedState& state);
// Every check a state passes before use (sim/state_check.cpp): "" when it
// may be used, else the field at fault and what is wrong with it.
std::string check_state(const SharedState& state);

Topology default_topology();
// $VPATHSIM_STATE, else a per-user directory under /tmp.
std::string default_state_dir();
// Parses the line-oriented topology description (see docs/simulator.md).
bool parse_config(const std::string& text, Topology* out, std::string* error);
// Reads and parses the topology file; false with "FILE: reason" in *error,
// *out untouched, when it cannot be read, is larger than kMaxConfigBytes or
// does not parse.
bool read_config(const std::string& file, Topology* out, std::string* error);

// Copies between the simulator and an address the caller handed over; false
// when the address range is not fully accessible (the driver's EFAULT).
bool copy_from_user(void* dst, const void* user, size_t n);
bool copy_to_user(void* user, const void* src, size_t n);

class Sim {
public:
    Sim() = default;
    ~Sim();
    Sim(const Sim&) = delete;
    Sim& operator=(const Sim&) = delete;

    // Attaches to the state in dir, creating it (from the file named by
    // config, or the built-in topology when config is empty) when absent;
    // false with the reason when the state there fails its checks. With
    // start_over the state is neither made nor checked: reset() follows.
    bool attach(const std::string& dir, const std::string& config, std::string* error, bool start_over = false);
    // Replaces the state with a fresh one for the topology; images are emptied.
    bool reset(const Topology& topology, std::string* error);

    // Device number for "/dev/vpathN" when N is in the topology, else -1;
    // node tells whether the name is one the driver would own at all.
    int device_for_path(const char* path, bool* node = nullptr);
    std::string image_path(int device) const;
    uint64_t device_size(int device);

    // One transfer: picks a path, refuses with EIO when none functions or an
    // injected sector is covered, runs io() under the driver lock and counts
    // the outcome. With a service time set, the transfer first spends it on
    // its path with the lock released, and is retried on another path when
    // its own fails meanwhile (sim/inflight.cpp). Returns io()'s result (the
    // length, io() not called, for a write lost in flight), or -1 with errno.
    template <typename Io>
    ssize_t transfer(int device, bool write, uint64_t position, size_t length, Io io);

    // A control request on an open vpath: 0, or -1 with errno.
    int request(uint32_t code, void* record);
    // The size requests the kernel's block layer answers for every block
    // device before its driver sees a request (BLKGETSIZE64: bytes,
    // BLKSSZGET: logical block size). False when code is not one of them;
    // else *rc is 0, or -1 with errno.
    bool block_layer_request(int device, uint32_t code, void* record, int* rc);

    // Fault injection and inspection for the control program.
    bool fail_path(int device, int path);
    bool fail_adapter(int adapter);
    void restore();
    // A fault now or after a count (sim/faults.cpp); false with the reason,
    // state unchanged, when the request names nothing the driver has or
    // cannot take effect.
    bool arm(const FaultRequest& request, std::string* error);
    bool inject_eio(int device, uint64_t sector);
    void show(FILE* out);
    // Service time and failover delay of a device (sim/inflight.cpp); false
    // with the reason when out of range or no such device.
    bool set_latency(int device, long long microseconds, std::string* error);
    bool set_failover_delay(int device, long long milliseconds, std::string* error);
    // Requests of the device in flight now.
    int in_flight(int device);

    SharedState* state() { return state_; }
    // Takes the driver lock; false, lock not held, when the state file no
    // longer covers the mapped state (cut short under the running program,
    // where touching the mapping would raise SIGBUS). Requests then fail
    // with EIO; the first such failure is told on standard error.
    bool lock();
    void unlock();
    // Whether the last lock() found the state file cut short.
    bool lost() const { return lost_; }
    // Around fork(): a child must not start with the lock of this process's
    // threads held by a thread it does not have.
    void hold_threads() { thread_lock_.lock(); }
    void release_threads() { thread_lock_.unlock(); }

private:
    int begin_transfer(int device, bool write, uint64_t position, size_t length, int* path);
    void end_transfer(int device, int path, bool write, size_t length, ssize_t result, int error, bool counted);
    // sim/paths.cpp: the next path by the device's policy; -1 when none
    // functions.
    int choose_path(int device);
    // sim/inflight.cpp: a transfer with a service time. take_slot() holds a
    // slot before the path is chosen, aboard() puts the transfer on its path
    // and counts it for scheduled faults, fly() spends the service
    // time and returns with the lock held again (flight->locked false when
    // it could not be taken back), with 0 or the errno of a failed retry;
    // land() frees the slot.
    bool take_slot(Flight* flight);
    void aboard(Flight* flight);
    int fly(Flight* flight);
    void land(Flight* flight);
    // Marks the requests in flight through a path that just failed (every
    // path of the device with path -1, of the adapter with device -1):
    // retried, or with lose its writes dropped.
    void ground_in_flight(int device, int path, int adapter, bool lose);
    uint32_t in_flight_count(int device, int adapter, int write) const;
    uint32_t latency(int device) const { return state_->flight.timing[device].latency_us; }
    void show_timing(FILE* out, int device);
    void trace(const char* format, ...) __attribute__((format(printf, 2, 3)));
    bool reset_locked(const Topology& topology, std::string* error);
    bool path_functions(int device, int path) const;
    // sim/faults.cpp: the hooks of a transfer and the fault table.
    int flaky_retry(int device, const char* what, int* path);
    void patch_for_fault(int device, int path, bool write, uint64_t position, size_t length, ImagePatch* patch);
    void advance_schedule(int device, size_t length);
    void strike(const ScheduledFault& fault, bool scheduled);
    void show_faults(FILE* out);
    int remaining_paths(int device) const;

    int get_number_devices(void* user);
    int get_adapter_info(void* user);
    int get_device_state(void* user);
    int set_path(void* user);
    int set_adapter(void* user);
    int get_inquiry(void* user);
    int get_dev_stats(void* user);
    int get_adapter_stats(void* user);
    int set_controller(void* user);
    int trace_request(void* user);

    std::string dir_;
    // flock() holds across processes only: the threads of one process share
    // the descriptor, so they take this first.
    std::mutex thread_lock_;
    int fd_ = -1;
    SharedState* state_ = nullptr;
    bool lost_ = false;
};

class SimLock {
public:
    explicit SimLock(Sim& sim) : sim_(sim), held_(sim.lock()) {}
    ~SimLock() {
        if (held_) sim_.unlock();
    }
    bool held() const { return held_; }
    SimLock(const SimLock&) = delete;
    SimLock& operator=(const SimLock&) = delete;

private:
    Sim& sim_;
    bool held_;
};

template <typename Io>
ssize_t Sim::transfer(int device, bool write, uint64_t position, size_t length, Io io) {
    if (!lock()) return errno = EIO, -1;
    Flight flight;
    flight.device = device;
    flight.write = write;
    flight.position = position;
    flight.length = length;
    int error = length > 0 && latency(device) > 0 && !take_slot(&flight) ? EIO : 0;
    if (!flight.locked) return errno = EIO, -1;
    if (error == 0) error = begin_transfer(device, write, position, length, &flight.path);
    if (error == 0 && flight.slot >= 0) {
        aboard(&flight);
        error = fly(&flight);
        if (!flight.locked) return errno = EIO, -1;
    }
    if (error != 0) {
        end_transfer(device, flight.path, write, length, -1, error, flight.counted);
        land(&flight);
        unlock();
        errno = error;
        return -1;
    }
    ImagePatch patch;
    if (!flight.lost) patch_for_fault(device, flight.path, write, position, length, &patch);
    ssize_t result = flight.lost ? static_cast<ssize_t>(length) : io();
    int saved = errno;
    patch.undo();
    end_transfer(device, flight.path, write, length, result, result < 0 ? saved : 0, flight.counted);
    land(&flight);
    unlock();
    errno = saved;
    return result;
}

}  // namespace vpathsim

// Faults that strike during a transfer: the schedule counted down by the
// transfers, the flaky path retried on another one, and the data faults done
// on the backing image around the transfer (see docs/simulator.md).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "driver.h"

namespace vpathsim {
namespace {

const char* const kKindNames[kFaultKinds] = {
    "none",         "fail-path",  "restore-path", "fail-adapter",  "restore-adapter",
    "fail-device",  "restore-device", "flaky-path", "drop-writes", "corrupt-reads", "lose-in-flight",
};

bool on_path(uint8_t kind) {
    return kind == kFaultFailPath || kind == kFaultRestorePath || kind == kFaultFlakyPath ||
           kind == kFaultDropWrites || kind == kFaultCorruptReads || kind == kFaultLoseInFlight;
}
bool on_adapter(uint8_t kind) { return kind == kFaultFailAdapter || kind == kFaultRestoreAdapter; }

// The fault as the command that arms it: "fail-path 0 1", "flaky-path 0 2 every 3".
std::string describe(uint8_t kind, int device, int target, uint32_t argument) {
    // Appended piece by piece: GCC 12 at -O3 takes " " + std::to_string()
    // for an overlapping copy (-Wrestrict) and the Release build fails.
    std::string text = kKindNames[kind];
    const auto add = [&text](const char* word, long long number) {
        text.append(word).append(std::to_string(number));
    };
    if (on_adapter(kind)) {
        add(" ", target);
        return text;
    }
    add(" ", device);
    if (on_path(kind)) add(" ", target);
    if (kind == kFaultFlakyPath) add(" every ", argument);
    if (kind == kFaultCorruptReads) add(" byte ", argument);
    return text;
}

std::string count_text(uint64_t count, bool in_sectors) {
    return std::to_string(count) + (in_sectors ? " sector" : " transfer") + (count == 1 ? "" : "s");
}

}  // namespace

bool valid_faults(const SharedState& state) {
    const Topology& topology = state.topology;
    const FaultTable& table = state.faults;
    if (table.scheduled_count < 0 || table.scheduled_count > kMaxScheduled) return false;
    for (int i = 0; i < table.scheduled_count; ++i) {
        const ScheduledFault& fault = table.scheduled[i];
        if (fault.kind == kFaultNone || fault.kind >= kFaultKinds || fault.remaining == 0) return false;
        if (on_adapter(fault.kind)) {
            if (fault.device != -1 || fault.target < 0 || fault.target >= topology.adapter_count) return false;
            continue;
        }
        if (fault.device < 0 || fault.device >= topology.device_count) return false;
        if (on_path(fault.kind) &&
            (fault.target < 0 || fault.target >= topology.devices[fault.device].path_count))
            return false;
    }
    return true;
}

bool Sim::arm(const FaultRequest& request, std::string* error) {
    SimLock guard(*this);
    const Topology& topology = state_->topology;
    FaultKind kind = request.kind;
    if (kind == kFaultNone || kind >= kFaultKinds) return *error = "unknown fault", false;
    int device = request.device, target = request.target;
    if (on_adapter(kind)) {
        device = -1;
        if (target < 0 || target >= topology.adapter_count)
            return *error = "no adapter " + std::to_string(target), false;
        if (kind == kFaultFailAdapter && state_->adapters[target].failed)
            return *error = "adapter " + std::to_string(target) + " has failed already", false;
    } else {
        if (device < 0 || device >= topology.device_count)
            return *error = "no device vpath" + std::to_string(device), false;
        const DeviceConfig& config = topology.devices[device];
        if (on_path(kind) && (target < 0 || target >= config.path_count))
            return *error = "no path " + std::to_string(target) + " on vpath" + std::to_string(device), false;
        bool strikes_path = on_path(kind) && kind != kFaultRestorePath;
        if (strikes_path && state_->devices[device].paths[target].failed)
            return *error = "path " + std::to_string(target) + " of vpath" + std::to_string(device) +
                            " has failed already; restore it first",
                   false;
        if (kind == kFaultFailDevice) {
            bool any = false;
            for (int p = 0; p < config.path_count; ++p) any = any || !state_->devices[device].paths[p].failed;
            if (!any) return *error = "every path of vpath" + std::to_string(device) + " has failed already", false;
        }
    }
    if (kind == kFaultFlakyPath && request.argument == 0) return *error = "every: K must be 1 or more", false;
    ScheduledFault fault{};
    fault.kind = kind;
    fault.in_sectors = request.in_sectors;
    fault.device = device;
    fault.target = target;
    fault.argument = request.argument;
    fault.armed = fault.remaining = request.after;
    if (request.after == 0) {
        strike(fault, false);
        return true;
    }
    FaultTable& table = state_->faults;
    if (table.scheduled_count == kMaxScheduled)
        return *error = "too many pending faults (at most " + std::to_string(kMaxScheduled) + ")", false;
    table.scheduled[table.scheduled_count++] = fault;
    trace("%s armed: after %s\n", describe(kind, device, target, fault.argument).c_str(),
          count_text(fault.armed, fault.in_sectors).c_str());
    return true;
}

void Sim::strike(const ScheduledFault& fault, bool scheduled) {
    std::string when = scheduled ? " (after " + count_text(fault.armed, fault.in_sectors) + ")" : "";
    const Topology& topology = state_->topology;
    auto clear_path = [&](int device, int path) {
        state_->devices[device].paths[path].failed = 0;
        state_->faults.paths[device][path] = PathFaults{};
    };
    int d = fault.device, t = fault.target;
    switch (fault.kind) {
        case kFaultFailPath:
            state_->devices[d].paths[t].failed = 1;
            trace("vpath%d path %d failed%s\n", d, t, when.c_str());
            ground_in_flight(d, t, -1, false);
            break;
        case kFaultLoseInFlight:
            state_->devices[d].paths[t].failed = 1;
            trace("vpath%d path %d failed, losing the writes in flight%s\n", d, t, when.c_str());
            ground_in_flight(d, t, -1, true);
            break;
        case kFaultRestorePath:
            clear_path(d, t);
            trace("vpath%d path %d restored%s\n", d, t, when.c_str());
            break;
        case kFaultFailAdapter:
            state_->adapters[t].failed = 1;
            trace("adapter %d failed%s\n", t, when.c_str());
            ground_in_flight(-1, -1, t, false);
            break;
        case kFaultRestoreAdapter:
            state_->adapters[t].failed = 0;
            trace("adapter %d restored%s\n", t, when.c_str());
            break;
        case kFaultFailDevice:
            for (int p = 0; p < topology.devices[d].path_count; ++p) state_->devices[d].paths[p].failed = 1;
            trace("vpath%d every path failed%s\n", d, when.c_str());
            ground_in_flight(d, -1, -1, false);
            break;
        case kFaultRestoreDevice:
            for (int p = 0; p < topology.devices[d].path_count; ++p) clear_path(d, p);
            trace("vpath%d every path restored%s\n", d, when.c_str());
            break;
        case kFaultFlakyPath: {
            PathFaults& path = state_->faults.paths[d][t];
            path.flaky_every = fault.argument;
            path.flaky_count = 0;
            trace("vpath%d path %d flaky (every %u)%s\n", d, t, fault.argument, when.c_str());
            break;
        }
        case kFaultDropWrites:
            state_->faults.paths[d][t].drop_writes = 1;
            trace("vpath%d path %d drops writes%s\n", d, t, when.c_str());
            break;
        case kFaultCorruptReads:
            state_->faults.paths[d][t].corrupt_reads = 1;
            state_->faults.paths[d][t].corrupt_byte = fault.argument;
            trace("vpath%d path %d corrupts byte %u of reads%s\n", d, t, fault.argument, when.c_str());
            break;
        default: break;
    }
}

// Counted after every transfer of at least one byte, failed ones included:
// a device's transfers for its own faults, every transfer for an adapter's.
void Sim::advance_schedule(int device, size_t length) {
    FaultTable& table = state_->faults;
    uint64_t sectors = (length + kSectorSize - 1) / kSectorSize;
    int kept = 0;
    int count = table.scheduled_count;
    for (int i = 0; i < count; ++i) {
        ScheduledFault fault = table.scheduled[i];
        if (fault.device == -1 || fault.device == device) {
            fault.remaining -= std::min<uint64_t>(fault.remaining, fault.in_sectors ? sectors : 1);
            if (fault.remaining == 0) {
                strike(fault, true);
                continue;
            }
        }
        table.scheduled[kept++] = fault;
    }
    table.scheduled_count = kept;
}

// A try on a flaky path fails; the driver retries it on the next functioning
// path, and the failed try is a recovered error of its path. With no other
// path left, the transfer fails with EIO on the flaky one.
int Sim::flaky_retry(int device, const char* what, int* path) {
    const DeviceConfig& config = state_->topology.devices[device];
    uint32_t tried = 0;
    int current = *path;
    for (;;) {
        PathFaults& faults = state_->faults.paths[device][current];
        if (faults.flaky_every == 0 || ++faults.flaky_count % faults.flaky_every != 0) {
            *path = current;
            return 0;
        }
        ++faults.hits;
        tried |= 1u << current;
        int next = -1;
        for (int step = 1; step < config.path_count && next < 0; ++step) {
            int candidate = (current + step) % config.path_count;
            if ((tried & (1u << candidate)) == 0 && path_functions(device, candidate)) next = candidate;
        }
        if (next < 0) {
            trace("vpath%d %s via path %d (%s): flaky path error, no path left\n", device, what, current,
                  config.paths[current].name);
            *path = current;
            return EIO;
        }
        PathRuntime& runtime = state_->devices[device].paths[current];
        AdapterRuntime& adapter = state_->adapters[config.paths[current].adapter];
        count_one(runtime.times_used);
        count_one(runtime.recovered_errors);
        ++adapter.count;
        ++adapter.errors;
        trace("vpath%d %s via path %d (%s): flaky path error, retried on path %d\n", device, what, current,
              config.paths[current].name, next);
        current = next;
    }
}

void Sim::patch_for_fault(int device, int path, bool write, uint64_t position, size_t length, ImagePatch* patch) {
    if (path < 0 || length == 0) return;
    PathFaults& faults = state_->faults.paths[device][path];
    const char* name = state_->topology.devices[device].paths[path].name;
    std::string image = image_path(device);
    if (write && faults.drop_writes) {
        if (length > kMaxDroppedWrite || !patch->hold(image.c_str(), position, length)) {
            trace("vpath%d write via path %d (%s): too large to drop, written\n", device, path, name);
            return;
        }
        ++faults.hits;
        trace("vpath%d write via path %d (%s): dropped\n", device, path, name);
    } else if (!write && faults.corrupt_reads && faults.corrupt_byte < length) {
        uint64_t at = position + faults.corrupt_byte;
        if (!patch->hold(image.c_str(), at, 1)) return;
        uint8_t flipped = patch->saved[0] ^ 0xff;
        if (pwrite(patch->fd, &flipped, 1, static_cast<off_t>(at)) != 1) return;
        ++faults.hits;
        trace("vpath%d read via path %d (%s): byte %u corrupted\n", device, path, name, faults.corrupt_byte);
    }
}

void Sim::show_faults(FILE* out) {
    const Topology& topology = state_->topology;
    for (int d = 0; d < topology.device_count; ++d) {
        for (int p = 0; p < topology.devices[d].path_count; ++p) {
            const PathFaults& faults = state_->faults.paths[d][p];
            if (faults.flaky_every != 0)
                std::fprintf(out, "%s  struck %u\n", describe(kFaultFlakyPath, d, p, faults.flaky_every).c_str(),
                             faults.hits);
            if (faults.drop_writes)
                std::fprintf(out, "%s  struck %u\n", describe(kFaultDropWrites, d, p, 0).c_str(), faults.hits);
            if (faults.corrupt_reads)
                std::fprintf(out, "%s  struck %u\n", describe(kFaultCorruptReads, d, p, faults.corrupt_byte).c_str(),
                             faults.hits);
        }
    }
    const FaultTable& table = state_->faults;
    for (int i = 0; i < table.scheduled_count; ++i) {
        const ScheduledFault& fault = table.scheduled[i];
        std::fprintf(out, "pending %s after %s\n", describe(fault.kind, fault.device, fault.target, fault.argument).c_str(),
                     count_text(fault.remaining, fault.in_sectors).c_str());
    }
}

bool ImagePatch::hold(const char* image, uint64_t at, size_t length) {
    undo();
    fd = open(image, O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    offset = at;
    saved.assign(length, 0);
    ssize_t got = pread(fd, saved.data(), length, static_cast<off_t>(at));
    if (got != static_cast<ssize_t>(length)) {
        close(fd);
        fd = -1;
        saved.clear();
        return false;
    }
    return true;
}

void ImagePatch::undo() {
    if (fd < 0) return;
    int saved_errno = errno;
    // Within the device, so a short write-back can only be a full disk: the
    // image then keeps what the transfer left, which is all that can be done.
    for (size_t done = 0; done < saved.size();) {
        ssize_t n = pwrite(fd, saved.data() + done, saved.size() - done, static_cast<off_t>(offset + done));
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    fd = -1;
    saved.clear();
    errno = saved_errno;
}

}  // namespace vpathsim

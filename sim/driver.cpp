// The simulated driver proper: shared state, path selection, statistics,
// control requests and the driver trace table.
#include "driver.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <vector>

namespace vpathsim {
namespace {

// What the trace record shows as the table's "kernel address".
constexpr uint64_t kTableAddress = 0xffffc90000a00000ull;

// process_vm_* may be refused by a seccomp profile; a pipe makes the kernel
// check the caller's range just the same.
bool pipe_copy(void* dst, const void* src, size_t n, bool user_is_src) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    bool ok = true;
    const auto* from = static_cast<const uint8_t*>(src);
    auto* to = static_cast<uint8_t*>(dst);
    for (size_t done = 0; ok && done < n;) {
        size_t chunk = std::min<size_t>(n - done, 4096);
        ok = write(fds[1], from + done, chunk) == static_cast<ssize_t>(chunk) &&
             read(fds[0], to + done, chunk) == static_cast<ssize_t>(chunk);
        done += chunk;
    }
    (void)user_is_src;
    close(fds[0]);
    close(fds[1]);
    return ok;
}

bool vm_copy(void* local, void* remote, size_t n, bool to_user) {
    if (n == 0) return true;
    iovec mine{local, n};
    iovec theirs{remote, n};
    ssize_t done = to_user ? process_vm_writev(getpid(), &mine, 1, &theirs, 1, 0)
                           : process_vm_readv(getpid(), &mine, 1, &theirs, 1, 0);
    if (done == static_cast<ssize_t>(n)) return true;
    if (done < 0 && (errno == ENOSYS || errno == EPERM)) {
        return to_user ? pipe_copy(remote, local, n, false) : pipe_copy(local, remote, n, true);
    }
    return false;
}

void row_add(StatsRow& row, bool write, uint32_t amount, uint32_t maximum) {
    (write ? row.total_write : row.total_read) += amount;
    row.maximum = std::max(row.maximum, maximum);
}

int size_bucket(size_t length) {
    if (length <= 512) return 0;
    if (length <= 4096) return 1;
    if (length <= 16384) return 2;
    if (length <= 65536) return 3;
    return 4;
}

}  // namespace

std::string default_state_dir() {
    const char* env = getenv("VPATHSIM_STATE");
    if (env != nullptr && *env != '\0') return env;
    return "/tmp/vpathsim-" + std::to_string(getuid());
}

bool copy_from_user(void* dst, const void* user, size_t n) { return vm_copy(dst, const_cast<void*>(user), n, false); }
bool copy_to_user(void* user, const void* src, size_t n) { return vm_copy(const_cast<void*>(src), user, n, true); }

Sim::~Sim() {
    if (state_ != nullptr) munmap(state_, sizeof(SharedState));
    if (fd_ >= 0) close(fd_);
}

bool Sim::lock() {
    thread_lock_.lock();
    while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {}
    if (state_ == nullptr) return true;  // attach() sizes and checks the file itself
    struct stat info {};
    std::string wrong = "cut short";
    if (fstat(fd_, &info) == 0 && info.st_size >= static_cast<off_t>(sizeof(SharedState))) wrong = check_state(*state_);
    if (wrong.empty()) {
        lost_ = false;
        return true;
    }
    if (!lost_)
        std::fprintf(stderr, "vpathsim: %s/state: %s; changed while in use, requests fail with EIO\n", dir_.c_str(),
                     wrong.c_str());
    lost_ = true;
    flock(fd_, LOCK_UN);
    thread_lock_.unlock();
    return false;
}
void Sim::unlock() {
    flock(fd_, LOCK_UN);
    thread_lock_.unlock();
}

std::string Sim::image_path(int device) const { return dir_ + "/vpath" + std::to_string(device) + ".img"; }

bool Sim::attach(const std::string& dir, const std::string& config, std::string* error, bool start_over) {
    dir_ = dir;
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) return *error = dir + ": " + std::strerror(errno), false;
    std::string file = dir + "/state";
    fd_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ < 0) return *error = file + ": " + std::strerror(errno), false;
    SimLock guard(*this);
    struct stat info {};
    if (fstat(fd_, &info) != 0) return *error = file + ": " + std::strerror(errno), false;
    // An empty file is a state still to be made; any other is checked whole
    // and refused, disk images untouched, when it fails: only init (or run
    // --fresh) starts a state over.
    const bool fresh = info.st_size == 0;
    if (!fresh && !start_over && info.st_size != static_cast<off_t>(sizeof(SharedState)))
        return *error = file + ": size " + std::to_string(info.st_size) +
                        " bytes is not that of a state (vpathsim init starts it over)",
               false;
    if ((fresh || start_over) && ftruncate(fd_, sizeof(SharedState)) != 0)
        return *error = file + ": " + std::strerror(errno), false;
    void* map = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (map == MAP_FAILED) return *error = file + ": " + std::strerror(errno), false;
    state_ = static_cast<SharedState*>(map);
    if (start_over) return true;
    if (!fresh) {
        std::string wrong = check_state(*state_);
        if (wrong.empty()) return true;
        return *error = file + ": " + wrong + " (vpathsim init starts it over)", false;
    }
    Topology topology = default_topology();
    if (!config.empty() && !read_config(config, &topology, error)) return false;
    return reset_locked(topology, error);
}

// Not through lock(): the state being replaced need not pass its checks.
bool Sim::reset(const Topology& topology, std::string* error) {
    thread_lock_.lock();
    while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {}
    struct stat info {};
    bool whole = fstat(fd_, &info) == 0 && info.st_size >= static_cast<off_t>(sizeof(SharedState));
    bool done = whole ? reset_locked(topology, error) : (*error = dir_ + "/state: cut short while in use", false);
    unlock();
    return done;
}

bool Sim::reset_locked(const Topology& topology, std::string* error) {
    std::memset(state_, 0, sizeof(SharedState));
    std::memcpy(state_->magic, kStateMagic, sizeof kStateMagic);
    state_->version = kStateVersion;
    state_->size = sizeof(SharedState);
    state_->topology = topology;
    for (int d = 0; d < topology.device_count; ++d) {
        std::string image = image_path(d);
        int fd = open(image.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(topology.devices[d].size)) != 0) {
            *error = image + ": " + std::strerror(errno);
            if (fd >= 0) close(fd);
            return false;
        }
        close(fd);
    }
    return true;
}

int Sim::device_for_path(const char* path, bool* node) {
    if (node != nullptr) *node = false;
    static constexpr char kPrefix[] = "/dev/vpath";
    if (path == nullptr || std::strncmp(path, kPrefix, sizeof kPrefix - 1) != 0) return -1;
    const char* digits = path + sizeof kPrefix - 1;
    size_t n = std::strlen(digits);
    if (n == 0 || n > 3 || (n > 1 && digits[0] == '0')) return -1;
    int number = 0;
    for (size_t i = 0; i < n; ++i) {
        if (digits[i] < '0' || digits[i] > '9') return -1;
        number = number * 10 + (digits[i] - '0');
    }
    if (node != nullptr) *node = true;
    SimLock guard(*this);
    if (!guard.held()) return -1;
    return number < state_->topology.device_count ? number : -1;
}

uint64_t Sim::device_size(int device) {
    SimLock guard(*this);
    if (!guard.held()) return 0;
    return state_->topology.devices[device].size;
}

bool Sim::path_functions(int device, int path) const {
    const PathRuntime& runtime = state_->devices[device].paths[path];
    const AdapterRuntime& adapter = state_->adapters[state_->topology.devices[device].paths[path].adapter];
    return !runtime.offline && !runtime.failed && !adapter.offline && !adapter.failed;
}

int Sim::remaining_paths(int device) const {
    int count = 0;
    for (int p = 0; p < state_->topology.devices[device].path_count; ++p) count += path_functions(device, p);
    return count;
}

void Sim::trace(const char* format, ...) {
    TraceTable& table = state_->trace;
    uint32_t flags = table.flags;
    if ((flags & (TRACE_CC | TRACE_PS)) == 0 || (flags & TRACE_PAUSE) != 0) return;
    char text[253];
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (n < 0) return;
    uint32_t length = std::min<uint32_t>(static_cast<uint32_t>(n), sizeof text - 1);
    uint32_t needed = std::strncmp(text, "ENTRY", 5) == 0  ? TRACE_ENTRY
                      : std::strncmp(text, "EXIT", 4) == 0 ? TRACE_EXIT
                                                           : TRACE_DEBUG;
    if ((flags & needed) == 0) return;
    uint32_t total = length + 3;
    while (table.used + total > kTraceTableSize && table.entries > 0) {
        uint32_t oldest = std::strtoul(std::string(reinterpret_cast<char*>(table.bytes), 2).c_str(), nullptr, 16);
        oldest = std::clamp<uint32_t>(oldest, 3, table.used);
        std::memmove(table.bytes, table.bytes + oldest, table.used - oldest);
        table.used -= oldest;
        --table.entries;
        ++table.lap_count;
    }
    char head[3];
    std::snprintf(head, sizeof head, "%02X", total);
    uint8_t* at = table.bytes + table.used;
    std::memcpy(at, head, 2);
    std::memcpy(at + 2, text, length);
    at[2 + length] = 0;
    table.last_offset = table.used;
    table.used += total;
    ++table.entries;
    ++table.total_entries;
}

int Sim::begin_transfer(int device, bool write, uint64_t position, size_t length, int* path) {
    const char* what = write ? "write" : "read";
    trace("ENTRY vpath_%s vpath%d offset %llu length %zu\n", what, device,
          static_cast<unsigned long long>(position), length);
    if (length == 0) return 0;
    const DeviceConfig& config = state_->topology.devices[device];
    DeviceRuntime& runtime = state_->devices[device];
    uint64_t first = position / kSectorSize;
    uint64_t last = (position + length - 1) / kSectorSize;
    int chosen = choose_path(device);
    if (chosen < 0) {
        trace("vpath%d %s: no functioning path\n", device, what);
        return EIO;
    }
    *path = chosen;
    int error = flaky_retry(device, what, path);
    // Chosen as the transfer is issued, so that transfers in flight together
    // go round the paths.
    runtime.last_path = *path;
    if (error != 0) return error;
    chosen = *path;
    for (int i = 0; i < state_->injected_count; ++i) {
        const InjectedSector& bad = state_->injected[i];
        if (bad.device == device && bad.sector >= first && bad.sector <= last) {
            trace("vpath%d %s: medium error at sector %llu on path %d (%s)\n", device, what,
                  static_cast<unsigned long long>(bad.sector), chosen, config.paths[chosen].name);
            return EIO;
        }
    }
    return 0;
}

void Sim::end_transfer(int device, int path, bool write, size_t length, ssize_t result, int error, bool counted) {
    const char* what = write ? "write" : "read";
    DeviceRuntime& runtime = state_->devices[device];
    if (path >= 0) {
        AdapterRuntime& adapter = state_->adapters[state_->topology.devices[device].paths[path].adapter];
        count_one(runtime.paths[path].times_used);
        count_one(adapter.count);
        if (result < 0) count_one(adapter.errors);
        if (result > 0) {
            auto bytes = static_cast<size_t>(result);
            auto sectors = static_cast<uint32_t>((bytes + kSectorSize - 1) / kSectorSize);
            // The maximum of the I/O row is the most transfers in flight
            // at once, this one included; one done under the lock alone
            // had none beside it.
            int a = state_->topology.devices[device].paths[path].adapter;
            row_add(runtime.io, write, 1, counted ? in_flight_count(device, -1, -1) : 1);
            row_add(runtime.sectors, write, sectors, sectors);
            ++runtime.sizes[size_bucket(bytes)];
            row_add(adapter.io, write, 1, counted ? in_flight_count(-1, a, -1) : 1);
            row_add(adapter.sectors, write, sectors, sectors);
        }
        trace("vpath%d %s via path %d (%s) on %s\n", device, what, path,
              state_->topology.devices[device].paths[path].name,
              state_->topology.adapter_names[state_->topology.devices[device].paths[path].adapter]);
    }
    if (result < 0) {
        trace("EXIT vpath_%s vpath%d length %zu error %d\n", what, device, length, error);
    } else {
        trace("EXIT vpath_%s vpath%d length %zu rc %zd\n", what, device, length, result);
    }
    if (length > 0 && !counted) advance_schedule(device, length);
}

int Sim::request(uint32_t code, void* record) {
    SimLock guard(*this);
    if (!guard.held()) return errno = EIO, -1;
    if (code != DD_TRACE) trace("ENTRY vpath_ioctl 0x%04x\n", code);
    int rc;
    switch (code) {
        case DD_TRACE: rc = trace_request(record); break;
        case DD_GET_NUMBER_DEVICES: rc = get_number_devices(record); break;
        case DD_GET_ADAPTER_INFO: rc = get_adapter_info(record); break;
        case DD_GET_DEVICE_STATE: rc = get_device_state(record); break;
        case DD_SET_PATH: rc = set_path(record); break;
        case DD_SET_ADAPTER: rc = set_adapter(record); break;
        case DD_GET_INQUIRY: rc = get_inquiry(record); break;
        case DD_GET_DEV_STATS: rc = get_dev_stats(record); break;
        case DD_GET_ADAPTER_STATS: rc = get_adapter_stats(record); break;
        case DD_SET_CONTROLLER: rc = set_controller(record); break;
        default: rc = ENOTTY; break;
    }
    if (code != DD_TRACE) trace("EXIT vpath_ioctl 0x%04x rc %d\n", code, rc == 0 ? 0 : -rc);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return 0;
}

bool Sim::block_layer_request(int device, uint32_t code, void* record, int* rc) {
    bool copied = true;
    if (code == static_cast<uint32_t>(BLKGETSIZE64)) {
        uint64_t bytes = device_size(device);
        copied = copy_to_user(record, &bytes, sizeof bytes);
    } else if (code == static_cast<uint32_t>(BLKSSZGET)) {
        int block_length = static_cast<int>(kSectorSize);
        copied = copy_to_user(record, &block_length, sizeof block_length);
    } else {
        return false;
    }
    *rc = copied ? 0 : (errno = EFAULT, -1);
    return true;
}

// Each handler copies the record in, answers, and copies it back; a failure
// still delivers the completion status, as the real driver does.
namespace {

template <typename Record>
int finish(void* user, Record& record, int32_t status, int error) {
    record.status = status;
    if (!copy_to_user(user, &record, sizeof record)) return EFAULT;
    return error;
}

}  // namespace

int Sim::get_number_devices(void* user) {
    DeviceCountRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    record.number_of_devices = state_->topology.device_count;
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::get_adapter_info(void* user) {
    AdapterInfoRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    const Topology& topology = state_->topology;
    std::memset(record.entries, 0, sizeof record.entries);
    record.entry_count = topology.adapter_count;
    for (int a = 0; a < topology.adapter_count; ++a) {
        AdapterEntry& entry = record.entries[a];
        const AdapterRuntime& runtime = state_->adapters[a];
        for (int d = 0; d < topology.device_count; ++d) {
            for (int p = 0; p < topology.devices[d].path_count; ++p) {
                if (topology.devices[d].paths[p].adapter != a) continue;
                ++entry.attached_paths;
                const PathRuntime& path = state_->devices[d].paths[p];
                entry.functioning_paths += !path.offline && !path.failed && !runtime.offline && !runtime.failed;
            }
        }
        entry.mode = runtime.offline ? kAdapterManualOffline : kAdapterActive;
        entry.state = runtime.failed || (entry.attached_paths > 0 && entry.functioning_paths == 0 && !runtime.offline)
                          ? kAdapterFailed
                      : entry.functioning_paths < entry.attached_paths && !runtime.offline ? kAdapterDegraded
                                                                                          : kAdapterNormal;
        entry.count = runtime.count;
        entry.error_count = runtime.errors;
        std::memcpy(entry.name, topology.adapter_names[a], sizeof entry.name);
    }
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::get_device_state(void* user) {
    DeviceStateRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    int d = record.device;
    if (d < 0 || d >= state_->topology.device_count) return finish(user, record, kStatusDeviceNotFound, ENODEV);
    const DeviceConfig& config = state_->topology.devices[d];
    const DeviceRuntime& runtime = state_->devices[d];
    char name[32];
    std::snprintf(name, sizeof name, "vpath%d", d);
    std::memset(record.device_name, 0, sizeof record.device_name);
    std::memcpy(record.device_name, name, std::min(std::strlen(name), sizeof record.device_name - 1));
    std::memcpy(record.serial_number, config.serial, sizeof record.serial_number);
    std::memcpy(record.device_type, config.type, sizeof record.device_type);
    record.policy = config.policy;
    record.path_count = static_cast<uint32_t>(config.path_count);
    record.remaining_paths = remaining_paths(d);
    record.last_path_used = runtime.last_path;
    std::memset(record.paths, 0, sizeof record.paths);
    for (int p = 0; p < config.path_count; ++p) {
        PathEntry& entry = record.paths[p];
        const PathRuntime& path = runtime.paths[p];
        const AdapterRuntime& adapter = state_->adapters[config.paths[p].adapter];
        entry.adapter_number = config.paths[p].adapter;
        std::memcpy(entry.path_name, config.paths[p].name, sizeof entry.path_name);
        std::memcpy(entry.adapter_name, state_->topology.adapter_names[entry.adapter_number], 16);
        entry.state = path.failed || adapter.failed     ? kPathDead
                      : path.offline || adapter.offline ? kPathClosed
                                                        : kPathOpen;
        entry.mode = path.offline || adapter.offline ? kPathManualOffline : kPathNormal;
        entry.times_used = path.times_used;
        entry.recovered_errors = path.recovered_errors;
    }
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::set_path(void* user) {
    SetPathRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    int d = record.device;
    if (d < 0 || d >= state_->topology.device_count) return finish(user, record, kStatusDeviceNotFound, ENODEV);
    int p = record.path;
    if (p < 0 || p >= state_->topology.devices[d].path_count ||
        (record.state != kStateOnline && record.state != kStateOffline))
        return finish(user, record, kStatusInvalidParameter, EINVAL);
    PathRuntime& path = state_->devices[d].paths[p];
    if (record.state == kStateOffline && path_functions(d, p) && remaining_paths(d) == 1) {
        trace("vpath%d path %d stays online: last path\n", d, p);
        return finish(user, record, kStatusLastPath, 0);
    }
    path.offline = record.state == kStateOffline;
    trace("vpath%d path %d set %s\n", d, p, path.offline ? "offline" : "online");
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::set_adapter(void* user) {
    SetAdapterRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    int a = record.adapter;
    if (a < 0 || a >= state_->topology.adapter_count) return finish(user, record, kStatusInvalidAdapter, EINVAL);
    if (record.state != kStateOnline && record.state != kStateOffline)
        return finish(user, record, kStatusInvalidParameter, EINVAL);
    AdapterRuntime& adapter = state_->adapters[a];
    if (record.state == kStateOffline && !adapter.offline) {
        // Refused when some device would be left without a functioning path.
        const Topology& topology = state_->topology;
        for (int d = 0; d < topology.device_count; ++d) {
            int elsewhere = 0, here = 0;
            for (int p = 0; p < topology.devices[d].path_count; ++p) {
                if (!path_functions(d, p)) continue;
                (topology.devices[d].paths[p].adapter == a ? here : elsewhere) += 1;
            }
            if (here > 0 && elsewhere == 0) {
                trace("adapter %d stays online: last path of vpath%d\n", a, d);
                return finish(user, record, kStatusLastPath, 0);
            }
        }
    }
    adapter.offline = record.state == kStateOffline;
    trace("adapter %d set %s\n", a, adapter.offline ? "offline" : "online");
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::get_inquiry(void* user) {
    InquiryRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    int d = record.device;
    if (d < 0 || d >= state_->topology.device_count) return finish(user, record, kStatusDeviceNotFound, ENODEV);
    std::memcpy(&record.data, state_->topology.devices[d].inquiry, sizeof record.data);
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::get_dev_stats(void* user) {
    DeviceStatsRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    int d = record.device;
    if (d < 0 || d >= state_->topology.device_count) return finish(user, record, kStatusDeviceNotFound, ENODEV);
    const DeviceRuntime& runtime = state_->devices[d];
    record.io = runtime.io;
    record.io.active_read = in_flight_count(d, -1, 0);
    record.io.active_write = in_flight_count(d, -1, 1);
    record.sectors = runtime.sectors;
    record.up_to_512 = runtime.sizes[0];
    record.up_to_4k = runtime.sizes[1];
    record.up_to_16k = runtime.sizes[2];
    record.up_to_64k = runtime.sizes[3];
    record.over_64k = runtime.sizes[4];
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::get_adapter_stats(void* user) {
    AdapterStatsRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    int a = record.adapter;
    if (a < 0 || a >= state_->topology.adapter_count) return finish(user, record, kStatusInvalidAdapter, EINVAL);
    record.io = state_->adapters[a].io;
    record.io.active_read = in_flight_count(-1, a, 0);
    record.io.active_write = in_flight_count(-1, a, 1);
    record.sectors = state_->adapters[a].sectors;
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::set_controller(void* user) {
    SetControllerRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    const Topology& topology = state_->topology;
    int d = record.device;
    // -1 addresses every device (the preferred-controller item uses it).
    if (d < -1 || d >= topology.device_count) return finish(user, record, kStatusDeviceNotFound, ENODEV);
    int first = d < 0 ? 0 : d, last = d < 0 ? topology.device_count - 1 : d;
    for (int i = first; i <= last; ++i) {
        if (record.controller < 0 || record.controller >= topology.devices[i].controllers || record.action < 1 ||
            record.action > 3)
            return finish(user, record, kStatusInvalidParameter, EINVAL);
    }
    for (int i = first; i <= last; ++i) {
        DeviceRuntime& runtime = state_->devices[i];
        if (record.action == 1) runtime.active_controller = record.controller;
        if (record.action == 3) runtime.preferred_controller = record.controller;
        trace("vpath%d controller %d action %d\n", i, record.controller, record.action);
    }
    return finish(user, record, kStatusSuccess, 0);
}

int Sim::trace_request(void* user) {
    TraceArgumentRecord record{};
    if (!copy_from_user(&record, user, sizeof record)) return EFAULT;
    TraceTable& table = state_->trace;
    int error = 0;
    switch (record.command) {
        case DD_TRACE_GET_FLAGS: break;
        case DD_TRACE_SET_FLAGS: table.flags = record.flags & kTraceKnownFlags; break;
        case DD_TRACE_CLEAR:
            table.used = table.entries = table.last_offset = table.total_entries = table.lap_count = 0;
            break;
        case DD_TRACE_REPORT: {
            uint32_t limit = std::min(record.bytes_requested, kTraceDumpCountOffset);
            uint32_t offset = 0, count = 0;
            while (offset < table.used) {
                uint32_t length = std::strtoul(std::string(reinterpret_cast<char*>(table.bytes + offset), 2).c_str(),
                                               nullptr, 16);
                if (length < 3 || offset + length > table.used || offset + length > limit) break;
                offset += length;
                ++count;
            }
            auto* raw = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(record.user_addr));
            if (!copy_to_user(raw, table.bytes, offset)) {
                error = EFAULT;
                break;
            }
            if ((table.flags & TRACE_DUMP) != 0 && record.bytes_requested > kTraceDumpBytesOffset) {
                char dump[kTraceRawSize - kTraceDumpBytesOffset];
                int n = std::snprintf(dump, sizeof dump,
                                      "vpathsim dump: devices %d adapters %d flags 0x%04x entries %u used %u\n",
                                      state_->topology.device_count, state_->topology.adapter_count, table.flags,
                                      table.entries, table.used);
                uint64_t bytes = std::min<uint64_t>({static_cast<uint64_t>(std::max(n, 0)), sizeof dump,
                                                     record.bytes_requested - kTraceDumpBytesOffset});
                if (!copy_to_user(raw + kTraceDumpCountOffset, &bytes, sizeof bytes) ||
                    !copy_to_user(raw + kTraceDumpBytesOffset, dump, bytes)) {
                    error = EFAULT;
                    break;
                }
            }
            record.bytes_reported = offset;
            record.entry_count = count;
            break;
        }
        default: error = EINVAL; break;
    }
    if (error != 0) record.bytes_reported = record.entry_count = 0;
    record.flags = table.flags;
    record.kernel_addr = kTableAddress;
    record.usage = table.used;
    record.capacity = kTraceTableSize;
    record.first_offset = 0;
    record.last_offset = table.last_offset;
    record.total_entries = table.total_entries;
    record.lap_count = table.lap_count;
    if (!copy_to_user(user, &record, sizeof record)) return EFAULT;
    return error;
}

bool Sim::fail_path(int device, int path) {
    SimLock guard(*this);
    if (!guard.held()) return false;
    if (device < 0 || device >= state_->topology.device_count || path < 0 ||
        path >= state_->topology.devices[device].path_count)
        return false;
    state_->devices[device].paths[path].failed = 1;
    trace("vpath%d path %d failed\n", device, path);
    ground_in_flight(device, path, -1, false);
    return true;
}

bool Sim::fail_adapter(int adapter) {
    SimLock guard(*this);
    if (!guard.held()) return false;
    if (adapter < 0 || adapter >= state_->topology.adapter_count) return false;
    state_->adapters[adapter].failed = 1;
    trace("adapter %d failed\n", adapter);
    ground_in_flight(-1, -1, adapter, false);
    return true;
}

void Sim::restore() {
    SimLock guard(*this);
    if (!guard.held()) return;
    for (auto& device : state_->devices)
        for (auto& path : device.paths) path.failed = 0;
    for (auto& adapter : state_->adapters) adapter.failed = 0;
    state_->injected_count = 0;
    std::memset(&state_->faults, 0, sizeof state_->faults);
    trace("faults cleared\n");
}

bool Sim::inject_eio(int device, uint64_t sector) {
    SimLock guard(*this);
    if (!guard.held()) return false;
    if (device < 0 || device >= state_->topology.device_count ||
        sector >= state_->topology.devices[device].size / kSectorSize || state_->injected_count == kMaxInjected)
        return false;
    state_->injected[state_->injected_count++] = {device, sector};
    return true;
}

void Sim::show(FILE* out) {
    SimLock guard(*this);
    if (!guard.held()) return;
    const Topology& topology = state_->topology;
    std::fprintf(out, "state %s  trace flags 0x%04x  trace entries %u\n", dir_.c_str(), state_->trace.flags,
                 state_->trace.entries);
    for (int a = 0; a < topology.adapter_count; ++a) {
        const AdapterRuntime& adapter = state_->adapters[a];
        std::fprintf(out, "adapter %d %-8s %s%s  io %d errors %d\n", a, topology.adapter_names[a],
                     adapter.offline ? "offline" : "online", adapter.failed ? " FAILED" : "", adapter.count,
                     adapter.errors);
    }
    for (int d = 0; d < topology.device_count; ++d) {
        const DeviceConfig& config = topology.devices[d];
        std::fprintf(out, "vpath%d serial %s size %llu policy %u remaining %d last %d\n", d, config.serial,
                     static_cast<unsigned long long>(config.size), config.policy, remaining_paths(d),
                     state_->devices[d].last_path);
        for (int p = 0; p < config.path_count; ++p) {
            const PathRuntime& path = state_->devices[d].paths[p];
            std::fprintf(out, "  path %d %-6s adapter %d %s%s  used %d", p, config.paths[p].name,
                         config.paths[p].adapter, path.offline ? "offline" : "online", path.failed ? " FAILED" : "",
                         path.times_used);
            uint32_t requeued = state_->flight.requeued[d][p];
            if (requeued > 0) std::fprintf(out, "  requeued %u", requeued);
            std::fputc('\n', out);
        }
        show_timing(out, d);
    }
    for (int i = 0; i < state_->injected_count; ++i)
        std::fprintf(out, "eio vpath%d sector %llu\n", state_->injected[i].device,
                     static_cast<unsigned long long>(state_->injected[i].sector));
    show_faults(out);
}

}  // namespace vpathsim

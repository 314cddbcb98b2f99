// LD_PRELOAD interposer: makes /dev/vpathN of the simulated topology behave
// like the driver's devices for an unmodified program. Every other path and
// descriptor goes straight to the C library, so shells and tools started
// from the program (which inherit LD_PRELOAD) are unaffected.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "driver.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using OpenFn = int (*)(const char*, int, ...);
using OpenAtFn = int (*)(int, const char*, int, ...);
using CloseFn = int (*)(int);
using ReadFn = ssize_t (*)(int, void*, size_t);
using WriteFn = ssize_t (*)(int, const void*, size_t);
using SeekFn = off_t (*)(int, off_t, int);
using IoctlFn = int (*)(int, unsigned long, ...);
using DupFn = int (*)(int);
using Dup2Fn = int (*)(int, int);
using Dup3Fn = int (*)(int, int, int);
using FcntlFn = int (*)(int, int, ...);
using CloseRangeFn = int (*)(unsigned, unsigned, int);

template <typename Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// Resolved on first use; dlsym is safe here because nothing of ours runs
// before the host's first call.
#define REAL(type, name)                                  \
    static type real_##name = next<type>(#name);          \
    if (real_##name == nullptr) return errno = ENOSYS, -1

constexpr int kMaxFd = 4096;
std::mutex table_mutex;
int8_t device_of_fd[kMaxFd];  // device number + 1, 0 when not ours
bool direct_fd[kMaxFd];       // opened with O_DIRECT

std::mutex attach_mutex;
vpathsim::Sim* sim = nullptr;
bool attach_failed = false;

vpathsim::Sim* driver() {
    std::lock_guard<std::mutex> guard(attach_mutex);
    if (sim == nullptr && !attach_failed) {
        // Attaching makes directories and maps files; a driver's open leaves
        // the caller's errno alone, and so must the first one here.
        const int caller_errno = errno;
        auto* candidate = new vpathsim::Sim;
        std::string error;
        const char* config = getenv("VPATHSIM_CONFIG");
        if (candidate->attach(vpathsim::default_state_dir(), config ? config : "", &error)) {
            sim = candidate;
            errno = caller_errno;
        } else {
            std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
            attach_failed = true;
            delete candidate;
        }
    }
    return sim;
}

bool maybe_vpath(const char* path) { return path != nullptr && std::strncmp(path, "/dev/vpath", 10) == 0; }

int device_of(int fd) {
    if (fd < 0 || fd >= kMaxFd) return -1;
    std::lock_guard<std::mutex> guard(table_mutex);
    return device_of_fd[fd] - 1;
}

void set_device(int fd, int device, bool direct = false) {
    std::lock_guard<std::mutex> guard(table_mutex);
    if (fd >= 0 && fd < kMaxFd) {
        device_of_fd[fd] = static_cast<int8_t>(device + 1);
        direct_fd[fd] = direct;
    }
}

bool is_direct(int fd) {
    std::lock_guard<std::mutex> guard(table_mutex);
    return fd >= 0 && fd < kMaxFd && direct_fd[fd];
}

// A direct transfer on a block device must start, end and sit in memory on
// logical-block boundaries; the kernel refuses anything else with EINVAL
// before it touches a path.
bool misaligned_direct(int fd, uint64_t position, size_t length, const void* buffer) {
    constexpr uint64_t mask = vpathsim::kSectorSize - 1;
    return is_direct(fd) && ((position | length | reinterpret_cast<uintptr_t>(buffer)) & mask) != 0;
}

// A descriptor number that now holds some other file is never ours, however
// its last holder went away (closes inside the C library pass us by).
int forgotten(int fd) {
    if (fd >= 0) set_device(fd, -1);
    return fd;
}

// A copy of a descriptor is ours exactly when the original is, and shares
// its open file, O_DIRECT included; the number it lands on loses whatever it
// held before.
int copied(int from, int to) {
    if (to >= 0 && to != from) set_device(to, device_of(from), is_direct(from));
    return to;
}

// The vpath behaves as a block device node: kernel-style refusals of flags a
// device cannot honour, then the backing image stands in for the disk.
int open_device(int device, int flags) {
    if ((flags & __O_TMPFILE) != 0) return errno = EINVAL, -1;
    if ((flags & O_DIRECTORY) != 0) return errno = ENOTDIR, -1;
    if ((flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL)) return errno = EEXIST, -1;
    REAL(OpenFn, open);
    std::string image = sim->image_path(device);
    // O_DIRECT is remembered rather than passed on: the image's file system
    // (tmpfs) need not take it, and the alignment it demands is checked here.
    int fd = real_open(image.c_str(), flags & (O_ACCMODE | O_NONBLOCK | O_CLOEXEC | O_SYNC | O_DSYNC), 0);
    if (fd < 0) return -1;
    if (fd >= kMaxFd) {
        static CloseFn real_close = next<CloseFn>("close");
        if (real_close) real_close(fd);
        return errno = EMFILE, -1;
    }
    set_device(fd, device, (flags & O_DIRECT) != 0);
    return fd;
}

constexpr int kNotSimulated = -2;

// The descriptor (or -1 and errno) when `path` names a simulated device
// node, else kNotSimulated: the C library opens it.
int open_simulated(const char* path, int flags) {
    if (!maybe_vpath(path) || driver() == nullptr) return kNotSimulated;
    bool node = false;
    int device = sim->device_for_path(path, &node);
    if (device >= 0) return open_device(device, flags);
    if (sim->lost()) return errno = EIO, -1;
    // A node left over for a device the driver does not have.
    if (node) return errno = ENXIO, -1;
    return kNotSimulated;
}

int open_common(const char* path, int flags, mode_t mode) {
    if (int fd = open_simulated(path, flags); fd != kNotSimulated) return fd;
    REAL(OpenFn, open);
    return forgotten(real_open(path, flags, mode));
}

int openat_common(int dirfd, const char* path, int flags, mode_t mode) {
    if (int fd = open_simulated(path, flags); fd != kNotSimulated) return fd;
    REAL(OpenAtFn, openat);
    return forgotten(real_openat(dirfd, path, flags, mode));
}

mode_t mode_arg(int flags, va_list args) {
    return (flags & (O_CREAT | __O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

bool readable(int fd, bool write) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return false;
    int mode = flags & O_ACCMODE;
    return write ? (mode == O_WRONLY || mode == O_RDWR) : (mode == O_RDONLY || mode == O_RDWR);
}

ssize_t device_read(int fd, int device, void* buffer, size_t count) {
    REAL(ReadFn, read);
    REAL(SeekFn, lseek);
    if (!readable(fd, false)) return errno = EBADF, -1;
    off_t position = real_lseek(fd, 0, SEEK_CUR);
    if (position < 0) return -1;
    uint64_t size = sim->device_size(device);
    if (sim->lost()) return errno = EIO, -1;
    size_t n = static_cast<uint64_t>(position) >= size ? 0 : std::min<uint64_t>(count, size - position);
    n = std::min<size_t>(n, 0x7ffff000);
    if (n == 0) return real_read(fd, buffer, 0);
    if (misaligned_direct(fd, static_cast<uint64_t>(position), n, buffer)) return errno = EINVAL, -1;
    // The real read on the image lets the kernel check the caller's buffer.
    return sim->transfer(device, false, static_cast<uint64_t>(position), n,
                         [&] { return real_read(fd, buffer, n); });
}

ssize_t device_write(int fd, int device, const void* buffer, size_t count) {
    REAL(WriteFn, write);
    REAL(SeekFn, lseek);
    if (!readable(fd, true)) return errno = EBADF, -1;
    off_t position = real_lseek(fd, 0, SEEK_CUR);
    if (position < 0) return -1;
    if (count == 0) return real_write(fd, buffer, 0);
    uint64_t size = sim->device_size(device);
    if (sim->lost()) return errno = EIO, -1;
    if (static_cast<uint64_t>(position) >= size) return errno = ENOSPC, -1;
    size_t n = std::min<uint64_t>({count, size - position, 0x7ffff000});
    if (misaligned_direct(fd, static_cast<uint64_t>(position), n, buffer)) return errno = EINVAL, -1;
    return sim->transfer(device, true, static_cast<uint64_t>(position), n,
                         [&] { return real_write(fd, buffer, n); });
}

}  // namespace

EXPORT int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_arg(flags, args);
    va_end(args);
    return open_common(path, flags, mode);
}

EXPORT int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_arg(flags, args);
    va_end(args);
    return open_common(path, flags, mode);
}

EXPORT int __open_2(const char* path, int flags) { return open_common(path, flags, 0); }
EXPORT int __open64_2(const char* path, int flags) { return open_common(path, flags, 0); }

EXPORT int openat(int dirfd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_arg(flags, args);
    va_end(args);
    return openat_common(dirfd, path, flags, mode);
}

EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = mode_arg(flags, args);
    va_end(args);
    return openat_common(dirfd, path, flags, mode);
}

EXPORT int close(int fd) {
    REAL(CloseFn, close);
    set_device(fd, -1);
    return real_close(fd);
}

EXPORT ssize_t read(int fd, void* buffer, size_t count) {
    int device = device_of(fd);
    if (device >= 0) return device_read(fd, device, buffer, count);
    REAL(ReadFn, read);
    return real_read(fd, buffer, count);
}

EXPORT ssize_t __read_chk(int fd, void* buffer, size_t count, size_t size) {
    if (count > size) abort();  // what the fortified read does on overflow
    return read(fd, buffer, count);
}

EXPORT ssize_t write(int fd, const void* buffer, size_t count) {
    int device = device_of(fd);
    if (device >= 0) return device_write(fd, device, buffer, count);
    REAL(WriteFn, write);
    return real_write(fd, buffer, count);
}

EXPORT off_t lseek(int fd, off_t offset, int whence) noexcept {
    REAL(SeekFn, lseek);
    int device = device_of(fd);
    if (device < 0) return real_lseek(fd, offset, whence);
    // A block device's size bounds every position.
    auto size = static_cast<off_t>(sim->device_size(device));
    if (sim->lost()) return errno = EIO, -1;
    off_t base = 0;
    switch (whence) {
        case SEEK_SET: break;
        case SEEK_CUR: base = real_lseek(fd, 0, SEEK_CUR); break;
        case SEEK_END: base = size; break;
        default: return errno = EINVAL, -1;
    }
    if (base < 0) return -1;
    off_t target;
    if (__builtin_add_overflow(base, offset, &target) || target < 0 || target > size) return errno = EINVAL, -1;
    return real_lseek(fd, target, SEEK_SET);
}

EXPORT off_t lseek64(int fd, off_t offset, int whence) noexcept { return lseek(fd, offset, whence); }

EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);
    int device = device_of(fd);
    if (device >= 0) {
        int rc = 0;
        if (sim->block_layer_request(device, static_cast<uint32_t>(request), argument, &rc)) return rc;
        return sim->request(static_cast<uint32_t>(request), argument);
    }
    REAL(IoctlFn, ioctl);
    return real_ioctl(fd, request, argument);
}

EXPORT int dup(int fd) noexcept {
    REAL(DupFn, dup);
    return copied(fd, real_dup(fd));
}

EXPORT int dup2(int fd, int to) noexcept {
    REAL(Dup2Fn, dup2);
    return copied(fd, real_dup2(fd, to));
}

EXPORT int dup3(int fd, int to, int flags) noexcept {
    REAL(Dup3Fn, dup3);
    return copied(fd, real_dup3(fd, to, flags));
}

namespace {

// Every fcntl argument travels as one machine word, as the C library's own
// wrapper passes it on.
int fcntl_common(FcntlFn real, int fd, int command, void* argument) {
    if (real == nullptr) return errno = ENOSYS, -1;
    int rc = real(fd, command, argument);
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) copied(fd, rc);
    return rc;
}

}  // namespace

EXPORT int fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    static FcntlFn real_fcntl = next<FcntlFn>("fcntl");
    return fcntl_common(real_fcntl, fd, command, argument);
}

EXPORT int fcntl64(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    static FcntlFn real_fcntl64 = next<FcntlFn>("fcntl64");
    return fcntl_common(real_fcntl64, fd, command, argument);
}

EXPORT int close_range(unsigned first, unsigned last, int flags) noexcept {
    REAL(CloseRangeFn, close_range);
    int rc = real_close_range(first, last, flags);
    if (rc == 0 && (flags & CLOSE_RANGE_CLOEXEC) == 0) {
        for (unsigned fd = first; fd <= last && fd < static_cast<unsigned>(kMaxFd); ++fd) set_device(static_cast<int>(fd), -1);
    }
    return rc;
}

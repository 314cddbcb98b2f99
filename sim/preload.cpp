// LD_PRELOAD interposer: makes /dev/vpathN of the simulated topology behave
// like the driver's devices for an unmodified program. Every other path and
// descriptor goes straight to the C library, so shells and tools started
// from the program (which inherit LD_PRELOAD) are unaffected.
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/close_range.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <vector>

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
using PreadFn = ssize_t (*)(int, void*, size_t, off_t);
using PwriteFn = ssize_t (*)(int, const void*, size_t, off_t);
using PreadvFn = ssize_t (*)(int, const iovec*, int, off_t);
using Preadv2Fn = ssize_t (*)(int, const iovec*, int, off_t, int);

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

// The process the descriptor table belongs to. A child started with vfork
// (posix_spawn, Python's subprocess) runs in its parent's memory until it
// execs: the closes and dup2s it makes on its way must leave the parent's
// table alone. A forked child has a copy and keeps it up to date.
pid_t table_owner = 0;

// A forked child has only the thread that forked: no lock of ours may be
// held then by one of the others.
void before_fork() {
    attach_mutex.lock();
    if (sim != nullptr) sim->hold_threads();
    table_mutex.lock();
}
void after_fork() {
    table_mutex.unlock();
    if (sim != nullptr) sim->release_threads();
    attach_mutex.unlock();
}

__attribute__((constructor)) void remember_owner() {
    table_owner = getpid();
    pthread_atfork(before_fork, after_fork, [] {
        table_owner = getpid();
        after_fork();
    });
}

void set_device(int fd, int device, bool direct = false) {
    std::lock_guard<std::mutex> guard(table_mutex);
    if (fd >= 0 && fd < kMaxFd && getpid() == table_owner) {
        device_of_fd[fd] = static_cast<int8_t>(device + 1);
        direct_fd[fd] = direct;
    }
}

bool is_direct(int fd) {
    std::lock_guard<std::mutex> guard(table_mutex);
    return fd >= 0 && fd < kMaxFd && direct_fd[fd];
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

// One transfer of count bytes at position on a vpath descriptor, after the
// block device's rules: bounded by the device size; a direct transfer must
// start, end and sit in memory on logical-block boundaries (aligned tells
// whether the caller's memory does), which the kernel checks before it
// touches a path (EINVAL). io(n) makes the real call on the backing file
// for the first n bytes, so the kernel checks the caller's buffers.
template <typename Io>
ssize_t device_io(int fd, int device, bool write, off_t position, size_t count, bool aligned, Io io) {
    if (!readable(fd, write)) return errno = EBADF, -1;
    if (write && count == 0) return io(0);
    uint64_t size = sim->device_size(device);
    if (sim->lost()) return errno = EIO, -1;
    auto at = static_cast<uint64_t>(position);
    if (write && at >= size) return errno = ENOSPC, -1;
    size_t n = at >= size ? 0 : std::min<uint64_t>({count, size - at, 0x7ffff000});
    if (n == 0) return io(0);
    if (is_direct(fd) && (!aligned || ((at | n) & (vpathsim::kSectorSize - 1)) != 0)) return errno = EINVAL, -1;
    return sim->transfer(device, write, at, n, [&] { return io(n); });
}

bool aligned(const void* buffer) { return (reinterpret_cast<uintptr_t>(buffer) & (vpathsim::kSectorSize - 1)) == 0; }

// read/write at the descriptor's position.
off_t current_position(int fd) {
    static SeekFn real_lseek = next<SeekFn>("lseek");
    if (real_lseek == nullptr) return errno = ENOSYS, -1;
    return real_lseek(fd, 0, SEEK_CUR);
}

ssize_t device_read(int fd, int device, void* buffer, size_t count) {
    REAL(ReadFn, read);
    off_t position = current_position(fd);
    if (position < 0) return -1;
    return device_io(fd, device, false, position, count, aligned(buffer),
                     [&](size_t n) { return real_read(fd, buffer, n); });
}

ssize_t device_write(int fd, int device, const void* buffer, size_t count) {
    REAL(WriteFn, write);
    off_t position = current_position(fd);
    if (position < 0) return -1;
    return device_io(fd, device, true, position, count, aligned(buffer),
                     [&](size_t n) { return real_write(fd, buffer, n); });
}

// The positional calls; the 64-bit names are the same calls on this ABI.
template <typename Buffer>
ssize_t device_positional(int fd, int device, bool write, Buffer buffer, size_t count, off_t offset) {
    if (offset < 0) return errno = EINVAL, -1;
    static PreadFn real_pread = next<PreadFn>("pread64");
    static PwriteFn real_pwrite = next<PwriteFn>("pwrite64");
    if (real_pread == nullptr || real_pwrite == nullptr) return errno = ENOSYS, -1;
    return device_io(fd, device, write, offset, count, aligned(buffer), [&](size_t n) {
        if constexpr (std::is_const_v<std::remove_pointer_t<Buffer>>) {
            return real_pwrite(fd, buffer, n, offset);
        } else {
            return real_pread(fd, buffer, n, offset);
        }
    });
}

// The vector calls: the segment list is read as the kernel reads it (a bad
// address is EFAULT), its total bounded like one transfer; offset -1 with
// flags (preadv2/pwritev2) is the descriptor's own position.
ssize_t device_vector(int fd, int device, bool write, const iovec* user_vector, int count, off_t offset, int flags,
                      bool with_flags) {
    if (count < 0 || count > IOV_MAX || offset < (with_flags ? -1 : 0)) return errno = EINVAL, -1;
    std::vector<iovec> vector(static_cast<size_t>(count));
    if (!vpathsim::copy_from_user(vector.data(), user_vector, vector.size() * sizeof(iovec))) return errno = EFAULT, -1;
    size_t total = 0;
    bool all_aligned = true;
    for (const iovec& segment : vector) {
        if (__builtin_add_overflow(total, segment.iov_len, &total) || total > SSIZE_MAX) return errno = EINVAL, -1;
        all_aligned = all_aligned && aligned(segment.iov_base) && segment.iov_len % vpathsim::kSectorSize == 0;
    }
    off_t position = offset == -1 ? current_position(fd) : offset;
    if (position < 0) return -1;
    static Preadv2Fn real_preadv2 = next<Preadv2Fn>("preadv64v2");
    static Preadv2Fn real_pwritev2 = next<Preadv2Fn>("pwritev64v2");
    if (real_preadv2 == nullptr || real_pwritev2 == nullptr) return errno = ENOSYS, -1;
    return device_io(fd, device, write, position, total, all_aligned, [&](size_t n) {
        // The segments that hold the first n bytes, the last one cut.
        std::vector<iovec> used;
        for (size_t left = n; const iovec& segment : vector) {
            if (left == 0) break;
            used.push_back({segment.iov_base, std::min(left, segment.iov_len)});
            left -= used.back().iov_len;
        }
        auto used_count = static_cast<int>(used.size());
        return write ? real_pwritev2(fd, used.data(), used_count, offset, flags)
                     : real_preadv2(fd, used.data(), used_count, offset, flags);
    });
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

EXPORT ssize_t pread(int fd, void* buffer, size_t count, off_t offset) {
    int device = device_of(fd);
    if (device >= 0) return device_positional(fd, device, false, buffer, count, offset);
    REAL(PreadFn, pread);
    return real_pread(fd, buffer, count, offset);
}

EXPORT ssize_t pread64(int fd, void* buffer, size_t count, off_t offset) {
    int device = device_of(fd);
    if (device >= 0) return device_positional(fd, device, false, buffer, count, offset);
    REAL(PreadFn, pread64);
    return real_pread64(fd, buffer, count, offset);
}

EXPORT ssize_t __pread_chk(int fd, void* buffer, size_t count, off_t offset, size_t size) {
    if (count > size) abort();  // what the fortified call does on overflow
    return pread(fd, buffer, count, offset);
}

EXPORT ssize_t __pread64_chk(int fd, void* buffer, size_t count, off_t offset, size_t size) {
    if (count > size) abort();
    return pread64(fd, buffer, count, offset);
}

EXPORT ssize_t pwrite(int fd, const void* buffer, size_t count, off_t offset) {
    int device = device_of(fd);
    if (device >= 0) return device_positional(fd, device, true, buffer, count, offset);
    REAL(PwriteFn, pwrite);
    return real_pwrite(fd, buffer, count, offset);
}

EXPORT ssize_t pwrite64(int fd, const void* buffer, size_t count, off_t offset) {
    int device = device_of(fd);
    if (device >= 0) return device_positional(fd, device, true, buffer, count, offset);
    REAL(PwriteFn, pwrite64);
    return real_pwrite64(fd, buffer, count, offset);
}

#define VECTOR_CALL(name, write, with_flags)                                                      \
    EXPORT ssize_t name(int fd, const iovec* vector, int count, off_t offset) {                 \
        int device = device_of(fd);                                                             \
        if (device >= 0) return device_vector(fd, device, write, vector, count, offset, 0, false); \
        REAL(PreadvFn, name);                                                                   \
        return real_##name(fd, vector, count, offset);                                          \
    }
VECTOR_CALL(preadv, false, false)
VECTOR_CALL(preadv64, false, false)
VECTOR_CALL(pwritev, true, false)
VECTOR_CALL(pwritev64, true, false)

#define VECTOR2_CALL(name, write)                                                                   \
    EXPORT ssize_t name(int fd, const iovec* vector, int count, off_t offset, int flags) {         \
        int device = device_of(fd);                                                                \
        if (device >= 0) return device_vector(fd, device, write, vector, count, offset, flags, true); \
        REAL(Preadv2Fn, name);                                                                     \
        return real_##name(fd, vector, count, offset, flags);                                      \
    }
VECTOR2_CALL(preadv2, false)
VECTOR2_CALL(preadv64v2, false)
VECTOR2_CALL(pwritev2, true)
VECTOR2_CALL(pwritev64v2, true)

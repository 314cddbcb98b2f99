// Driver access layer: the only place the tool touches the device special
// file. The wrappers add the -t execution trace and nothing else.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "context/context.h"
#include "device/access.h"
#include "script/script.h"

namespace {

char error_text[256];

void report_errno_text(FILE* stream, int number) {
    ttrace(stream, "       Error is %s.\n", ps_strerror(number));
}

// Copies up to `length` bytes of the record into `target` through a pipe,
// so that the kernel, not the tool, touches the record's address: a
// `set buffer` address need not be mapped at all, and tracing a request
// sent there must not end the run. Returns the bytes copied; 0 when the
// address cannot be read.
int64_t copy_readable(const uint8_t* record, uint8_t* target, int64_t length) {
    int pipe_ends[2];
    if (pipe(pipe_ends) != 0) return 0;
    ssize_t copied = write(pipe_ends[1], record, static_cast<std::size_t>(length));
    if (copied > 0 && read(pipe_ends[0], target, static_cast<std::size_t>(copied)) != copied) copied = 0;
    close(pipe_ends[0]);
    close(pipe_ends[1]);
    return copied > 0 ? copied : 0;
}

// Record dump of the control-request trace: each byte as "%2x ", and a line
// break after every byte whose index is a positive multiple of 32, so the
// first line holds 33 bytes and every later one 32. The layout is part of
// the -t trace format, which is compared byte for byte between runs, so it
// stays fixed rather than evened out. Bytes the process cannot read end the
// dump early.
void dump_record(FILE* stream, const void* record, int64_t length) {
    if (test_context.trace != 1) return;
    const auto* bytes = static_cast<const uint8_t*>(record);
    uint8_t chunk[4096];  // well inside a pipe's capacity, so one write never blocks
    for (int64_t done = 0; done < length;) {
        const int64_t copied = copy_readable(bytes + done, chunk, std::min<int64_t>(length - done, sizeof chunk));
        if (copied == 0) break;
        for (int64_t k = 0; k < copied; ++k) {
            const int64_t i = done + k;
            fprintf(stream, "%2x ", chunk[k]);
            if (i > 0 && i % 32 == 0) fputc('\n', stream);
        }
        done += copied;
    }
    fputc('\n', stream);
    fflush(stream);
}

// The result of a system call that has just returned, with the errno it
// left: read here, before any trace line can change it.
template <typename Value>
AccessResult<Value> result_of(Value value) {
    return {value, static_cast<int32_t>(errno)};
}

}  // namespace

AccessResult<int> ps_open(const char* path, int32_t flags, int32_t mode) { return result_of(open(path, flags, mode)); }

AccessResult<int> ps_close(int descriptor) { return result_of(close(descriptor)); }

AccessResult<int32_t> ps_read(FILE* stream, int descriptor, void* buffer, uint32_t length) {
    ttrace(stream, "TTRACE: ps_read entered.\n");
    const auto result = result_of(static_cast<int32_t>(read(descriptor, buffer, length)));
    if (result.failed()) {
        ttrace(stream, "Error! system read() failed. Last errno=%ld \n", static_cast<long>(result.error_number));
        report_errno_text(stream, result.error_number);
    } else if (test_context.trace == 1) {
        ttrace(stream, "lseek = %ld\n", static_cast<long>(lseek(descriptor, 0, SEEK_CUR)));
        ttrace(stream, "system read() read %d bytes\n", result.value);
    }
    ttrace(stream, "TTRACE: ps_read exit. \n");
    return result;
}

AccessResult<int32_t> ps_write(FILE* stream, int descriptor, const void* buffer, uint32_t length) {
    ttrace(stream, "TTRACE: ps_write entered!\n");
    const auto result = result_of(static_cast<int32_t>(write(descriptor, buffer, length)));
    if (result.failed()) {
        ttrace(stream, "Error! system write() failed, last errno = %ld\n", static_cast<long>(result.error_number));
        report_errno_text(stream, result.error_number);
    } else if (test_context.trace == 1) {
        ttrace(stream, "lseek = %ld\n", static_cast<long>(lseek(descriptor, 0, SEEK_CUR)));
        ttrace(stream, "system write() wrote %d bytes. \n", result.value);
    }
    ttrace(stream, "TTRACE: ps_write() exit. \n");
    return result;
}

AccessResult<int32_t> ps_pread(int descriptor, void* buffer, uint32_t length, int64_t offset) {
    return result_of(static_cast<int32_t>(pread(descriptor, buffer, length, offset)));
}

AccessResult<int32_t> ps_pwrite(int descriptor, const void* buffer, uint32_t length, int64_t offset) {
    return result_of(static_cast<int32_t>(pwrite(descriptor, buffer, length, offset)));
}

AccessResult<int64_t> ps_lseek(FILE* stream, int descriptor, int64_t offset) {
    ttrace(stream, "TTRACE: ps_lseek entered. \n");
    const auto result = result_of(static_cast<int64_t>(lseek(descriptor, offset, SEEK_SET)));
    if (result.failed()) {
        ttrace(stream, "Error! system lseek() failed. Last errno=%ld \n", static_cast<long>(result.error_number));
        report_errno_text(stream, result.error_number);
    } else {
        ttrace(stream, "lseek() to %ld \n", static_cast<long>(offset));
    }
    ttrace(stream, "TTRACE: ps_lseek exit. \n");
    return result;
}

AccessResult<int> ps_ddioctl(FILE* stream, int descriptor, uint32_t request, void* record, int64_t length) {
    ttrace(stream, "TTRACE: ps_ddioctl entered. \n");
    ttrace(stream, "TTRACE: system ioctl, opcode   =%08lX \n", static_cast<unsigned long>(request));
    if (test_context.trace == 1) {
        ttrace(stream, "TTRACE: system ioctl, opcode   =%s \n", errno_name(static_cast<int32_t>(request)));
    }
    ttrace(stream, "TTRACE: system ioctl, address  =0x%lx \n", reinterpret_cast<unsigned long>(record));
    ttrace(stream, "TTRACE: system ioctl, length   =%ld \n", static_cast<long>(length));
    ttrace(stream, "TTRACE: ioctl struct=\n");
    dump_record(stream, record, length);

    // The request travels as a signed 32-bit value widened to the call's type.
    const auto result =
        result_of(ioctl(descriptor, static_cast<unsigned long>(static_cast<long>(static_cast<int32_t>(request))), record));
    ttrace(stream, "TTRACE: ioctl returned rc=0x%08X\n", static_cast<unsigned>(result.value));
    if (result.failed()) {
        ttrace(stream, "Error! system ioctl 0x%08lX failed. \n", static_cast<unsigned long>(request));
        ttrace(stream, "Error! system ioctl errno=%ld \n", static_cast<long>(result.error_number));
        report_errno_text(stream, result.error_number);
        ttrace(stream, "TTRACE: ps_ddioctl exit. \n");
        return result;
    }
    ttrace(stream, "TTRACE: ioctl struct=\n");
    dump_record(stream, record, length);
    ttrace(stream, "TTRACE: ps_ddioctl exit. \n");
    return {0, result.error_number};  // whatever non-failure value the driver gave
}

// The capacity record has the layout of READ CAPACITY (10) parameter data:
// bytes 0-3 the highest logical block address, bytes 4-7 the block length,
// both big-endian. The block layer answers the two size requests for every
// block device, whatever its driver; anything else (a regular file, a
// character device) refuses them, and the query fails.
// A highest address past 32 bits is reported as 0xFFFFFFFF, the answer a
// disk gives when READ CAPACITY (10) cannot hold it.
AccessResult<int> ps_get_capacity(FILE* stream, int descriptor, void* record, int64_t length) {
    constexpr int64_t kRecordBytes = 8;
    if (record == nullptr || length < kRecordBytes) return {-1, errno};
    uint64_t bytes = 0;
    int block_length = 0;
    const auto size_reply = ps_ddioctl(stream, descriptor, static_cast<uint32_t>(BLKGETSIZE64), &bytes, sizeof bytes);
    if (size_reply.failed()) return size_reply;
    const auto length_reply =
        ps_ddioctl(stream, descriptor, static_cast<uint32_t>(BLKSSZGET), &block_length, sizeof block_length);
    if (length_reply.failed()) return length_reply;
    // A device without a single whole block has no highest address to give.
    if (block_length <= 0 || bytes < static_cast<uint64_t>(block_length)) return {-1, length_reply.error_number};
    const uint64_t highest = bytes / static_cast<uint64_t>(block_length) - 1;
    const auto reported = static_cast<uint32_t>(std::min<uint64_t>(highest, UINT32_MAX));
    const auto size = static_cast<uint32_t>(block_length);
    auto* out = static_cast<uint8_t*>(record);
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<uint8_t>(reported >> (24 - 8 * i));
        out[4 + i] = static_cast<uint8_t>(size >> (24 - 8 * i));
    }
    return {0, length_reply.error_number};
}

char* ps_strerror(int number) {
    std::snprintf(error_text, sizeof error_text, "%s", std::strerror(number));
    return error_text;
}

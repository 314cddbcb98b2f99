// Driver access layer: the only calls that touch the device special file.
// Each wrapper makes one system call and, with -t, traces it; none changes
// the test context.
#pragma once

#include <cstdint>
#include <cstdio>

// What one wrapped call gave back: the call's result (-1 when it failed) and
// the errno it left: its error when it failed; after a success whatever
// errno then held, which a success does not clear (though a library below
// the call may have changed it). The caller keeps the number, so printing
// after the call cannot lose it.
template <typename Value>
struct AccessResult {
    Value value;
    int32_t error_number;

    bool failed() const { return value == -1; }
};

AccessResult<int> ps_open(const char* path, int32_t flags, int32_t mode);
AccessResult<int> ps_close(int descriptor);
AccessResult<int32_t> ps_read(FILE* stream, int descriptor, void* buffer, uint32_t length);
AccessResult<int32_t> ps_write(FILE* stream, int descriptor, const void* buffer, uint32_t length);
// Positional transfers, safe from several threads at once: they leave the
// descriptor's position alone and print nothing, not even with -t.
AccessResult<int32_t> ps_pread(int descriptor, void* buffer, uint32_t length, int64_t offset);
AccessResult<int32_t> ps_pwrite(int descriptor, const void* buffer, uint32_t length, int64_t offset);
AccessResult<int64_t> ps_lseek(FILE* stream, int descriptor, int64_t offset);
// Succeeds with 0 whatever non-failure value the driver returned.
AccessResult<int> ps_ddioctl(FILE* stream, int descriptor, uint32_t request, void* record, int64_t length);
// Fills an 8-byte READ CAPACITY (10) record from the block layer's sizes.
AccessResult<int> ps_get_capacity(FILE* stream, int descriptor, void* record, int64_t length);
char* ps_strerror(int number);

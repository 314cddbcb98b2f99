// Driver access layer: the only calls that touch the device special file.
// Each wrapper makes one system call and, with -t, traces it; none changes
// the test context.
#pragma once

#include <cstdint>
#include <cstdio>

int ps_open(const char* path, int32_t flags, int32_t mode);
int ps_close(int descriptor);
int32_t ps_read(FILE* stream, int descriptor, void* buffer, uint32_t length);
int32_t ps_write(FILE* stream, int descriptor, const void* buffer, uint32_t length);
int64_t ps_lseek(FILE* stream, int descriptor, int64_t offset);
int ps_ddioctl(FILE* stream, int descriptor, uint32_t request, void* record, int64_t length);
int ps_get_capacity(FILE* stream, int descriptor, void* record, int64_t length);
char* ps_strerror(int number);

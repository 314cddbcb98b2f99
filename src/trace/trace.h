// Driver trace facility: the trace request, the trace operations menu,
// report retrieval and formatting.
#pragma once

#include <cstdint>
#include <cstdio>

inline constexpr uint32_t DD_TRACE = 0x6401;

struct TraceArgumentRecord {
    uint32_t command;
    uint32_t flags;
    uint64_t kernel_addr;
    uint64_t user_addr;
    uint32_t bytes_requested;
    uint32_t bytes_reported;
    uint32_t usage;
    uint32_t capacity;
    uint32_t entry_count;
    uint32_t first_offset;
    uint32_t last_offset;
    uint32_t total_entries;
    uint32_t lap_count;
    uint8_t reserved[12];
};
static_assert(sizeof(TraceArgumentRecord) == 72);

// Prepares the trace output and buffers; ends the process with status 1
// when it cannot.
void trace_init();

// Runs the trace operations menu until selection 99 (or end of input).
int trace_menu(FILE* stream);

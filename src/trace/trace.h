// Driver trace facility: the trace request and its record, the trace
// operations menu, report retrieval and formatting.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

#include "context/context.h"

// The one driver request every trace command travels in: 'd', number 1,
// no size or direction bits.
inline constexpr uint32_t DD_TRACE = 0x6401;
inline constexpr int64_t kTraceRecordLength = 72;

// Trace commands (the record's `command`).
inline constexpr uint32_t DD_TRACE_GET_FLAGS = 0;
inline constexpr uint32_t DD_TRACE_SET_FLAGS = 1;
inline constexpr uint32_t DD_TRACE_REPORT = 2;
inline constexpr uint32_t DD_TRACE_CLEAR = 3;

// Trace flags: destinations, macro classes, controls.
inline constexpr uint32_t TRACE_PRINTF = 0x0001;
inline constexpr uint32_t TRACE_PS = 0x0002;
inline constexpr uint32_t TRACE_PSERR = 0x0004;
inline constexpr uint32_t TRACE_CC = 0x0008;
inline constexpr uint32_t TRACE_ENTRY = 0x0010;
inline constexpr uint32_t TRACE_EXIT = 0x0020;
inline constexpr uint32_t TRACE_DEBUG = 0x0040;
inline constexpr uint32_t TRACE_PAUSE = 0x0100;
inline constexpr uint32_t TRACE_COMPRESS = 0x0200;
inline constexpr uint32_t TRACE_DUMP = 0x1000;

// Raw report layout: entries from 0, then the dump count and the dump bytes.
inline constexpr std::size_t kTraceRawSize = 272144;
inline constexpr std::size_t kTraceCookedSize = 272144;
inline constexpr std::size_t kTraceDumpCountOffset = 262144;
inline constexpr std::size_t kTraceDumpBytesOffset = 262152;
inline constexpr uint64_t kTraceDumpCap = 10000;
inline constexpr uint64_t kTraceDefaultFilter = TRACE_ENTRY | TRACE_EXIT | TRACE_DEBUG;

// Room for any answer the menu can read (255 characters), so a typed output
// file name is never cut short.
inline constexpr std::size_t kTraceFileNameSize = kInputLineSize;

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
// The driver reads this record byte for byte.
static_assert(sizeof(TraceArgumentRecord) == 72);
static_assert(offsetof(TraceArgumentRecord, command) == 0);
static_assert(offsetof(TraceArgumentRecord, flags) == 4);
static_assert(offsetof(TraceArgumentRecord, kernel_addr) == 8);
static_assert(offsetof(TraceArgumentRecord, user_addr) == 16);
static_assert(offsetof(TraceArgumentRecord, bytes_requested) == 24);
static_assert(offsetof(TraceArgumentRecord, bytes_reported) == 28);
static_assert(offsetof(TraceArgumentRecord, usage) == 32);
static_assert(offsetof(TraceArgumentRecord, capacity) == 36);
static_assert(offsetof(TraceArgumentRecord, entry_count) == 40);
static_assert(offsetof(TraceArgumentRecord, first_offset) == 44);
static_assert(offsetof(TraceArgumentRecord, last_offset) == 48);
static_assert(offsetof(TraceArgumentRecord, total_entries) == 52);
static_assert(offsetof(TraceArgumentRecord, lap_count) == 56);
static_assert(offsetof(TraceArgumentRecord, reserved) == 60);

struct TraceState {
    TraceArgumentRecord record;
    int64_t record_initialised;
    std::unique_ptr<uint8_t[]> raw_buffer;
    uint64_t raw_size;
    std::unique_ptr<uint8_t[]> cooked_buffer;
    uint64_t cooked_size;
    uint64_t cooked_bytes;
    FILE* output_stream;       // nullptr after a failed open of a new output file
    bool output_owned;         // output_stream was opened here and may be closed here
    FILE* batch_stream;        // the caller's stream once chosen as output; never closed here
    char output_file_name[kTraceFileNameSize];
    uint64_t filter_mask;

    std::span<uint8_t> raw() const { return {raw_buffer.get(), raw_buffer ? raw_size : 0}; }
    std::span<uint8_t> cooked() const { return {cooked_buffer.get(), cooked_buffer ? cooked_size : 0}; }
};

extern TraceState trace_state;

// Prepares the trace output and buffers; ends the process with status 1
// when it cannot.
void trace_init();

// Flushes and closes the trace output when it is a file opened here (a
// failed write is told and ends the run with kExitOutputLost); leaves no
// output chosen.
void trace_close_output();

// Runs the trace operations menu on standard input and output until
// selection 99 (or end of input); returns 99.
int trace_menu(FILE* stream);
// The same menu reading `input` and writing `output`.
int trace_menu_session(FILE* stream, FILE* input, FILE* output);

// Sends `command` with the state's record (or the armed buffer override);
// 0 when the driver took it, -1 when not.
int dd_trace_request(FILE* stream, uint32_t command);

void fprintf_trace_argument(FILE* stream, const TraceArgumentRecord& record);
void fprintf_trace_flag(FILE* stream, const char* label, uint64_t value, uint64_t mask);

// Copies the entry texts the filter keeps from `raw` into `cooked` (the rest
// of which becomes spaces) and stores the number of text bytes.
void dd_trace_format_report(const TraceArgumentRecord& record, uint64_t filter_mask,
                            std::span<const uint8_t> raw, std::span<uint8_t> cooked,
                            uint64_t& cooked_bytes);

// The raw report (control info, entries, dump) and the formatted report,
// appended to `output` and flushed.
void write_raw_report(FILE* output, const TraceState& state);
void write_cooked_report(FILE* output, const TraceState& state);

// Driver trace facility: the trace operations menu, report retrieval and
// formatting around the driver's trace request (vpath/vpath_ioctl.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

#include "context/context.h"
#include "vpath/vpath_ioctl.h"

// Every trace command travels in DD_TRACE with this length.
inline constexpr int64_t kTraceRecordLength = sizeof(TraceArgumentRecord);

inline constexpr std::size_t kTraceCookedSize = 272144;
// A dump count above this is told and cut down to it.
inline constexpr uint64_t kTraceDumpCap = 10000;
inline constexpr uint64_t kTraceDefaultFilter = TRACE_ENTRY | TRACE_EXIT | TRACE_DEBUG;

// Room for any answer the menu can read (255 characters), so a typed output
// file name is never cut short.
inline constexpr std::size_t kTraceFileNameSize = kInputLineSize;

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

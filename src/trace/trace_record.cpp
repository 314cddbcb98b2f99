// The trace request and the display of its record.
#include <array>
#include <string_view>

#include "context/context.h"
#include "device/access.h"
#include "device/executor.h"
#include "trace/trace.h"

TraceState trace_state;

namespace {

struct FlagLabel {
    const char* label;
    uint32_t mask;
};

// Three display lines: destinations, macro classes, controls.
constexpr std::array<FlagLabel, 4> kDestinationLabels{{
    {"Console printf:    ", TRACE_PRINTF},
    {"Trace lock:        ", TRACE_PSERR},
    {"Platform specific: ", TRACE_PS},
    {"Common code:       ", TRACE_CC},
}};
constexpr std::array<FlagLabel, 3> kMacroLabels{{
    {"ENTRY:    ", TRACE_ENTRY},
    {"EXIT:     ", TRACE_EXIT},
    {"DEBUG:    ", TRACE_DEBUG},
}};
constexpr std::array<FlagLabel, 3> kControlLabels{{
    {"PAUSE:    ", TRACE_PAUSE},
    {"COMPRESS: ", TRACE_COMPRESS},
    {"DUMP:     ", TRACE_DUMP},
}};

// The display has no name for DD_TRACE_CLEAR.
const char* command_name(uint32_t command) {
    switch (command) {
        case DD_TRACE_GET_FLAGS: return "DD_TRACE_GET_FLAGS";
        case DD_TRACE_SET_FLAGS: return "DD_TRACE_SET_FLAGS";
        case DD_TRACE_REPORT: return "DD_TRACE_REPORT   ";
        default: return "Bogus             ";
    }
}

template <std::size_t N>
void fprintf_flag_line(FILE* stream, const std::array<FlagLabel, N>& labels, uint64_t value) {
    for (const FlagLabel& l : labels) fprintf_trace_flag(stream, l.label, value, l.mask);
    fprintf(stream, "\n");
}

}  // namespace

void fprintf_trace_flag(FILE* stream, const char* label, uint64_t value, uint64_t mask) {
    fprintf(stream, "  %s", label);
    fputc((value & mask) != 0 ? '1' : '0', stream);
}

void fprintf_trace_argument(FILE* stream, const TraceArgumentRecord& r) {
    fprintf(stream, "\nTrace Argument Contents:\n");
    fprintf(stream, "  command: %s  current flags 0x%08x\n", command_name(r.command), r.flags);
    fprintf_flag_line(stream, kDestinationLabels, r.flags);
    fprintf_flag_line(stream, kMacroLabels, r.flags);
    fprintf_flag_line(stream, kControlLabels, r.flags);
    fprintf(stream, "  user addr:  0x%08lx  kernel addr: 0x%08lx\n",
            static_cast<unsigned long>(r.user_addr), static_cast<unsigned long>(r.kernel_addr));
    fprintf(stream, "  bytes req:    %8u  bytes rpt:     %8u\n", r.bytes_requested, r.bytes_reported);
    fprintf(stream, "  usage:        %8u  capacity:      %8u\n", r.usage, r.capacity);
    fprintf(stream, "  first offset: %8u  last offset:   %8u\n", r.first_offset, r.last_offset);
    fprintf(stream, "  entry count:  %8u  total entry:   %8u\n", r.entry_count, r.total_entries);
    fprintf(stream, "  lap_count:    %8u\n", r.lap_count);
}

int dd_trace_request(FILE* stream, uint32_t command) {
    trace_state.record.command = command;
    // `set buffer` can aim one request at an address of the tester's choice.
    void* address = select_buffer(&trace_state.record);
    return ps_ddioctl(stream, test_context.device_handle, DD_TRACE, address, kTraceRecordLength).value;
}

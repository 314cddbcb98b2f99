// Trace report bounds: the formatter and the raw report on hostile buffers and
// figures (buffers exactly as long as given, so ASan catches any step past them).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support.h"
#include "trace/trace.h"

namespace {

const uint32_t kAll = 0xFFFFFFFFu;

// One entry as the driver lays it out: two hex length digits, text, one final byte.
std::string entry(const std::string& text) {
    char digits[3];
    return snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(text.size() + 3)), digits + text + "~";
}

TEST(TraceFormat, StaysInsideTheBuffers) {
    const std::string a = entry("ENTRY a ");
    const uint64_t d = kTraceDefaultFilter;
    const struct { const char* name; std::string raw; uint32_t bytes_reported, entry_count; uint64_t filter;
                   std::size_t cooked_size; std::string expected; } cases[] = {
        {"entry count limits", a + entry("EXIT b "), kAll, 1, d, 99, "ENTRY a "},
        {"byte count checked after each entry", a + entry("EXIT b ") + entry("EXIT c "), 12, kAll, d, 99, "ENTRY a EXIT b "},
        {"length two ends", a + "02garbage" + entry("ENTRY never "), kAll, kAll, d, 99, "ENTRY a "},
        {"length past the buffer ends", a + "FFshort", kAll, kAll, d, 99, "ENTRY a "},
        {"one length digit at the end", a + "F", kAll, kAll, d, 99, "ENTRY a "},
        {"final byte may be missing", "09EXIT z", kAll, kAll, d, 99, "EXIT z"},
        {"odd digits count as zero", "G9ab!!!!~", kAll, 1, d, 99, "ab!!!!"},
        {"short texts compare within the text", entry("E") + entry("EXI") + entry("ENTR"), kAll, kAll, TRACE_DEBUG, 99,
         "EEXIENTR"},
        {"full cooked buffer ends", a + entry("ENTRY b "), kAll, kAll, d, 12, "ENTRY a "},
        {"empty raw buffer", "", kAll, kAll, d, 99, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> raw(c.raw.begin(), c.raw.end()), cooked(c.cooked_size, 'x');
        TraceArgumentRecord record{};
        record.bytes_reported = c.bytes_reported, record.entry_count = c.entry_count;
        uint64_t bytes = 12345;
        dd_trace_format_report(record, c.filter, raw, cooked, bytes);
        ASSERT_LE(bytes, cooked.size());
        EXPECT_EQ(std::string(cooked.begin(), cooked.end()), c.expected + std::string(cooked.size() - bytes, ' '));
    }
}

// The raw report writes no more than the buffer holds, whatever the record
// and the dump count claim: raw size, dump count, a part of what is written.
TEST(TraceRawReport, FiguresBeyondTheBuffer) {
    const std::string end = "\n***** Trace Report End Dump *****\n";
    const std::tuple<std::size_t, uint64_t, std::string> cases[] = {
        {64, 0, "Begin 4294967295 bytes *****\n" + std::string(64, 'r') + "\n***** Trace Report End Raw"},
        {64, 0, "dump_bytes 0\n" + end},
        {kTraceRawSize, 20000, "dump_bytes 20000\nbogus dump_bytes adjusting to 10000\n" + std::string(9992, 'r') + end},
        {kTraceRawSize, 9999, " dump_bytes 9999\n" + std::string(9992, 'r') + end},
    };
    for (const auto& [size, dump_count, expected] : cases) {
        TraceState state;
        state.raw_buffer.reset(new uint8_t[state.raw_size = size]);
        std::memset(state.raw_buffer.get(), 'r', size);
        if (size == kTraceRawSize) std::memcpy(&state.raw_buffer[kTraceDumpCountOffset], &dump_count, sizeof dump_count);
        state.record = TraceArgumentRecord{};
        state.record.bytes_reported = size == 64 ? kAll : 0, state.record.flags = TRACE_DUMP;
        CapturedStream out;
        write_raw_report(out.stream, state);
        EXPECT_NE(out.text().find(expected), std::string::npos) << size << " " << dump_count;
    }
}

}  // namespace

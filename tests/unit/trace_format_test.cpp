// Trace report bounds: the formatter and the raw report on hostile raw
// buffers and figures (buffers exactly as long as given, so ASan catches any
// access past them).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "device_test_support.h"
#include "trace/trace.h"

namespace {

// One entry as the driver lays it out: two hex length digits, text, one final byte.
std::string entry(const std::string& text) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(text.size() + 3));
    return digits + text + "~";
}

const std::string kA = entry("ENTRY a ");
const uint32_t kAll = 0xFFFFFFFFu;
const uint64_t kDefault = kTraceDefaultFilter;

struct Format {
    const char* name;
    std::string raw;
    uint32_t bytes_reported, entry_count;
    uint64_t filter;
    std::size_t cooked_size;
    std::string expected;
};

const Format kFormats[] = {
    {"filter_selects_classes", kA + entry("EXIT b ") + entry("state 4 "), kAll, kAll, TRACE_EXIT | TRACE_DEBUG, 99,
     "EXIT b state 4 "},
    {"entry_count_limits", kA + entry("EXIT b "), kAll, 1, kDefault, 99, "ENTRY a "},
    {"byte_count_checked_after_each_entry", kA + entry("EXIT b ") + entry("EXIT c "), 12, kAll, kDefault, 99,
     "ENTRY a EXIT b "},
    {"length_two_ends", kA + "02garbage" + entry("ENTRY never "), kAll, kAll, kDefault, 99, "ENTRY a "},
    {"length_past_the_buffer_ends", kA + "FFshort", kAll, kAll, kDefault, 99, "ENTRY a "},
    {"one_length_digit_at_the_end", kA + "F", kAll, kAll, kDefault, 99, "ENTRY a "},
    {"final_byte_may_be_missing", "09EXIT z", kAll, kAll, kDefault, 99, "EXIT z"},
    {"odd_digits_count_as_zero", "G9ab!!!!~", kAll, 1, kDefault, 99, "ab!!!!"},
    {"short_texts_compare_within_the_text", entry("E") + entry("EXI") + entry("ENTR"), kAll, kAll, TRACE_DEBUG, 99,
     "EEXIENTR"},
    {"full_cooked_buffer_ends", kA + entry("ENTRY b "), kAll, kAll, kDefault, 12, "ENTRY a "},
    {"empty_raw_buffer", "", kAll, kAll, kDefault, 99, ""},
};

class TraceFormat : public testing::TestWithParam<Format> {};

TEST_P(TraceFormat, StaysInsideTheBuffers) {
    const Format& c = GetParam();
    std::vector<uint8_t> raw(c.raw.begin(), c.raw.end()), cooked(c.cooked_size, 'x');
    TraceArgumentRecord record{};
    record.bytes_reported = c.bytes_reported;
    record.entry_count = c.entry_count;
    uint64_t bytes = 12345;
    dd_trace_format_report(record, c.filter, raw, cooked, bytes);
    ASSERT_LE(bytes, cooked.size());
    EXPECT_EQ(std::string(cooked.begin(), cooked.begin() + static_cast<std::ptrdiff_t>(bytes)), c.expected);
    EXPECT_EQ(std::string(cooked.begin() + static_cast<std::ptrdiff_t>(bytes), cooked.end()),
              std::string(cooked.size() - bytes, ' '));
}

INSTANTIATE_TEST_SUITE_P(Hostile, TraceFormat, testing::ValuesIn(kFormats),
                         [](const auto& info) { return std::string(info.param.name); });

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
        state.raw_buffer.reset(new uint8_t[size]);
        state.raw_size = size;
        std::memset(state.raw_buffer.get(), 'r', size);
        if (size == kTraceRawSize) std::memcpy(&state.raw_buffer[kTraceDumpCountOffset], &dump_count, sizeof dump_count);
        state.record = TraceArgumentRecord{};
        state.record.bytes_reported = size == 64 ? kAll : 0;
        state.record.flags = TRACE_DUMP;
        CapturedStream out;
        write_raw_report(out.get(), state);
        EXPECT_NE(out.text().find(expected), std::string::npos) << size << " " << dump_count;
    }
}

}  // namespace

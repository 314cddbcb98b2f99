// The report formatter, the record display and the raw report, on crafted
// and hostile raw buffers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "device_test_support.h"
#include "trace/trace.h"

namespace {

// One trace entry as the driver lays it out: two hex length digits, the
// text, one final byte.
std::string entry(const std::string& text) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(text.size() + 3));
    return std::string(digits) + text + "~";
}

struct Formatted {
    std::string text;
    uint64_t bytes;
    std::vector<uint8_t> cooked;
};

// The raw buffer is exactly as long as the bytes given, so ASan catches any
// read past it.
Formatted format(const std::string& raw_bytes, uint32_t bytes_reported, uint32_t entry_count,
                 uint64_t filter = kTraceDefaultFilter, std::size_t cooked_size = 4096) {
    std::vector<uint8_t> raw(raw_bytes.begin(), raw_bytes.end());
    std::vector<uint8_t> cooked(cooked_size, 'x');
    TraceArgumentRecord record{};
    record.bytes_reported = bytes_reported;
    record.entry_count = entry_count;
    uint64_t bytes = 12345;
    dd_trace_format_report(record, filter, raw, cooked, bytes);
    Formatted f{std::string(cooked.begin(), cooked.begin() + static_cast<std::ptrdiff_t>(std::min<uint64_t>(bytes, cooked.size()))),
                bytes, cooked};
    return f;
}

bool spaces_from(const std::vector<uint8_t>& v, std::size_t from) {
    for (std::size_t i = from; i < v.size(); ++i) {
        if (v[i] != ' ') return false;
    }
    return true;
}

const std::string kThree = entry("ENTRY open ") + entry("EXIT open ") + entry("state 4 ");

}  // namespace

TEST(TraceFormat, FilterMaskSelectsClasses) {
    auto size = static_cast<uint32_t>(kThree.size());
    EXPECT_EQ(format(kThree, size, 3).text, "ENTRY open EXIT open state 4 ");
    EXPECT_EQ(format(kThree, size, 3, TRACE_ENTRY).text, "ENTRY open ");
    EXPECT_EQ(format(kThree, size, 3, TRACE_EXIT | TRACE_DEBUG).text, "EXIT open state 4 ");
    Formatted none = format(kThree, size, 3, 0);
    EXPECT_EQ(none.bytes, 0u);
    EXPECT_TRUE(spaces_from(none.cooked, 0));
    Formatted all = format(kThree, size, 3);
    EXPECT_TRUE(spaces_from(all.cooked, all.bytes));
}

TEST(TraceFormat, EmptyReportsFormatToNothing) {
    EXPECT_EQ(format(kThree, 0, 3).bytes, 0u);
    EXPECT_EQ(format(kThree, static_cast<uint32_t>(kThree.size()), 0).bytes, 0u);
    EXPECT_EQ(format("", 100, 100).bytes, 0u);
    EXPECT_TRUE(spaces_from(format(kThree, 0, 3).cooked, 0));
}

TEST(TraceFormat, WhicheverLimitComesFirst) {
    auto size = static_cast<uint32_t>(kThree.size());
    EXPECT_EQ(format(kThree, size, 2).text, "ENTRY open EXIT open ");
    // The reported byte count ends the report inside the second entry: the
    // second is still taken, because the test is made after each entry.
    EXPECT_EQ(format(kThree, static_cast<uint32_t>(entry("ENTRY open ").size() + 1), 3).text,
              "ENTRY open EXIT open ");
    EXPECT_EQ(format(kThree, 1, 3).text, "ENTRY open ");
}

TEST(TraceFormat, LengthDigits) {
    // Lower case digits count, other characters count as 0: "0G" is 0.
    std::string lower = "0eDEBUG text ~";  // 0x0e = 14: 2 + 11 + 1
    EXPECT_EQ(format(lower, 14, 1).text, "DEBUG text ");
    std::string odd = "G9ab!!!!~";  // 'G' counts as 0, so the length is 9
    EXPECT_EQ(format(odd, 9, 1).text, "ab!!!!");
}

TEST(TraceFormat, HostileLengthsEndTheReport) {
    for (const char* bad : {"00", "01", "02"}) {
        std::string raw = entry("ENTRY a ") + bad + "garbage" + entry("ENTRY never ");
        EXPECT_EQ(format(raw, static_cast<uint32_t>(raw.size()), 100).text, "ENTRY a ") << bad;
    }
    // Length 3: no text, yet a proper entry.
    std::string empty_text = "03~" + entry("EXIT b ");
    EXPECT_EQ(format(empty_text, static_cast<uint32_t>(empty_text.size()), 2).text, "EXIT b ");
    // An entry reaching past the end of the buffer is not read.
    std::string past = entry("ENTRY a ") + "FFshort";
    EXPECT_EQ(format(past, 1000000, 100).text, "ENTRY a ");
    // A single length digit at the very end.
    std::string one_digit = entry("ENTRY a ") + "F";
    EXPECT_EQ(format(one_digit, 0xFFFFFFFFu, 0xFFFFFFFFu).text, "ENTRY a ");
    // The final byte may be the buffer's last byte; it is never read.
    std::string tight = entry("EXIT z");
    tight.pop_back();
    EXPECT_EQ(format(tight, 0xFFFFFFFFu, 0xFFFFFFFFu).text, "EXIT z");
}

TEST(TraceFormat, ShortTextsCompareOnlyWithinTheText) {
    std::string raw = entry("E") + entry("EX") + entry("EXI") + entry("EXIT") + entry("ENTR") + entry("ENTRY");
    auto size = static_cast<uint32_t>(raw.size());
    EXPECT_EQ(format(raw, size, 6, TRACE_DEBUG).text, "EEXEXIENTR");
    EXPECT_EQ(format(raw, size, 6, TRACE_EXIT).text, "EXIT");
    EXPECT_EQ(format(raw, size, 6, TRACE_ENTRY).text, "ENTRY");
}

TEST(TraceFormat, FullCookedBufferEndsTheReportEvenForDroppedEntries) {
    std::string raw = entry("ENTRY 1234") + entry("state 12345") + entry("ENTRY x");
    auto size = static_cast<uint32_t>(raw.size());
    EXPECT_EQ(format(raw, size, 3, TRACE_ENTRY, 10).text, "ENTRY 1234");
    // The dropped debug entry would not fit, so the third is never reached.
    EXPECT_EQ(format(raw, size, 3, TRACE_ENTRY, 12).text, "ENTRY 1234");
    EXPECT_EQ(format(raw, size, 3, TRACE_ENTRY, 9).bytes, 0u);
}

TEST(TraceRecordDisplay, ShowsEveryField) {
    TraceArgumentRecord r{};
    r.command = DD_TRACE_REPORT;
    r.flags = 0x1035;
    r.kernel_addr = 0xdead;
    r.user_addr = 0x1234;
    r.bytes_requested = 100;
    r.bytes_reported = 50;
    r.usage = 1;
    r.capacity = 2;
    r.entry_count = 3;
    r.first_offset = 4;
    r.last_offset = 5;
    r.total_entries = 6;
    r.lap_count = 4000000000u;
    CapturedStream out;
    fprintf_trace_argument(out.get(), r);
    EXPECT_EQ(out.text(),
                 "\nTrace Argument Contents:\n"
                 "  command: DD_TRACE_REPORT     current flags 0x00001035\n"
                 "  Console printf:    1  Trace lock:        1  Platform specific: 0  Common code:       0\n"
                 "  ENTRY:    1  EXIT:     1  DEBUG:    0\n"
                 "  PAUSE:    0  COMPRESS: 0  DUMP:     1\n"
                 "  user addr:  0x00001234  kernel addr: 0x0000dead\n"
                 "  bytes req:         100  bytes rpt:           50\n"
                 "  usage:               1  capacity:             2\n"
                 "  first offset:        4  last offset:          5\n"
                 "  entry count:         3  total entry:          6\n"
                 "  lap_count:    4000000000\n");
}

TEST(TraceRecordDisplay, CommandNames) {
    const char* expected[] = {"DD_TRACE_GET_FLAGS", "DD_TRACE_SET_FLAGS", "DD_TRACE_REPORT   ",
                              "Bogus             ", "Bogus             "};
    uint32_t commands[] = {0, 1, 2, 3, 0xFFFFFFFFu};
    for (int i = 0; i < 5; ++i) {
        TraceArgumentRecord r{};
        r.command = commands[i];
        r.flags = TRACE_PS | TRACE_CC | TRACE_PAUSE | TRACE_COMPRESS | TRACE_DEBUG;
        CapturedStream out;
        fprintf_trace_argument(out.get(), r);
        std::string shown = out.text();
        EXPECT_NE(shown.find(std::string("  command: ") + expected[i] + "  current flags 0x0000034a\n"),
                  std::string::npos);
        EXPECT_NE(shown.find("  Console printf:    0  Trace lock:        0  Platform specific: 1  Common code:       1\n"
                             "  ENTRY:    0  EXIT:     0  DEBUG:    1\n"
                             "  PAUSE:    1  COMPRESS: 1  DUMP:     0\n"),
                  std::string::npos);
    }
}

TEST(TraceRecordDisplay, FlagDigit) {
    CapturedStream out;
    fprintf_trace_flag(out.get(), "X: ", 0x30, 0x10);
    fprintf_trace_flag(out.get(), "Y: ", 0x30, 0x40);
    fprintf_trace_flag(out.get(), "Z: ", 0x100000000ull, 0x100000000ull);
    EXPECT_EQ(out.text(), "  X: 1  Y: 0  Z: 1");
}

namespace {

// A state of the facility with a raw buffer of `raw_size` bytes, for the raw
// report alone.
struct RawReport {
    TraceState state;
    explicit RawReport(std::size_t raw_size) {
        state.raw_buffer.reset(new uint8_t[raw_size]);
        state.raw_size = raw_size;
        std::memset(state.raw_buffer.get(), 'r', raw_size);
        state.record = TraceArgumentRecord{};
    }
    void set_dump_count(uint64_t count) {
        std::memcpy(state.raw_buffer.get() + kTraceDumpCountOffset, &count, sizeof count);
    }
    std::string write() {
        CapturedStream out;
        write_raw_report(out.get(), state);
        return out.text();
    }
};

// The dump bytes: after the "raw_p" line (and the "bogus" line, if any), up
// to the end marker.
std::string dump_payload(const std::string& s) {
    std::size_t start = s.find('\n', s.find("raw_p 0x")) + 1;
    if (s.compare(start, 6, "bogus ") == 0) start = s.find('\n', start) + 1;
    std::size_t end = s.find("\n***** Trace Report End Dump *****\n", start);
    return s.substr(start, end - start);
}

}  // namespace

TEST(TraceRawReport, WithoutDump) {
    RawReport report(64);
    std::memcpy(report.state.raw_buffer.get(), "05ab~", 5);
    report.state.record.bytes_reported = 5;
    std::string s = report.write();
    EXPECT_EQ(s.rfind("***** Trace Report Control Info *****\n\nTrace Argument Contents:\n", 0), 0u);
    const std::string tail =
        "  lap_count:           0\n"
        "***** Trace Report Begin 5 bytes *****\n"
        "05ab~"
        "\n***** Trace Report End Raw *****\n";
    ASSERT_GE(s.size(), tail.size());
    EXPECT_EQ(s.substr(s.size() - tail.size()), tail);
}

TEST(TraceRawReport, CountsBeyondTheBufferStayInside) {
    RawReport report(64);
    report.state.record.bytes_reported = 0xFFFFFFFFu;
    report.state.record.flags = TRACE_DUMP;  // no room for a dump at all
    std::string s = report.write();
    EXPECT_NE(s.find("***** Trace Report Begin 4294967295 bytes *****\n" + std::string(64, 'r') +
                     "\n***** Trace Report End Raw *****\n"),
              std::string::npos);
    EXPECT_NE(s.find("dump_bytes 0\n\n***** Trace Report End Dump *****\n"), std::string::npos);
}

TEST(TraceRawReport, DumpSection) {
    RawReport report(kTraceRawSize);
    report.state.record.flags = TRACE_DUMP;
    std::memset(report.state.raw_buffer.get() + kTraceDumpBytesOffset, 'd', kTraceRawSize - kTraceDumpBytesOffset);

    report.set_dump_count(5);
    std::string s = report.write();
    char line[128];
    auto base = reinterpret_cast<unsigned long>(report.state.raw_buffer.get());
    snprintf(line, sizeof line, "raw_p 0x%lx  dump 0x%lx  dump_bytes 5\n", base, base + 262144);
    EXPECT_NE(s.find(std::string("\n***** Trace Report Begin Dump *****\n") + line + "ddddd" +
                     "\n***** Trace Report End Dump *****\n"),
              std::string::npos);
    EXPECT_EQ(s.find("bogus"), std::string::npos);

    report.set_dump_count(20000);
    s = report.write();
    EXPECT_NE(s.find("dump_bytes 20000\nbogus dump_bytes adjusting to 10000\nddd"), std::string::npos);
    EXPECT_EQ(dump_payload(s), std::string(9992, 'd'));

    // Under the cap but past the dump area: only the area is written.
    report.set_dump_count(9999);
    s = report.write();
    EXPECT_EQ(s.find("bogus"), std::string::npos);
    EXPECT_EQ(dump_payload(s), std::string(9992, 'd'));
}

// Trace report bounds: the formatter and the raw report on hostile buffers and figures (buffers
// exactly as long as given, so ASan catches any step past them); the screens that print addresses.
#include <gtest/gtest.h>

#include <cstring>

#include "driver/driver.h"
#include "support.h"
#include "trace/trace.h"

static const uint32_t kAll = 0xFFFFFFFFu;

// One entry as the driver lays it out: two hex length digits, text, one final byte.
static std::string entry(const std::string& text) {
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
        {"short texts compare within the text", entry("E") + entry("EXI") + entry("ENTR"), kAll, kAll, TRACE_DEBUG, 99, "EEXIENTR"},
        {"full cooked buffer ends", a + entry("ENTRY b "), kAll, kAll, d, 12, "ENTRY a "},
        {"empty raw buffer", "", kAll, kAll, d, 99, ""}};
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

// The raw report's dump writes no more than the buffer holds, whatever its count claims (the
// advanced screens test below shows a byte count past the buffer).
TEST(TraceRawReport, DumpCountBeyondTheBuffer) {
    const std::string end = "\n***** Trace Report End Dump *****\n";
    const std::pair<uint64_t, std::string> cases[] = {
        {20000, "dump_bytes 20000\nbogus dump_bytes adjusting to 10000\n" + std::string(9992, 'r') + end},
        {9999, " dump_bytes 9999\n" + std::string(9992, 'r') + end}};
    for (const auto& [dump_count, expected] : cases) {
        TraceState state;
        state.raw_buffer.reset(new uint8_t[state.raw_size = kTraceRawSize]);
        std::memset(state.raw_buffer.get(), 'r', kTraceRawSize);
        std::memcpy(&state.raw_buffer[kTraceDumpCountOffset], &dump_count, sizeof dump_count);
        state.record = TraceArgumentRecord{}, state.record.flags = TRACE_DUMP;
        CapturedStream out;
        write_raw_report(out.stream, state);
        EXPECT_NE(out.text().find(expected), std::string::npos) << dump_count;
    }
}

// What no golden case can show, as each prints a buffer's address: the advanced trace menu with
// its record and local flags, and the raw report (a byte count past the buffer, and a buffer too
// short to hold a dump count).
TEST(TraceScreens, AdvancedMenuAndRawReport) {
    TraceState& s = trace_state;
    s.record = TraceArgumentRecord{}, s.record_initialised = 1, s.output_file_name[0] = '\0';
    s.record.user_addr = 0x1000, s.record.flags = TRACE_DUMP | TRACE_ENTRY, s.record.bytes_reported = kAll;
    s.filter_mask = kTraceDefaultFilter, s.raw_size = 8, s.raw_buffer.reset(new uint8_t[8]{'0', '5', 'a', '~', '0', '5', 'b', '~'});
    char answers[] = "50\n3\n\n\n";
    FILE* input = fmemopen(answers, sizeof answers - 1, "r");
    CapturedStream screen, report;
    trace_menu_session(screen.stream, input, screen.stream);
    fclose(input);
    const std::string record =
        "\nTrace Argument Contents:\n  command: DD_TRACE_GET_FLAGS  current flags 0x00001010\n"
        "  Console printf:    0  Trace lock:        0  Platform specific: 0  Common code:       0\n"
        "  ENTRY:    1  EXIT:     0  DEBUG:    0\n  PAUSE:    0  COMPRESS: 0  DUMP:     1\n"
        "  user addr:  0x00001000  kernel addr: 0x00000000\n  bytes req:           0  bytes rpt:     4294967295\n"
        "  usage:               0  capacity:             0\n  first offset:        0  last offset:          0\n"
        "  entry count:         0  total entry:          0\n  lap_count:           0\n";
    const std::string menu =
        "enter selection: Trace Operations Menu\n\n current trace output file is <>\n  trace filter mask 0x00000070\n"
        "  ENTRY:    1  EXIT:     1  DEBUG:    1\n" + record +
        "\nTrace Flag Operations:\n  1 : get flags from kernel\n  2 : apply flags to kernel\n  3 : set local flags\n\n"
        "Trace Report Operations:\n  4 : set report bytes requested\n  5 : request report from kernel\n"
        "  6 : set report filter mask\n  7 : format report\n  8 : set trace output\n"
        "  9 : append raw  report to trace file\n 10 : append cook report to trace file\n\n"
        " 19 : start device driver trace \n 20 : start detailed device driver trace \n 21 : end   device driver trace \n"
        " 22 : write driver trace data to file <>\n 23 : clear trace table\n\n 50 : advanced trace options\n\n"
        " 99 : return to test menu\n\nenter selection:  Destinations: (1) printf   (2) pserr     (3) ps   \n"
        "               (4) cc                              \n Macros:       (5) entry    (6) exit      (7) debug\n"
        " Controls:     (8) pause    (9) compress (10) dump \n"
        "enter flag to change or return to continue: flag value (0/1): Trace Operations Menu\n";
    EXPECT_NE(screen.text().find(menu), std::string::npos) << screen.text();
    write_raw_report(report.stream, s);
    char pointers[80];
    const auto raw = reinterpret_cast<unsigned long>(s.raw_buffer.get());
    snprintf(pointers, sizeof pointers, "raw_p 0x%lx  dump 0x%lx  dump_bytes 0\n", raw, raw + kTraceDumpCountOffset);
    EXPECT_EQ(report.text(), "***** Trace Report Control Info *****\n" + record + "***** Trace Report Begin 4294967295 bytes *****\n"
                             "05a~05b~\n***** Trace Report End Raw *****\n\n***** Trace Report Begin Dump *****\n" + pointers +
                             "\n***** Trace Report End Dump *****\n");
}

// The trace menu's steps under -t, and each request failing in turn: -t prints the record's
// address, so no golden case shows these.
TEST(TraceScreens, TracedStepsAndFailedRequests) {
    TraceState& s = trace_state;
    test_context.trace = 1, test_context.device_handle = 3;
    int calls = 0, failing = 0;
    ScopedFakeIoctl fake([&](int, unsigned long, void*) { return ++calls == failing ? errno = EIO, -1 : 0; });
    auto session = [&](std::string answers, int fail) {
        calls = 0, failing = fail, s.record_initialised = 1, s.record.flags = TRACE_CC;
        FILE* input = fmemopen(answers.data(), answers.size(), "r");
        CapturedStream screen;
        trace_menu_session(screen.stream, input, screen.stream);
        fclose(input);
        return screen.text();
    };
    const std::string traced = session("22\n19\n20\n21\n", 0);
    for (const char* step :
         {"TTRACE trace_menu entered.\n", "TTRACE begin snapshot, get flags \n", "TTRACE set pause 0x1 \n",
          "TTRACE request report 0x2 \n", "TTRACE set unpause 0x1 \n", "TTRACE calling dd_trace_format_report \n",
          "TTRACE cook_report_bytes = 0 \n", "TTRACE start tracing, get flags \n", "TTRACE flags 0x08 \n",
          "TTRACE set cc trace on 0x1 \n", "TTRACE start detailed tracing, get flags \n", "TTRACE end tracing, get flags \n",
          "TTRACE set cc trace off 0x1 \n"})
        EXPECT_NE(traced.find(step), std::string::npos) << step << traced;
    const struct { const char* answers; int fail; const char* message; } failures[] = {
        {"19\n", 2, "trace start failed, return to continue\n"}, {"21\n", 2, "trace end failed, return to continue\n"},
        {"22\n", 2, "snapshot failed pause on, return to continue\n"}, {"22\n", 3, "snapshot failed get report, return to continue\n"},
        {"22\n", 4, "snapshot failed pause off, return to continue\n"}};
    for (const auto& f : failures) EXPECT_NE(session(f.answers, f.fail).find(f.message), std::string::npos) << f.message;
    CapturedStream inquiry;  // -t around INQUIRY data, traced with its request's address too
    const uint8_t data[sizeof(InquiryData)] = {};
    fprintf_inquiry_data(inquiry.stream, data);
    EXPECT_EQ(inquiry.text().rfind("TTRACE: fprintf_inquiry_data entered.\nINQUIRY data:\n", 0), 0u);
    EXPECT_NE(inquiry.text().find(") \nTTRACE: fprintf_inquiry_data exit.\n"), std::string::npos);
    test_context.trace = 0, test_context.device_handle = -1;
}

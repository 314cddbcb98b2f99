// Trace menu sessions against a played driver: flag arithmetic, snapshots,
// report and output selections, failures and end of input.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "context/context.h"
#include "fake_ioctl.h"
#include "trace/trace.h"

namespace {

std::string contents(FILE* f) {
    fflush(f);
    rewind(f);
    std::string s;
    char chunk[4096];
    std::size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) s.append(chunk, n);
    return s;
}

std::string file_text(const char* name) {
    FILE* f = fopen(name, "r");
    if (f == nullptr) return "<missing>";
    std::string s = contents(f);
    fclose(f);
    return s;
}

std::size_t occurrences(const std::string& s, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
    return n;
}

// The driver's side of DD_TRACE: keeps its own flags, records every request
// as it arrived, and can be told to refuse one command or to tamper with
// each record after answering it.
struct PlayedDriver {
    uint32_t flags = 0;
    std::vector<TraceArgumentRecord> requests;
    std::vector<void*> addresses;
    int refuse_command = -1;
    int refuse_after = 0;  // requests of that command accepted before refusing
    std::string report = "10ENTRY open a ~0FEXIT open a ~0Bstate 1 ~";
    uint32_t entries = 3;
    std::function<void(TraceArgumentRecord&)> tamper;

    int answer(unsigned long request, void* address) {
        if (request != DD_TRACE) return -1;
        auto* r = static_cast<TraceArgumentRecord*>(address);
        requests.push_back(*r);
        addresses.push_back(address);
        if (static_cast<int>(r->command) == refuse_command && refuse_after-- <= 0) {
            errno = EINVAL;
            return -1;
        }
        switch (r->command) {
            case DD_TRACE_GET_FLAGS: r->flags = flags; break;
            case DD_TRACE_SET_FLAGS: flags = r->flags; break;
            case DD_TRACE_REPORT: {
                auto* raw = reinterpret_cast<uint8_t*>(r->user_addr);
                std::memcpy(raw, report.data(), report.size());
                r->bytes_reported = static_cast<uint32_t>(report.size());
                r->entry_count = entries;
                r->flags = flags;
                break;
            }
            default: break;
        }
        if (tamper) tamper(*r);
        return 0;
    }
};

class TraceMenu : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/trace_menu.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        old_dir_ = std::filesystem::current_path();
        std::filesystem::current_path(dir_);
        reset_test_context();
        test_context.device_handle = 9;
        trace_init();
    }
    void TearDown() override {
        TraceState& s = trace_state;
        if (s.output_owned && s.output_stream != nullptr) fclose(s.output_stream);
        s.output_stream = nullptr;
        s.output_owned = false;
        std::filesystem::current_path(old_dir_);
        std::filesystem::remove_all(dir_);
    }

    // One session: `input` typed at the menu; the menu's output and the
    // caller's stream are kept for inspection.
    int session(const std::string& input) {
        FILE* in = tmpfile();
        fputs(input.c_str(), in);
        rewind(in);
        FILE* out = tmpfile();
        FILE* stream = tmpfile();
        int rc;
        {
            ScopedFakeIoctl fake([this](int, unsigned long request, void* record) {
                return driver.answer(request, record);
            });
            rc = trace_menu_session(stream, in, out);
        }
        output = contents(out);
        stream_text = contents(stream);
        fclose(in);
        fclose(out);
        fclose(stream);
        return rc;
    }

    PlayedDriver driver;
    std::string output;
    std::string stream_text;
    std::filesystem::path dir_;
    std::filesystem::path old_dir_;
};

const char kShortPass[] =
    "Trace Operations Menu\n"
    "\n"
    " current trace output file is <trace.out>\n"
    "\n"
    " 19 : start device driver trace \n"
    " 20 : start detailed device driver trace \n"
    " 21 : end   device driver trace \n"
    " 22 : write driver trace data to file <trace.out>\n"
    " 23 : clear trace table\n"
    "\n"
    " 50 : advanced trace options\n"
    "\n"
    " 99 : return to test menu\n"
    "\n"
    "enter selection: ";

}  // namespace

TEST_F(TraceMenu, PlainAndAdvancedDisplay) {
    EXPECT_EQ(session("99\n"), 99);
    EXPECT_EQ(output, kShortPass);
    EXPECT_TRUE(driver.requests.empty());

    session("50\n99\n");
    char addr[64];
    snprintf(addr, sizeof addr, "0x%08lx", reinterpret_cast<unsigned long>(trace_state.raw_buffer.get()));
    std::string advanced = std::string(kShortPass) +
                           "Trace Operations Menu\n"
                           "\n"
                           " current trace output file is <trace.out>\n"
                           "  trace filter mask 0x00000070\n"
                           "  ENTRY:    1  EXIT:     1  DEBUG:    1\n"
                           "\n"
                           "Trace Argument Contents:\n"
                           "  command: DD_TRACE_GET_FLAGS  current flags 0x00000000\n"
                           "  Console printf:    0  Trace lock:        0  Platform specific: 0  Common code:       0\n"
                           "  ENTRY:    0  EXIT:     0  DEBUG:    0\n"
                           "  PAUSE:    0  COMPRESS: 0  DUMP:     0\n"
                           "  user addr:  " + addr + "  kernel addr: 0x00000000\n"
                           "  bytes req:           0  bytes rpt:            0\n"
                           "  usage:               0  capacity:             0\n"
                           "  first offset:        0  last offset:          0\n"
                           "  entry count:         0  total entry:          0\n"
                           "  lap_count:           0\n"
                           "\n"
                           "Trace Flag Operations:\n"
                           "  1 : get flags from kernel\n"
                           "  2 : apply flags to kernel\n"
                           "  3 : set local flags\n"
                           "\n"
                           "Trace Report Operations:\n"
                           "  4 : set report bytes requested\n"
                           "  5 : request report from kernel\n"
                           "  6 : set report filter mask\n"
                           "  7 : format report\n"
                           "  8 : set trace output\n"
                           "  9 : append raw  report to trace file\n"
                           " 10 : append cook report to trace file\n"
                           "\n" +
                           std::string(kShortPass).substr(std::strlen("Trace Operations Menu\n\n current trace output file is <trace.out>\n\n"));
    EXPECT_EQ(output, advanced);

    // The advanced display starts off again on the next entry.
    session("99\n");
    EXPECT_EQ(output, kShortPass);
}

TEST_F(TraceMenu, RecordIsInitialisedOnceAndKeptAcrossEntries) {
    driver.flags = 0x1234;
    session("1\n\n99\n");
    EXPECT_EQ(output.substr(std::strlen(kShortPass), 27), "rc = 0  enter to continue: ");
    trace_state.record.usage = 77;
    session("50\n99\n");
    EXPECT_NE(output.find("current flags 0x00001234"), std::string::npos);
    EXPECT_NE(output.find("  usage:              77"), std::string::npos);
}

TEST_F(TraceMenu, StartAndEndTracingFlagArithmetic) {
    struct Case {
        const char* typed;
        uint32_t before;
        uint32_t sent;
    } cases[] = {{"19\n99\n", 0x35, 0x4D}, {"20\n99\n", 0x35, 0x7D}, {"21\n99\n", 0x4D, 0x45}};
    for (const Case& c : cases) {
        driver = PlayedDriver{};
        driver.flags = c.before;
        session(c.typed);
        ASSERT_EQ(driver.requests.size(), 2u) << c.typed;
        EXPECT_EQ(driver.requests[0].command, DD_TRACE_GET_FLAGS);
        EXPECT_EQ(driver.requests[1].command, DD_TRACE_SET_FLAGS);
        EXPECT_EQ(driver.requests[1].flags, c.sent) << c.typed;
        // A successful request shows the next pass at once.
        EXPECT_EQ(output, std::string(kShortPass) + kShortPass) << c.typed;
    }
    // Bits outside the table keep the driver's values.
    driver = PlayedDriver{};
    driver.flags = 0xFFFF0000u | TRACE_ENTRY;
    session("19\n99\n");
    EXPECT_EQ(driver.flags, 0xFFFF0048u);
}

TEST_F(TraceMenu, TracedLinesGoToTheCallersStream) {
    test_context.trace = 1;
    driver.flags = 0x35;
    session("19\n20\n21\n99\n");
    test_context.trace = 0;
    EXPECT_EQ(stream_text.rfind("TTRACE trace_menu entered.\nTTRACE start tracing, get flags \n", 0), 0u);
    EXPECT_NE(stream_text.find("TTRACE: ioctl returned rc=0x00000000\n"), std::string::npos);
    EXPECT_NE(stream_text.find("TTRACE flags 0x35 \n"), std::string::npos);
    EXPECT_NE(stream_text.find("TTRACE set cc trace on 0x1 \n"), std::string::npos);
    EXPECT_NE(stream_text.find("TTRACE start detailed tracing, get flags \n"), std::string::npos);
    EXPECT_NE(stream_text.find("TTRACE flags 0x4D \n"), std::string::npos);
    EXPECT_NE(stream_text.find("TTRACE end tracing, get flags \n"), std::string::npos);
    EXPECT_NE(stream_text.find("TTRACE flags 0x7D \n"), std::string::npos);
    EXPECT_NE(stream_text.find("TTRACE set cc trace off 0x1 \n"), std::string::npos);
    EXPECT_EQ(output.find("TTRACE"), std::string::npos);
}

TEST_F(TraceMenu, SetLocalFlags) {
    const std::string prompt =
        " Destinations: (1) printf   (2) pserr     (3) ps   \n"
        "               (4) cc                              \n"
        " Macros:       (5) entry    (6) exit      (7) debug\n"
        " Controls:     (8) pause    (9) compress (10) dump \n"
        "enter flag to change or return to continue: flag value (0/1): ";
    struct Case {
        uint32_t before;
        const char* answers;
        uint32_t after;
    } cases[] = {
        {0x0000, "3\n1\n", 0x000A},  {0x000F, "3\n0\n", 0x0005}, {0x000F, "4\n0\n", 0x0007},
        {0x0000, "10\n1\n", 0x1000}, {0x0000, "1\n1\n", 0x0001}, {0x0000, "2\n1\n", 0x0004},
        {0x0000, "8\n1\n", 0x0100},  {0x0000, "9\n1\n", 0x0200}, {0x0070, "6\n\n", 0x0050},
        {0x0070, "7\nyes\n", 0x0030}, {0x0000, "5\n1x\n", 0x0010}, {0x0000, "11\n1\n", 0x0000},
        {0x0000, "\n1\n", 0x0000},   {0x0000, "-3\n1\n", 0x0000}, {0x0000, "4294967299\n1\n", 0x000A},  // 2^32 + 3 is choice 3
    };
    for (const Case& c : cases) {
        trace_state.record.flags = c.before;
        session(std::string("3\n") + c.answers + "99\n");
        EXPECT_EQ(trace_state.record.flags, c.after) << c.answers;
        EXPECT_EQ(output, std::string(kShortPass) + prompt + kShortPass) << c.answers;
        EXPECT_TRUE(driver.requests.empty());
    }
    // The driver sees them only when applied.
    trace_state.record.flags = 0x48;
    session("2\n\n99\n");
    EXPECT_EQ(driver.flags, 0x48u);
}

TEST_F(TraceMenu, SnapshotPausesOnlyARunningCommonCodeTrace) {
    driver.flags = TRACE_CC | TRACE_DEBUG;
    session("22\n99\n");
    ASSERT_EQ(driver.requests.size(), 4u);
    EXPECT_EQ(driver.requests[0].command, DD_TRACE_GET_FLAGS);
    EXPECT_EQ(driver.requests[1].command, DD_TRACE_SET_FLAGS);
    EXPECT_EQ(driver.requests[1].flags, 0x148u);
    EXPECT_EQ(driver.requests[2].command, DD_TRACE_REPORT);
    EXPECT_EQ(driver.requests[2].bytes_requested, 272144u);
    EXPECT_EQ(driver.requests[3].command, DD_TRACE_SET_FLAGS);
    EXPECT_EQ(driver.requests[3].flags, 0x48u);
    EXPECT_EQ(file_text("trace.out"), "ENTRY open a EXIT open a state 1 ");
    EXPECT_EQ(trace_state.cooked_bytes, 33u);

    for (uint32_t flags : {0x0u, 0x148u, 0x40u}) {
        driver = PlayedDriver{};
        driver.flags = flags;
        session("22\n99\n");
        ASSERT_EQ(driver.requests.size(), 2u) << flags;
        EXPECT_EQ(driver.requests[1].command, DD_TRACE_REPORT);
        EXPECT_EQ(driver.flags, flags);
    }
    // Appended run after run, the start-up file never emptied.
    std::string four;
    for (int i = 0; i < 4; ++i) four += "ENTRY open a EXIT open a state 1 ";
    EXPECT_EQ(file_text("trace.out"), four);
}

TEST_F(TraceMenu, SnapshotFailures) {
    struct Case {
        int command;
        int accepted_before;
        uint32_t flags;
        const char* message;
        std::size_t requests;
    } cases[] = {
        {DD_TRACE_GET_FLAGS, 0, TRACE_CC, "snapshot failed get flags, return to continue\n", 1},
        {DD_TRACE_SET_FLAGS, 0, TRACE_CC, "snapshot failed pause on, return to continue\n", 2},
        {DD_TRACE_REPORT, 0, TRACE_CC, "snapshot failed get report, return to continue\n", 3},
        {DD_TRACE_SET_FLAGS, 1, TRACE_CC, "snapshot failed pause off, return to continue\n", 4},
        {DD_TRACE_REPORT, 0, 0, "snapshot failed get report, return to continue\n", 2},
    };
    for (const Case& c : cases) {
        driver = PlayedDriver{};
        driver.flags = c.flags;
        driver.refuse_command = c.command;
        driver.refuse_after = c.accepted_before;
        session("22\n\n99\n");
        EXPECT_EQ(output, std::string(kShortPass) + c.message + kShortPass) << c.message;
        EXPECT_EQ(driver.requests.size(), c.requests) << c.message;
    }
    // A failed report after the pause leaves the driver paused.
    driver = PlayedDriver{};
    driver.flags = TRACE_CC;
    driver.refuse_command = DD_TRACE_REPORT;
    session("22\n\n99\n");
    EXPECT_EQ(driver.flags, TRACE_CC | TRACE_PAUSE);
    EXPECT_EQ(file_text("trace.out"), "");
}

TEST_F(TraceMenu, RequestFailureMessages) {
    driver.refuse_command = DD_TRACE_GET_FLAGS;
    session("19\n\n20\n\n21\n\n1\n\n99\n");
    EXPECT_EQ(output, std::string(kShortPass) + "tracing start failed get flags, return to continue\n" + kShortPass +
                          "tracing start failed get flags, return to continue\n" + kShortPass +
                          "tracing end failed get flags, return to continue\n" + kShortPass +
                          "rc = -1  enter to continue: " + kShortPass);

    driver = PlayedDriver{};
    driver.flags = 0x35;
    driver.refuse_command = DD_TRACE_SET_FLAGS;
    session("19\n\n");
    EXPECT_EQ(output, std::string(kShortPass) + "trace start failed, return to continue\n" + kShortPass);
    EXPECT_EQ(trace_state.record.flags, 0x4Du);  // kept though the driver refused
    session("21\n\n");
    EXPECT_NE(output.find("trace end failed, return to continue\n"), std::string::npos);
    EXPECT_EQ(trace_state.record.flags, 0x35u & ~0x0Au);

    driver = PlayedDriver{};
    driver.refuse_command = DD_TRACE_CLEAR;
    session("23\n\n99\n");
    EXPECT_EQ(output, std::string(kShortPass) + "clear trace failed, return to continue\n" + kShortPass);
    EXPECT_EQ(trace_state.record.command, DD_TRACE_CLEAR);

    driver = PlayedDriver{};
    session("23\n99\n");
    EXPECT_EQ(output, std::string(kShortPass) + kShortPass);
}

TEST_F(TraceMenu, InvalidSelections) {
    for (const char* typed : {"0\n", "\n", "100\n", "-1\n", "word\n", "11\n", "98\n"}) {
        session(std::string(typed) + "\n99\n");
        EXPECT_EQ(output, std::string(kShortPass) + "invalid input, return to continue\n" + kShortPass) << typed;
    }
    // 2^32 + 99 truncates to 99.
    EXPECT_EQ(session("4294967395 \n"), 99);
}

TEST_F(TraceMenu, ReportSelectionsWorkWithoutTheAdvancedDisplay) {
    session("4\n1000\n5\n\n");
    EXPECT_EQ(output, std::string(kShortPass) + "enter bytes requested or return to continue: " + kShortPass +
                          "rc = 0  enter to continue: " + kShortPass);
    ASSERT_EQ(driver.requests.size(), 1u);
    EXPECT_EQ(driver.requests[0].bytes_requested, 1000u);
    EXPECT_EQ(driver.requests[0].command, DD_TRACE_REPORT);
    // The raw buffer was spaces before the driver wrote its report.
    EXPECT_EQ(trace_state.raw_buffer[driver.report.size()], ' ');
    EXPECT_EQ(trace_state.raw_buffer[kTraceRawSize - 1], ' ');

    session("4\n\n99\n");
    EXPECT_EQ(trace_state.record.bytes_requested, 1000u);
    session("4\n4294967297\n99\n");
    EXPECT_EQ(trace_state.record.bytes_requested, 1u);

    // Selection 10 before any formatting writes nothing; 7 formats, 10 appends.
    session("10\n6\n3\n0\n7\n10\n99\n");
    EXPECT_NE(output.find(" Macros:       (1) entry     (2) exit    (3) debug\n"
                          "enter flag to change or return to continue: flag value (0/1): "),
              std::string::npos);
    EXPECT_EQ(trace_state.filter_mask, 0x30u);
    EXPECT_EQ(file_text("trace.out"), "ENTRY open a EXIT open a ");

    session("6\n3\n1\n6\n1\n\n6\n9\n1\n6\n\n1\n99\n");
    EXPECT_EQ(trace_state.filter_mask, 0x60u);
}

TEST_F(TraceMenu, RawReportSelection) {
    driver.flags = TRACE_DUMP;
    uint64_t dump = 3;
    session("5\n\n9\n99\n");
    std::memcpy(trace_state.raw_buffer.get() + kTraceDumpCountOffset, &dump, sizeof dump);
    std::memcpy(trace_state.raw_buffer.get() + kTraceDumpBytesOffset, "xyz", 3);
    session("9\n99\n");
    std::string text = file_text("trace.out");
    EXPECT_EQ(occurrences(text, "***** Trace Report Control Info *****\n"), 2u);
    EXPECT_NE(text.find("***** Trace Report Begin 42 bytes *****\n" + driver.report +
                        "\n***** Trace Report End Raw *****\n"),
              std::string::npos);
    EXPECT_NE(text.find("dump_bytes 3\nxyz\n***** Trace Report End Dump *****\n"), std::string::npos);
}

TEST_F(TraceMenu, OutputChoices) {
    const std::string prompt = "enter (1)stdout (2)stderr (3)batch_out (4)trace_out\nor return to continue: ";
    session("8\n\n8\n7\n99\n");
    EXPECT_EQ(output, std::string(kShortPass) + prompt + kShortPass + prompt + kShortPass);
    FILE* start_up = trace_state.output_stream;
    EXPECT_TRUE(trace_state.output_owned);

    // stdout: the name shown stays; then a named file replaces it, stdout stays open.
    session("8\n1\n99\n");
    EXPECT_EQ(trace_state.output_stream, stdout);
    EXPECT_STREQ(trace_state.output_file_name, "trace.out");
    session("8\n4\nmine.out\n99\n");
    EXPECT_NE(output.find(prompt + "enter trace output file name or return for default: "), std::string::npos);
    EXPECT_NE(output.find(" current trace output file is <mine.out>\n"), std::string::npos);
    EXPECT_NE(output.find(" 22 : write driver trace data to file <mine.out>\n"), std::string::npos);
    EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFD), -1);
    EXPECT_NE(fputs("", stdout), EOF);
    session("22\n99\n");
    EXPECT_EQ(file_text("mine.out"), "ENTRY open a EXIT open a state 1 ");
    (void)start_up;

    // The batch stream: the caller's stream, never closed here.
    session("8\n3\n10\n8\n2\n99\n");
    EXPECT_EQ(stream_text, "ENTRY open a EXIT open a state 1 ");
    EXPECT_EQ(trace_state.output_stream, stderr);
    EXPECT_NE(trace_state.batch_stream, nullptr);
    EXPECT_STREQ(trace_state.output_file_name, "mine.out");

    // An empty name opens trace.out again, emptied.
    FILE* f = fopen("trace.out", "w");
    fputs("old report", f);
    fclose(f);
    session("8\n4\n\n99\n");
    EXPECT_STREQ(trace_state.output_file_name, "trace.out");
    EXPECT_EQ(file_text("trace.out"), "");
    EXPECT_TRUE(trace_state.output_owned);
}

TEST_F(TraceMenu, UnopenableOutputLeavesNoStream) {
    testing::internal::CaptureStderr();
    session("8\n4\nno/such/dir/x.out\n9\n10\n22\n99\n");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "plimsor error opening file >no/such/dir/x.out<\n");
    EXPECT_EQ(trace_state.output_stream, nullptr);
    EXPECT_NE(output.find(" current trace output file is <no/such/dir/x.out>\n"), std::string::npos);
    // The snapshot still fetched and formatted: 10 writes it once an output exists.
    EXPECT_EQ(driver.requests.size(), 2u);
    EXPECT_EQ(trace_state.cooked_bytes, 33u);
    session("8\n4\nlater.out\n10\n99\n");
    EXPECT_EQ(file_text("later.out"), "ENTRY open a EXIT open a state 1 ");
}

TEST_F(TraceMenu, LongOutputFileName) {
    std::string name(255, 'n');
    testing::internal::CaptureStderr();
    session("8\n4\n" + name + "\n99\n");
    testing::internal::GetCapturedStderr();
    // 255 characters, the longest answer and the longest file name, fit whole.
    EXPECT_EQ(std::string(trace_state.output_file_name), name);
    EXPECT_NE(trace_state.output_stream, nullptr);
    EXPECT_TRUE(std::filesystem::exists(name));
}

TEST_F(TraceMenu, OverlongLineIsOneAnswer) {
    // Past the first 255 characters the rest of the line is dropped, never
    // taken as the next selection: here it would clear the trace table.
    testing::internal::CaptureStderr();
    session("8\n4\n" + std::string(255, '7') + "23\n99\n");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string(trace_state.output_file_name), std::string(255, '7'));
    EXPECT_TRUE(driver.requests.empty());
    EXPECT_EQ(output.find("invalid input"), std::string::npos);

    session("50" + std::string(253, ' ') + "23\n99\n");
    EXPECT_TRUE(driver.requests.empty());
    EXPECT_EQ(occurrences(output, "enter selection: "), 2u);
}

TEST_F(TraceMenu, EndOfInputLeavesFromEveryPrompt) {
    const char* inputs[] = {
        "",         "5",      "1\n",     "2\n",      "3\n",     "3\n5\n",  "4\n",     "5\n",
        "6\n",      "6\n1\n", "8\n",     "8\n4\n",   "100\n",   "50\n",    "19\n",    "22\n",
    };
    for (const char* input : inputs) {
        driver = PlayedDriver{};
        driver.refuse_command = DD_TRACE_SET_FLAGS;  // 19 and 22 then wait on a message
        driver.flags = TRACE_CC;
        uint32_t flags_before = trace_state.record.flags;
        EXPECT_EQ(session(input), 99) << input;
        EXPECT_LE(occurrences(output, "enter selection: "), 2u) << input;
        if (std::strncmp(input, "3\n", 2) == 0) {
            EXPECT_EQ(trace_state.record.flags, flags_before) << input;
        }
    }
    // End of input at the file name keeps the old output open.
    FILE* before = trace_state.output_stream;
    session("8\n4\n");
    EXPECT_EQ(trace_state.output_stream, before);
    EXPECT_NE(fputs("", before), EOF);
}

TEST_F(TraceMenu, BufferOverrideRedirectsOneRequest) {
    TraceArgumentRecord elsewhere{};
    test_context.buffer_override = reinterpret_cast<int64_t>(&elsewhere);
    test_context.buffer_override_armed = 1;
    driver.flags = 0x77;
    session("1\n\n1\n\n99\n");
    ASSERT_EQ(driver.addresses.size(), 2u);
    EXPECT_EQ(driver.addresses[0], &elsewhere);
    EXPECT_EQ(driver.addresses[1], &trace_state.record);
    EXPECT_EQ(test_context.buffer_override_armed, 0);
    EXPECT_EQ(elsewhere.flags, 0x77u);
}

TEST_F(TraceMenu, HostileReportsStayInsideTheBuffers) {
    // Reports filling the whole raw buffer with entries of the largest
    // length, a tail that reaches past the end, and figures far beyond it.
    struct Hostile {
        char fill;
        uint64_t dump_bytes;
    } cases[] = {{'F', ~0ull}, {'0', 9999}, {'1', 10000}, {'z', 0}};
    for (const Hostile& h : cases) {
        driver = PlayedDriver{};
        driver.flags = TRACE_DUMP | TRACE_CC;
        driver.tamper = [h](TraceArgumentRecord& r) {
            if (r.command == DD_TRACE_REPORT) {
                auto* raw = reinterpret_cast<uint8_t*>(r.user_addr);
                std::memset(raw, h.fill, kTraceRawSize);
                std::memcpy(raw + kTraceDumpCountOffset, &h.dump_bytes, sizeof h.dump_bytes);
                r.bytes_reported = 0xFFFFFFFFu;
                r.entry_count = 0xFFFFFFFFu;
            }
            r.flags = TRACE_DUMP | TRACE_CC;
        };
        EXPECT_EQ(session("22\n9\n7\n10\n99\n"), 99);
        EXPECT_EQ(trace_state.raw_buffer[0], static_cast<uint8_t>(h.fill));  // the report the tool got
        EXPECT_LE(trace_state.cooked_bytes, kTraceCookedSize);
    }
    // All-'F' entries are 255 bytes long, 252 of text: as many as fit whole.
    trace_state.record.bytes_reported = 0xFFFFFFFFu;
    trace_state.record.entry_count = 0xFFFFFFFFu;
    std::memset(trace_state.raw_buffer.get(), 'F', kTraceRawSize);
    dd_trace_format_report(trace_state.record, kTraceDefaultFilter, trace_state.raw(), trace_state.cooked(),
                           trace_state.cooked_bytes);
    EXPECT_EQ(trace_state.cooked_bytes, (kTraceRawSize / 255) * 252);
}

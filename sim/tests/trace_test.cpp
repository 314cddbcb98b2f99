// The driver trace table behind the trace request: flags, recording rules,
// the report layout in the caller's raw buffer, the dump, clearing.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "driver.h"

namespace vpathsim {
namespace {

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/vpathsim-trace.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        std::string error;
        ASSERT_TRUE(sim_.attach(dir_, "", &error)) << error;
        raw_.assign(272144, ' ');
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    int command(uint32_t which, uint32_t flags = 0, uint32_t requested = 0) {
        record_.command = which;
        record_.flags = flags;
        record_.user_addr = reinterpret_cast<uintptr_t>(raw_.data());
        record_.bytes_requested = requested;
        errno = 0;
        return sim_.request(kTrace, &record_);
    }

    void some_io() {
        sim_.transfer(0, false, 0, 512, [] { return ssize_t{512}; });
    }

    // The texts of the reported entries, checked for the entry format.
    std::vector<std::string> entries() {
        std::vector<std::string> texts;
        uint32_t offset = 0;
        for (uint32_t i = 0; i < record_.entry_count; ++i) {
            unsigned length = std::stoul(std::string(raw_.data() + offset, 2), nullptr, 16);
            EXPECT_GE(length, 3u);
            EXPECT_EQ(raw_[offset + length - 1], '\0');
            texts.emplace_back(raw_.data() + offset + 2, length - 3);
            offset += length;
        }
        EXPECT_EQ(offset, record_.bytes_reported);
        return texts;
    }

    std::string dir_;
    Sim sim_;
    TraceArgumentRecord record_{};
    std::vector<char> raw_;
};

TEST_F(TraceTest, RecordsOnlyWhileOnAndNotPaused) {
    ASSERT_EQ(command(kTraceGetFlags), 0);
    EXPECT_EQ(record_.flags, 0u);
    EXPECT_EQ(record_.capacity, kTraceTableSize);
    some_io();  // tracing off: nothing recorded
    ASSERT_EQ(command(kTraceSetFlags, kTraceCc | kTraceEntry | kTraceExit | kTraceDebug | 0x80000), 0);
    EXPECT_EQ(record_.flags, kTraceCc | kTraceEntry | kTraceExit | kTraceDebug);  // unknown bits dropped
    some_io();
    ASSERT_EQ(command(kTraceSetFlags, kTraceCc | kTraceEntry | kTraceExit | kTraceDebug | kTracePause), 0);
    some_io();
    ASSERT_EQ(command(kTraceReport, record_.flags, 272144), 0);
    EXPECT_EQ(entries(), (std::vector<std::string>{"ENTRY vpath_read vpath0 offset 0 length 512\n",
                                                   "vpath0 read via path 2 (sdc) on scsi0\n",
                                                   "EXIT vpath_read vpath0 length 512 rc 512\n"}));
    EXPECT_EQ(record_.total_entries, 3u);
    EXPECT_EQ(record_.usage, record_.bytes_reported);

    // The class bits choose what is recorded; CC alone records nothing.
    ASSERT_EQ(command(kTraceClear), 0);
    ASSERT_EQ(command(kTraceSetFlags, kTraceCc | kTraceExit), 0);
    some_io();
    ASSERT_EQ(command(kTraceReport, record_.flags, 100000), 0);
    ASSERT_EQ(entries().size(), 1u);
    EXPECT_EQ(entries()[0].rfind("EXIT ", 0), 0u);
}

TEST_F(TraceTest, ReportRespectsBytesRequestedAndDump) {
    ASSERT_EQ(command(kTraceSetFlags, kTraceCc | kTraceDebug | kTraceEntry | kTraceExit), 0);
    for (int i = 0; i < 5; ++i) some_io();
    ASSERT_EQ(command(kTraceReport, record_.flags, 100), 0);
    EXPECT_EQ(record_.entry_count, 2u);  // whole entries only
    EXPECT_LE(record_.bytes_reported, 100u);
    entries();
    EXPECT_EQ(raw_[record_.bytes_reported], ' ');  // nothing past the report
    ASSERT_EQ(command(kTraceReport, record_.flags, 0), 0);
    EXPECT_EQ(record_.entry_count, 0u);

    // The dump goes behind the entry area only when asked for and room.
    ASSERT_EQ(command(kTraceSetFlags, record_.flags | kTraceDump), 0);
    ASSERT_EQ(command(kTraceReport, record_.flags, 262144), 0);
    EXPECT_EQ(raw_[kReportDumpCountOffset], ' ');
    ASSERT_EQ(command(kTraceReport, record_.flags, 272144), 0);
    uint64_t dump = 0;
    std::memcpy(&dump, raw_.data() + kReportDumpCountOffset, sizeof dump);
    ASSERT_GT(dump, 0u);
    ASSERT_LE(dump, kReportDumpMax);
    EXPECT_EQ(std::string(raw_.data() + kReportDumpOffset, 14), "vpathsim dump:");
}

TEST_F(TraceTest, FullTableDropsOldestAndCountsLaps) {
    ASSERT_EQ(command(kTraceSetFlags, kTraceCc | kTraceDebug | kTraceEntry | kTraceExit), 0);
    for (int i = 0; i < 2000; ++i) some_io();
    ASSERT_EQ(command(kTraceGetFlags), 0);
    EXPECT_GT(record_.lap_count, 0u);
    EXPECT_LE(record_.usage, kTraceTableSize);
    EXPECT_EQ(record_.total_entries, 6000u);
    ASSERT_EQ(command(kTraceReport, record_.flags, 272144), 0);
    EXPECT_EQ(record_.bytes_reported, record_.usage);
    EXPECT_EQ(entries().back(), "EXIT vpath_read vpath0 length 512 rc 512\n");
    ASSERT_EQ(command(kTraceClear), 0);
    EXPECT_EQ(record_.usage, 0u);
    EXPECT_EQ(record_.lap_count, 0u);
}

TEST_F(TraceTest, BadAddressesAndCommands) {
    ASSERT_EQ(command(kTraceSetFlags, kTraceCc | kTraceDebug), 0);
    some_io();
    record_.command = kTraceReport;
    record_.user_addr = 0x10;
    record_.bytes_requested = 272144;
    EXPECT_EQ(sim_.request(kTrace, &record_), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(record_.bytes_reported, 0u);
    EXPECT_EQ(command(7), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(record_.flags, kTraceCc | kTraceDebug);  // still reports the flags
}

}  // namespace
}  // namespace vpathsim

namespace vpathsim {
namespace {

// Faults armed for later are traced when armed and when they strike; the
// path faults each time they hit a transfer.
TEST_F(TraceTest, FaultsAreTracedWhenTheyStrike) {
    ASSERT_EQ(command(kTraceSetFlags, kTraceCc | kTraceDebug), 0);
    std::string error;
    FaultRequest fail{kFaultFailPath, 0, 2, 0, 2, false};
    FaultRequest flaky{kFaultFlakyPath, 0, 3, 1, 0, false};
    FaultRequest corrupt{kFaultCorruptReads, 0, 0, 7, 1, true};
    FaultRequest gone{kFaultFailDevice, 0, -1, 0, 3, false};
    for (const auto& request : {fail, flaky, corrupt, gone}) ASSERT_TRUE(sim_.arm(request, &error)) << error;
    for (int i = 0; i < 4; ++i) some_io();
    ASSERT_EQ(command(kTraceReport, 0, 4096), 0);
    EXPECT_EQ(entries(), (std::vector<std::string>{
                             "fail-path 0 2 armed: after 2 transfers\n",
                             "vpath0 path 3 flaky (every 1)\n",
                             "corrupt-reads 0 0 byte 7 armed: after 1 sector\n",
                             "fail-device 0 armed: after 3 transfers\n",
                             "vpath0 read via path 1 (sdb) on scsi1\n",
                             "vpath0 path 0 corrupts byte 7 of reads (after 1 sector)\n",
                             "vpath0 read via path 2 (sdc) on scsi0\n",
                             "vpath0 path 2 failed (after 2 transfers)\n",
                             "vpath0 read via path 3 (sdd): flaky path error, retried on path 0\n",
                             "vpath0 read via path 0 (sda): byte 7 corrupted\n",
                             "vpath0 read via path 0 (sda) on scsi0\n",
                             "vpath0 every path failed (after 3 transfers)\n",
                             "vpath0 read: no functioning path\n",
                         }));
}

}  // namespace
}  // namespace vpathsim

// get_dev_stats and get_adapter_stats: fixed-width unsigned tables.
#include <gtest/gtest.h>

#include <string>

#include "driver_support.h"

namespace {
const std::string kHeading = "\n                Total Read  Total Write  Active Read  Active Write   Maximum\n";
const std::string kTransferHeading =
    "\nTransfer Size:      <= 512        <= 4k       <= 16K        <= 64K     > 64K\n";
}  // namespace

class StatsCommands : public DriverCommand {};

TEST_F(StatsCommands, DeviceStatisticsTable) {
    FakeDriver<DeviceStatsRecord> driver;
    driver.reply = DeviceStatsRecord{0, 1, {10, 20, 0, 1, 64}, {80, 160, 0, 8, 512}, 1, 2, 3, 4, 5};
    CommandRun run = run_command(get_dev_stats, "get_dev_stats device 1 result rc != -1");
    EXPECT_EQ(run.out,
              "Completion Status: Success\n" + kHeading +
                  "I/O:                    10           20            0             1        64\n"
                  "SECTOR:                 80          160            0             8       512\n" +
                  kTransferHeading +
                  "                         1            2            3             4         5\n\n");
    EXPECT_EQ(run.outcome.return_code, 0);
    EXPECT_EQ(driver.sent[0].device, 1);
}

TEST_F(StatsCommands, CountersAreUnsignedAndFillTheirFields) {
    constexpr uint32_t kAll = 0xFFFFFFFFu;
    FakeDriver<DeviceStatsRecord> driver;
    driver.reply = DeviceStatsRecord{3, 1, {kAll, kAll, kAll, kAll, kAll}, {1, 2, 3, 4, kAll},
                                     kAll, kAll, kAll, kAll, kAll};
    CommandRun run = run_command(get_dev_stats, "get_dev_stats device 1");
    EXPECT_EQ(run.out,
              "Completion Status: Device Not Found\n" + kHeading +
                  "I/O:            4294967295   4294967295   4294967295    42949672954294967295\n"
                  "SECTOR:                  1            2            3             44294967295\n" +
                  kTransferHeading +
                  "                4294967295   4294967295   4294967295    42949672954294967295\n\n");
}

TEST_F(StatsCommands, AdapterStatisticsTable) {
    FakeDriver<AdapterStatsRecord> driver;
    driver.reply = AdapterStatsRecord{0, 2, {7, 8, 9, 10, 11}, {12, 13, 14, 15, 0xFFFFFFFFu}};
    CommandRun run = run_command(get_adapter_stats, "get_adapter_stats adapter 2");
    EXPECT_EQ(run.out,
              "Completion Status: Success\n" + kHeading +
                  "I/O:                     7            8            9            10        11\n"
                  "SECTOR:                 12           13           14            154294967295\n\n");
    EXPECT_EQ(driver.sent[0].adapter, 2);
}

TEST_F(StatsCommands, Failures) {
    {
        FakeDriver<DeviceStatsRecord> driver;
        driver.reply.status = 3;
        driver.rc = -1;
        CommandRun run = run_command(get_dev_stats, "get_dev_stats device 8");
        EXPECT_EQ(run.out, "tarnwick error getting device statistics: Device Not Found\n");
        EXPECT_EQ(run.outcome.return_code, -1);
    }
    {
        FakeDriver<AdapterStatsRecord> driver;
        driver.reply.status = INT32_MIN;
        driver.rc = -1;
        CommandRun run = run_command(get_adapter_stats, "get_adapter_stats adapter 8");
        EXPECT_EQ(run.out, "tarnwick error getting adapter statistics: Error!!! Unexpected Value (-2147483648)\n");
        EXPECT_EQ(run.outcome.return_code, -1);
    }
}

TEST_F(StatsCommands, WrongKeywordStillSends) {
    FakeDriver<DeviceStatsRecord> driver;
    driver.reply.status = 0;
    CommandRun run = run_command(get_dev_stats, "get_dev_stats adapter 1");
    EXPECT_TRUE(run.out.starts_with("get device statistics, invalid statement at (adapter 1) Completion Status: "));
    EXPECT_EQ(run.console, kSyntaxLine);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 0);

    FakeDriver<AdapterStatsRecord> adapter_driver;
    run = run_command(get_adapter_stats, "get_adapter_stats device 1");
    EXPECT_TRUE(run.out.starts_with("get adapter statistics, invalid statement at (device 1) Completion Status: "));
    EXPECT_EQ(run.console, kSyntaxLine);
    ASSERT_EQ(adapter_driver.sent.size(), 1u);
    EXPECT_EQ(adapter_driver.sent[0].adapter, 0);
}

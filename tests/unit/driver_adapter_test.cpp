// get_adapter_info, set_adapter and set_controller against crafted driver
// replies.
#include <gtest/gtest.h>

#include <string>

#include "driver_support.h"

namespace {
AdapterInfoRecord two_adapters() {
    AdapterInfoRecord r{};
    r.entry_count = 2;
    r.entries[0] = AdapterEntry{0, 0, 1234, 0, 4, 4, {}};
    fill_text(r.entries[0].name, "host0");
    r.entries[1] = AdapterEntry{2, 1, 1234567, 12, 4, 0, {}};
    fill_text(r.entries[1].name, "host1");
    return r;
}

const std::string kTwoAdapterEntries =
    "Adapter 0: host0\tState: Normal\t    Mode: Active\n"
    "\tCount:   1234\t\tError Count: 0\n"
    "\tAttached Path: 4\tPath still functioning: 4\n"
    "Adapter 1: host1\tState: Failed\t    Mode: Manual Offline\n"
    "\tCount: 1234567\t\tError Count: 12\n"
    "\tAttached Path: 4\tPath still functioning: 0\n";
}  // namespace

class AdapterCommands : public DriverCommand {};

TEST_F(AdapterCommands, AdapterInfoReport) {
    FakeDriver<AdapterInfoRecord> driver;
    driver.reply = two_adapters();
    CommandRun run = run_command(get_adapter_info, "get_adapter_info extra tokens");
    EXPECT_EQ(run.out, "Completion Status: Success\nNumber of adapter entries: 2\n" + kTwoAdapterEntries);
    EXPECT_EQ(run.outcome.return_code, 0);
    EXPECT_EQ(run.console, "");

    driver.reply.status = 2;
    run = run_command(get_adapter_info, "get_adapter_info");
    EXPECT_EQ(run.out, "Completion Status: Invalid Adapter\nNumber of adapter entries: 2\n" + kTwoAdapterEntries);
}

TEST_F(AdapterCommands, AdapterInfoZeroOrNegativeCountListsNothing) {
    FakeDriver<AdapterInfoRecord> driver;
    driver.reply = two_adapters();
    for (int32_t count : {0, -1, INT32_MIN}) {
        driver.reply.entry_count = count;
        CommandRun run = run_command(get_adapter_info, "get_adapter_info");
        EXPECT_EQ(run.out, "Completion Status: Success\nNumber of adapter entries: " + std::to_string(count) + "\n");
    }
}

TEST_F(AdapterCommands, AdapterInfoCountAboveTheRecordStopsAtTheLastSlot) {
    FakeDriver<AdapterInfoRecord> driver;
    for (int32_t count : {33, INT32_MAX}) {
        driver.reply = AdapterInfoRecord{};
        driver.reply.entry_count = count;
        for (int i = 0; i < kMaxAdapterEntries; ++i) driver.reply.entries[i].count = 500 + i;
        CommandRun run = run_command(get_adapter_info, "get_adapter_info");
        EXPECT_NE(run.out.find("Adapter 31: \t"), std::string::npos);
        EXPECT_NE(run.out.find("\tCount:    531\t"), std::string::npos);
        EXPECT_EQ(run.out.find("Adapter 32:"), std::string::npos);
    }
}

TEST_F(AdapterCommands, AdapterInfoHostileEntry) {
    FakeDriver<AdapterInfoRecord> driver;
    driver.reply.entry_count = 1;
    driver.reply.entries[0] = AdapterEntry{3, 0xFFFFFFFFu, -1, -1, -1, -1, {}};
    std::memset(driver.reply.entries[0].name, 'Z', sizeof driver.reply.entries[0].name);
    // Unterminated name followed directly by the next entry's state field.
    driver.reply.entries[1].state = 0x41414141;
    CommandRun run = run_command(get_adapter_info, "get_adapter_info");
    EXPECT_EQ(run.out,
              "Completion Status: Success\nNumber of adapter entries: 1\n"
              "Adapter 0: " + std::string(16, 'Z') + "\t"
              "State: Error!!! Unexpected Value (3)\t    Mode: Error!!! Unexpected Value (4294967295)\n"
              "\tCount:     -1\t\tError Count: -1\n"
              "\tAttached Path: -1\tPath still functioning: -1\n");
}

TEST_F(AdapterCommands, AdapterInfoFailure) {
    FakeDriver<AdapterInfoRecord> driver;
    driver.reply = two_adapters();
    driver.reply.status = 1;
    driver.rc = -1;
    CommandRun run = run_command(get_adapter_info, "get_adapter_info");
    EXPECT_EQ(run.out, "Error getting addapter info: Illegal Request\n");
    EXPECT_EQ(run.outcome.return_code, -1);
}

TEST_F(AdapterCommands, SetAdapterReports) {
    FakeDriver<SetAdapterRecord> driver;
    driver.reply = {0, 3, 1};
    EXPECT_EQ(run_command(set_adapter, "set_adapter adapter 3 state 1").out,
              "Completion Status: Success\nSet Adapter 3 to online\n");
    driver.reply = {0, 3, 2};
    EXPECT_EQ(run_command(set_adapter, "set_adapter adapter 3 state 2").out,
              "Completion Status: Success\nSet Adapter 3 to offline\n");
    driver.reply = {0, 3, 0};
    EXPECT_EQ(run_command(set_adapter, "set_adapter adapter 3 state 0").out,
              "Completion Status: Success\nError state\n");
    EXPECT_EQ(driver.sent.back().state, 0);
}

TEST_F(AdapterCommands, SetAdapterLastPathStaysOnline) {
    FakeDriver<SetAdapterRecord> driver;
    driver.reply = {5, 3, 2};
    CommandRun run = run_command(set_adapter, "set_adapter adapter 3 state 2");
    EXPECT_EQ(run.out, "Completion Status: Last Path\nThe last path, Adapter 3 remain online\n");
    EXPECT_EQ(run.outcome.return_code, 0);
    // Only taking an adapter offline can hit the last path.
    driver.reply = {5, 3, 1};
    EXPECT_EQ(run_command(set_adapter, "set_adapter adapter 3 state 1").out,
              "Completion Status: Last Path\nSet Adapter 3 to online\n");
}

TEST_F(AdapterCommands, SetAdapterFailureAndSyntax) {
    FakeDriver<SetAdapterRecord> driver;
    driver.reply = {2, 9, 1};
    driver.rc = -1;
    CommandRun run = run_command(set_adapter, "set_adapter adaptor 9 states 1");
    EXPECT_EQ(run.out,
              "set adapter, invalid statement at (adaptor 9 states 1) "
              "Error setting adapter state: Invalid Adapter\n");
    EXPECT_EQ(run.console, kSyntaxLine);
    EXPECT_EQ(run.outcome.return_code, -1);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].adapter, 0);
    EXPECT_EQ(driver.sent[0].state, 1);  // "states" begins with "state"
    EXPECT_EQ(test_context.result_code, kResultSyntaxError);
}

TEST_F(AdapterCommands, SetControllerFixedReport) {
    FakeDriver<SetControllerRecord> driver;
    driver.reply = {4, 0, 1, 5};  // the driver's status is not shown
    CommandRun run = run_command(set_controller, "set_controller device 0 ctlr 5 action 1");
    EXPECT_EQ(run.out, "Completion Status: 0 \n\n" + std::string(16, ' '));
    EXPECT_EQ(run.outcome.return_code, 0);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 0);
    EXPECT_EQ(driver.sent[0].action, 1);
    EXPECT_EQ(driver.sent[0].controller, 5);
}

TEST_F(AdapterCommands, SetControllerFailure) {
    FakeDriver<SetControllerRecord> driver;
    driver.reply = {3, 0, 0, 0};
    driver.rc = -1;
    CommandRun run = run_command(set_controller, "set_controller device -1 ctlr 0 action 3");
    EXPECT_EQ(run.out, "tarnwick error set controller \n");
    EXPECT_EQ(run.outcome.return_code, -1);
    EXPECT_EQ(driver.sent[0].device, -1);
    EXPECT_EQ(driver.sent[0].action, 3);
}

TEST_F(AdapterCommands, SetControllerWrongKeywordsLeaveZeros) {
    FakeDriver<SetControllerRecord> driver;
    CommandRun run = run_command(set_controller, "set_controller device 2 controller 5 act 1");
    EXPECT_EQ(run.out,
              "set controller, invalid statement at (controller 5 act 1) "
              "set controller, invalid statement at (act 1) "
              "Completion Status: 0 \n\n" + std::string(16, ' '));
    EXPECT_EQ(run.console, kSyntaxLine + kSyntaxLine);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 2);
    EXPECT_EQ(driver.sent[0].controller, 0);
    EXPECT_EQ(driver.sent[0].action, 0);
}

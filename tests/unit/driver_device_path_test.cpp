// get_number_devices, get_device_state and set_path against crafted driver
// replies.
#include <gtest/gtest.h>

#include <string>

#include "driver_support.h"

using namespace std::string_literals;

class DeviceCommands : public DriverCommand {};

TEST_F(DeviceCommands, NumberOfDevicesReport) {
    FakeDriver<DeviceCountRecord> driver;
    driver.reply = {0, 4};
    CommandRun run = run_command(get_number_devices, "get_number_devices");
    EXPECT_EQ(run.out, "Completion Status: Success\nNumber of Devices: 4\n");
    EXPECT_EQ(run.outcome.return_code, 0);
    EXPECT_EQ(run.console, "");

    // Extra tokens are ignored; a non-zero status still heads the report.
    driver.reply = {3, -2};
    run = run_command(get_number_devices, "get_number_devices device 9 result rc == 0");
    EXPECT_EQ(run.out, "Completion Status: Device Not Found\nNumber of Devices: -2\n");
    EXPECT_EQ(run.console, "");
    EXPECT_EQ(test_context.result_code, kResultOk);
}

TEST_F(DeviceCommands, NumberOfDevicesFailure) {
    FakeDriver<DeviceCountRecord> driver;
    driver.reply = {-1, 4};
    driver.rc = -1;
    CommandRun run = run_command(get_number_devices, "get_number_devices");
    EXPECT_EQ(run.out, "Error getting number of devices: Error!!! Unexpected Value (-1)\n");
    EXPECT_EQ(run.outcome.return_code, -1);
    EXPECT_EQ(run.outcome.error_number, 0);
    EXPECT_EQ(run.outcome.error_value, 0);
}

namespace {
DeviceStateRecord two_path_device() {
    DeviceStateRecord r{};
    r.status = 0;
    r.device = 1;
    fill_text(r.device_name, "vpath1");
    fill_text(r.serial_number, "75022811");  // rest of the 33 bytes are NULs
    std::memcpy(r.device_type, "2105F20\0", 8);
    r.policy = 2;
    r.path_count = 2;
    r.remaining_paths = 1;
    r.last_path_used = 0;
    r.paths[0].adapter_number = 0;
    fill_text(r.paths[0].path_name, "sdb");
    fill_text(r.paths[0].adapter_name, "host0");
    r.paths[0].state = 1;
    r.paths[0].mode = 0;
    r.paths[0].times_used = 1234;
    r.paths[0].recovered_errors = 0;
    r.paths[1].adapter_number = 1;
    fill_text(r.paths[1].path_name, "sdc");
    fill_text(r.paths[1].adapter_name, "host1");
    r.paths[1].state = 2;
    r.paths[1].mode = 1;
    r.paths[1].times_used = 1234567;
    r.paths[1].recovered_errors = 3;
    return r;
}

const std::string kTwoPathReport =
    "Completion Status: Success\n"
    "Device:\t\tvpath1 \n"
    "Serial Number:\t75022811"s + std::string(25, '\0') + "\n"
    "Device Type:\t2105F20\0\n\n"s
    "Path Selection Policy: Round Robin Sequential\n"
    "Path Count: 2 \tRemaining Path: 1\tLast path used: 0\n"
    "\n"
    "Path 0: Adapter 0 (host0)\tPath Name: sdb\n"
    "\tState: Open\t\tMode: Normal\n"
    "\tTimes used:   1234\tRecovered Errors: 0\n\n"
    "Path 1: Adapter 1 (host1)\tPath Name: sdc\n"
    "\tState: Dead\t\tMode: Manual Offline\n"
    "\tTimes used: 1234567\tRecovered Errors: 3\n\n";
}  // namespace

TEST_F(DeviceCommands, DeviceStateReport) {
    FakeDriver<DeviceStateRecord> driver;
    driver.reply = two_path_device();
    CommandRun run = run_command(get_device_state, "get_device_state device 1 result rc != -1");
    EXPECT_EQ(run.out, kTwoPathReport);
    EXPECT_EQ(run.outcome.return_code, 0);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 1);
    EXPECT_EQ(run.console, "");
}

TEST_F(DeviceCommands, DeviceStateNoPathsAndNonZeroStatus) {
    FakeDriver<DeviceStateRecord> driver;
    driver.reply = two_path_device();
    driver.reply.status = 3;
    driver.reply.policy = 7;
    driver.reply.path_count = 0;
    CommandRun run = run_command(get_device_state, "get_device_state devices 1");
    const std::string head = "Completion Status: Device Not Found\n";
    const std::string tail = "Path Selection Policy: Reserve Policy\n"
                             "Path Count: 0 \tRemaining Path: 1\tLast path used: 0\n\n";
    EXPECT_EQ(run.out.substr(0, head.size()), head);
    EXPECT_EQ(run.out.substr(run.out.size() - tail.size()), tail);
}

TEST_F(DeviceCommands, DeviceStateUnknownCodesShowEachNumber) {
    FakeDriver<DeviceStateRecord> driver;
    driver.reply = two_path_device();
    driver.reply.policy = 0;
    driver.reply.path_count = 1;
    driver.reply.paths[0].state = 0xFFFFFFFFu;
    driver.reply.paths[0].mode = 7;
    CommandRun run = run_command(get_device_state, "get_device_state device 1");
    EXPECT_NE(run.out.find("Path Selection Policy: Error!!! Unexpected Value (0)\n"), std::string::npos);
    EXPECT_NE(run.out.find("\tState: Error!!! Unexpected Value (4294967295)\t\t"
                           "Mode: Error!!! Unexpected Value (7)\n"),
              std::string::npos);
}

TEST_F(DeviceCommands, DeviceStateHostileCountsStopAtTheLastSlot) {
    FakeDriver<DeviceStateRecord> driver;
    for (uint32_t count : {33u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        driver.reply = DeviceStateRecord{};
        driver.reply.path_count = count;
        for (int i = 0; i < kMaxPathEntries; ++i) driver.reply.paths[i].adapter_number = 100 + i;
        CommandRun run = run_command(get_device_state, "get_device_state device 0");
        EXPECT_NE(run.out.find("Path 31: Adapter 131 ()"), std::string::npos) << count;
        EXPECT_EQ(run.out.find("Path 32:"), std::string::npos) << count;
    }
    EXPECT_NE(run_command(get_device_state, "get_device_state device 0").out.find("Path Count: -1 \t"),
              std::string::npos);
}

TEST_F(DeviceCommands, DeviceStateUnterminatedNamesStayInTheirFields) {
    FakeDriver<DeviceStateRecord> driver;
    std::memset(&driver.reply, 'A', sizeof driver.reply);
    driver.reply.status = 0;
    driver.reply.policy = 1;
    driver.reply.path_count = 1;
    std::memset(driver.reply.device_name, 'N', sizeof driver.reply.device_name);
    std::memset(driver.reply.paths[0].path_name, 'P', sizeof driver.reply.paths[0].path_name);
    std::memset(driver.reply.paths[0].adapter_name, 'H', sizeof driver.reply.paths[0].adapter_name);
    CommandRun run = run_command(get_device_state, "get_device_state device 0");
    EXPECT_NE(run.out.find("Device:\t\t" + std::string(15, 'N') + " \n"), std::string::npos);
    EXPECT_NE(run.out.find("Serial Number:\t" + std::string(33, 'A') + "\n"), std::string::npos);
    EXPECT_NE(run.out.find("Device Type:\t" + std::string(8, 'A') + "\n\n"), std::string::npos);
    EXPECT_NE(run.out.find("(" + std::string(17, 'H') + ")\tPath Name: " + std::string(15, 'P') + "\n"),
              std::string::npos);
}

TEST_F(DeviceCommands, DeviceStateFailure) {
    FakeDriver<DeviceStateRecord> driver;
    driver.reply = two_path_device();
    driver.reply.status = 6;
    driver.rc = -1;
    CommandRun run = run_command(get_device_state, "get_device_state device 1");
    EXPECT_EQ(run.out, "tarnwick error getting device state: Error!!! Unexpected Value (6)\n");
    EXPECT_EQ(run.outcome.return_code, -1);
}

TEST_F(DeviceCommands, DeviceStateWrongKeywordStillSends) {
    FakeDriver<DeviceStateRecord> driver;
    driver.reply = two_path_device();
    CommandRun run = run_command(get_device_state, "get_device_state dev 1 result rc != -1");
    EXPECT_EQ(run.out, "get device state, invalid statement at (dev 1 result rc != -1) " + kTwoPathReport);
    EXPECT_EQ(run.console, kSyntaxLine);
    EXPECT_EQ(test_context.result_code, kResultSyntaxError);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 0);  // the number after a wrong keyword is not read
}

TEST_F(DeviceCommands, KeywordWithoutItsNumberReadsZero) {
    FakeDriver<DeviceStateRecord> driver;
    CommandRun run = run_command(get_device_state, "get_device_state device");
    EXPECT_EQ(run.console, "");
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 0);
}

class PathCommand : public DriverCommand {};

TEST_F(PathCommand, ReportsByTheRecordsState) {
    FakeDriver<SetPathRecord> driver;
    driver.reply = {0, 1, 2, 2};
    EXPECT_EQ(run_command(set_path, "set_path device 1 path 2 state 2").out,
              "Completion Status: Success\nSet Device 1 Path 2 to offline\n");
    driver.reply = {0, 1, 2, 1};
    EXPECT_EQ(run_command(set_path, "set_path device 1 path 2 state 1").out,
              "Completion Status: Success\nSet Device 1 Path 2 to online\n");
    driver.reply = {4, 1, 2, 3};
    CommandRun run = run_command(set_path, "set_path device 1 path 2 state 3");
    EXPECT_EQ(run.out, "Completion Status: Invalid Parameter\nSet Device 1 Path 2 to Error state\n");
    EXPECT_EQ(run.outcome.return_code, 0);
    EXPECT_EQ(driver.sent.back().state, 3);
}

TEST_F(PathCommand, ShortStatementReadsNothingPastItsTokens) {
    FakeDriver<SetPathRecord> driver;
    CommandRun run = run_command(set_path, "set_path device 4 path");
    EXPECT_TRUE(run.out.starts_with("set path, invalid statement at () Completion"));
    EXPECT_EQ(run.console, kSyntaxLine);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 4);
    EXPECT_EQ(driver.sent[0].path, 0);
}

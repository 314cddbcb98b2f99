// Value tables and the byte order of the records the driver reads by offset.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "driver_support.h"

TEST(ValueToName, UnknownValuesShowTheirNumber) {
    EXPECT_STREQ(value_to_name(6, completion_status_names), "Error!!! Unexpected Value (6)");
    // The end entry's value 0 is never matched: there is no policy 0.
    EXPECT_STREQ(value_to_name(0, path_policy_names), "Error!!! Unexpected Value (0)");
    EXPECT_STREQ(value_to_name(3, path_state_names), "Error!!! Unexpected Value (3)");
    EXPECT_STREQ(value_to_name(2, path_mode_names), "Error!!! Unexpected Value (2)");
    EXPECT_STREQ(value_to_name(3, adapter_state_names), "Error!!! Unexpected Value (3)");
    EXPECT_STREQ(value_to_name(-9, adapter_mode_names), "Error!!! Unexpected Value (-9)");
}

TEST(ValueToName, StatusWidensWithSignCodedFieldsWithout) {
    EXPECT_STREQ(status_name(-1), "Error!!! Unexpected Value (-1)");
    EXPECT_STREQ(status_name(INT32_MIN), "Error!!! Unexpected Value (-2147483648)");
    EXPECT_STREQ(coded_name(0xFFFFFFFFu, path_state_names), "Error!!! Unexpected Value (4294967295)");
    EXPECT_STREQ(coded_name(0x80000000u, path_policy_names), "Error!!! Unexpected Value (2147483648)");
    EXPECT_STREQ(value_to_name(INT64_MIN, path_mode_names), "Error!!! Unexpected Value (-9223372036854775808)");
}

TEST(ValueToName, TwoUnknownTextsOfOneLineStayApart) {
    const char* state = coded_name(7, adapter_state_names);
    const char* mode = coded_name(0xFFFFFFFFu, adapter_mode_names);
    EXPECT_STREQ(state, "Error!!! Unexpected Value (7)");
    EXPECT_STREQ(mode, "Error!!! Unexpected Value (4294967295)");
}

// The record layouts themselves are pinned at compile time; these check
// that the commands put each statement number into the field the driver
// reads, byte for byte.
class RecordBytes : public DriverCommand {};

TEST_F(RecordBytes, SetControllerPutsActionBeforeController) {
    FakeDriver<SetControllerRecord> driver;
    run_command(set_controller, "set_controller device 9 ctlr 5 action 1");
    ASSERT_EQ(driver.sent.size(), 1u);
    int32_t words[4];
    std::memcpy(words, &driver.sent[0], sizeof words);
    EXPECT_EQ(words[0], 0);
    EXPECT_EQ(words[1], 9);
    EXPECT_EQ(words[2], 1);  // action
    EXPECT_EQ(words[3], 5);  // controller
}

TEST_F(RecordBytes, NumbersAreStoredIn32BitsUnchecked) {
    FakeDriver<SetPathRecord> driver;
    // 4294967297 = 2^32 + 1; -1 stays -1 (the menu's "all devices").
    run_command(set_path, "set_path device -1 path 4294967297 state -2");
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, -1);
    EXPECT_EQ(driver.sent[0].path, 1);
    EXPECT_EQ(driver.sent[0].state, -2);
}

TEST_F(RecordBytes, EveryRecordStartsZeroFilled) {
    FakeDriver<DeviceStateRecord> driver;
    run_command(get_device_state, "get_device_state device 2");
    ASSERT_EQ(driver.sent.size(), 1u);
    DeviceStateRecord expected{};
    expected.device = 2;
    EXPECT_EQ(std::memcmp(&driver.sent[0], &expected, sizeof expected), 0);
}

// Opcode and dump length of every request, as the -t trace of the access
// layer shows them.
struct RequestCase {
    Command command;
    const char* line;
    const char* opcode;
    const char* length;
};

class RequestCodes : public DriverCommand, public testing::WithParamInterface<RequestCase> {};

TEST_P(RequestCodes, OpcodeAndLengthGiven) {
    const RequestCase& c = GetParam();
    std::vector<unsigned long> requests;
    ScopedFakeIoctl fake([&](int, unsigned long request, void*) {
        requests.push_back(request);
        return 0;
    });
    test_context.trace = 1;
    CommandRun run = run_command(c.command, c.line);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0], std::stoul(c.opcode, nullptr, 16));
    EXPECT_NE(run.out.find(std::string("TTRACE: system ioctl, opcode   =") + c.opcode + " \n"), std::string::npos);
    EXPECT_NE(run.out.find(std::string("TTRACE: system ioctl, length   =") + c.length + " \n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    AllRequests, RequestCodes,
    testing::Values(RequestCase{get_number_devices, "get_number_devices", "00006402", "8"},
                    RequestCase{get_adapter_info, "get_adapter_info", "00006403", "1288"},
                    RequestCase{get_device_state, "get_device_state device 0", "00006404", "1916"},
                    RequestCase{set_path, "set_path device 0 path 0 state 1", "00006405", "16"},
                    RequestCase{set_adapter, "set_adapter adapter 0 state 1", "00006406", "12"},
                    RequestCase{get_inquiry, "get_inquiry device 0", "00006407", "56"},
                    RequestCase{get_dev_stats, "get_dev_stats device 0", "00006409", "68"},
                    RequestCase{get_adapter_stats, "get_adapter_stats adapter 0", "0000640A", "48"},
                    RequestCase{set_controller, "set_controller device 0 ctlr 0 action 1", "0000640D", "16"}));

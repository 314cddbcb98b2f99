// get_inquiry, the INQUIRY report, and which requests take the one-shot
// address override.
#include <gtest/gtest.h>

#include <string>

#include "driver_support.h"

using namespace std::string_literals;

namespace {
InquiryRecord sample_inquiry() {
    InquiryRecord r{};
    InquiryData& d = r.data;
    d.device_type = 0x00;
    d.flags = 0x12;
    d.flags2 = 0xab;
    d.additional_length = 0x5b;
    std::memcpy(d.vendor_id, "XYZ\0\0\0\0\0", 8);
    std::memcpy(d.product_id, "2105800 \x01\xff      ", 16);
    std::memcpy(d.firmware_revision_level, ".101", 4);
    const uint8_t specific[20] = {0x41, 0x00, 0x7e, 0x7f, 0x20, 0x1f, 0x80, 0xff, 0x30, 0x39,
                                  0x61, 0x7a, 0x09, 0x0a, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47};
    std::memcpy(d.vendor_specific, specific, 20);
    std::memset(d.tail, 0xee, sizeof d.tail);
    return r;
}

const std::string kSampleReport =
    "INQUIRY data:\n"
    "  devtype             0 \n"
    "  flags      12\n"
    "  additional_length  5b flags2  ab \n"
    "  vendor id:               XYZ\0\0\0\0\0\n"
    "  product id:              2105800 \x01\xff      \n"
    "  firmware revision level: .101\n"
    "  vendor specific: \n"
    "     41  0 7e 7f 20 1f 80 ff 30 39 61 7a  9  a 42 43 44 45 46 47\n"
    "     (A.~. ...09az..BCDEFG) \n"s;
}  // namespace

class InquiryCommand : public DriverCommand {
  protected:
    void SetUp() override {
        DriverCommand::SetUp();
        std::memset(test_context.inquiry_data, 0, sizeof test_context.inquiry_data);
    }
};

TEST_F(InquiryCommand, ReportAndKeptData) {
    FakeDriver<InquiryRecord> driver;
    driver.reply = sample_inquiry();
    driver.reply.status = 4;  // never shown
    CommandRun run = run_command(get_inquiry, "get_inquiry device 2 result rc != -1");
    EXPECT_EQ(run.out, kSampleReport);
    EXPECT_EQ(run.outcome.return_code, 0);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 2);
    EXPECT_EQ(std::memcmp(test_context.inquiry_data, &driver.reply.data, sizeof test_context.inquiry_data), 0);
    EXPECT_EQ(test_context.inquiry_data[68], 0xee);  // the unshown tail is kept too
}

TEST_F(InquiryCommand, FailureKeepsEarlierData) {
    FakeDriver<InquiryRecord> driver;
    driver.reply = sample_inquiry();
    run_command(get_inquiry, "get_inquiry device 2");
    uint8_t before[sizeof test_context.inquiry_data];
    std::memcpy(before, test_context.inquiry_data, sizeof before);

    driver.reply = InquiryRecord{};
    std::memset(&driver.reply.data, 'Q', sizeof driver.reply.data);
    driver.rc = -1;
    CommandRun run = run_command(get_inquiry, "get_inquiry device 2");
    EXPECT_EQ(run.out, "tarnwick error getting logical inquiry\n");
    EXPECT_EQ(run.outcome.return_code, -1);
    EXPECT_EQ(std::memcmp(before, test_context.inquiry_data, sizeof before), 0);
}

TEST_F(InquiryCommand, WrongKeywordUsesTheDeviceStateMessage) {
    FakeDriver<InquiryRecord> driver;
    driver.reply = sample_inquiry();
    CommandRun run = run_command(get_inquiry, "get_inquiry dev 0");
    EXPECT_EQ(run.out, "get device state, invalid statement at (dev 0) " + kSampleReport);
    EXPECT_EQ(run.console, kSyntaxLine);
    EXPECT_EQ(test_context.result_code, kResultSyntaxError);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver.sent[0].device, 0);
}

TEST_F(InquiryCommand, ReportTraceLines) {
    InquiryRecord r = sample_inquiry();
    CapturedStream stream;
    test_context.trace = 1;
    fprintf_inquiry_data(stream.get(), reinterpret_cast<const uint8_t*>(&r.data));
    EXPECT_EQ(stream.text(),
              "TTRACE: fprintf_inquiry_data entered.\n" + kSampleReport + "TTRACE: fprintf_inquiry_data exit.\n");
}

TEST_F(InquiryCommand, AllZeroData) {
    CapturedStream stream;
    fprintf_inquiry_data(stream.get(), test_context.inquiry_data);
    EXPECT_EQ(stream.text(),
              "INQUIRY data:\n"
              "  devtype             0 \n"
              "  flags       0\n"
              "  additional_length   0 flags2   0 \n"
              "  vendor id:               " + std::string(8, '\0') + "\n"
              "  product id:              " + std::string(16, '\0') + "\n"
              "  firmware revision level: " + std::string(4, '\0') + "\n"
              "  vendor specific: \n"
              "    "
              "  0  0  0  0  0  0  0  0  0  0  0  0  0  0  0  0  0  0  0  0\n"
              "     (....................) \n");
}

// Every request but the inquiry hands the driver the armed override
// address once, and still reports from its own record.
class AddressOverride : public DriverCommand {};

TEST_F(AddressOverride, ConsumedByAQueryThatReportsItsOwnRecord) {
    FakeDriver<DeviceCountRecord> driver;
    driver.reply = {0, 9};
    DeviceCountRecord elsewhere{};
    test_context.buffer_override = reinterpret_cast<int64_t>(&elsewhere);
    test_context.buffer_override_armed = 1;

    CommandRun run = run_command(get_number_devices, "get_number_devices");
    EXPECT_EQ(test_context.buffer_override_armed, 0);
    ASSERT_EQ(driver.addresses.size(), 1u);
    EXPECT_EQ(driver.addresses[0], &elsewhere);
    EXPECT_EQ(elsewhere.number_of_devices, 9);
    EXPECT_EQ(run.out, "Completion Status: Success\nNumber of Devices: 0\n");

    // One-shot: the next request uses its own record again.
    run = run_command(get_number_devices, "get_number_devices");
    EXPECT_NE(driver.addresses[1], &elsewhere);
    EXPECT_EQ(run.out, "Completion Status: Success\nNumber of Devices: 9\n");
}

TEST_F(AddressOverride, EveryOtherRequestConsumesIt) {
    // Large enough for any record a driver reply is copied into.
    alignas(8) static uint8_t elsewhere[sizeof(DeviceStateRecord)];
    std::vector<void*> addresses;
    ScopedFakeIoctl fake([&](int, unsigned long, void* record) {
        addresses.push_back(record);
        return 0;
    });
    const std::pair<Command, const char*> commands[] = {
        {get_adapter_info, "get_adapter_info"},
        {get_device_state, "get_device_state device 0"},
        {set_path, "set_path device 0 path 0 state 1"},
        {set_adapter, "set_adapter adapter 0 state 1"},
        {get_dev_stats, "get_dev_stats device 0"},
        {get_adapter_stats, "get_adapter_stats adapter 0"},
        {set_controller, "set_controller device 0 ctlr 0 action 1"},
    };
    for (const auto& [command, line] : commands) {
        addresses.clear();
        test_context.buffer_override = reinterpret_cast<int64_t>(elsewhere);
        test_context.buffer_override_armed = 1;
        run_command(command, line);
        ASSERT_EQ(addresses.size(), 1u) << line;
        EXPECT_EQ(addresses[0], elsewhere) << line;
        EXPECT_EQ(test_context.buffer_override_armed, 0) << line;
    }
}

TEST_F(AddressOverride, InquiryLeavesItArmedForTheNextRequest) {
    FakeDriver<InquiryRecord> driver;
    driver.reply = sample_inquiry();
    InquiryRecord elsewhere{};
    test_context.buffer_override = reinterpret_cast<int64_t>(&elsewhere);
    test_context.buffer_override_armed = 1;
    CommandRun run = run_command(get_inquiry, "get_inquiry device 1");
    EXPECT_EQ(run.out, kSampleReport);
    EXPECT_EQ(test_context.buffer_override_armed, 1);
    ASSERT_EQ(driver.addresses.size(), 1u);
    EXPECT_NE(driver.addresses[0], &elsewhere);
}

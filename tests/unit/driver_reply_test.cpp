// Each code as the driver commands name it: a device's policy, the state set, a
// refused request's status; a wrong keyword is quoted from that token on (empty
// where one is missing), and the request still goes out.
#include <gtest/gtest.h>

#include "driver/driver.h"
#include "support.h"

namespace {

TEST(DriverReply, NamesEachCode) {
    const char* state = "get_device_state device 0";
    const struct {
        void (*command)(FILE*, const CommandClause&, CommandOutcome&);
        const char* line;
        int32_t status;   // written at offset 0 of the record; all but Success fail the request
        uint32_t policy;  // of a device state, when not 0
        const char* shown;
    } cases[] = {
    {get_device_state, state, 0, 1, "Policy: Round Robin\n"}, {get_device_state, state, 0, 3, "Policy: Failover Only\n"},
    {get_device_state, state, 0, 2, "Policy: Round Robin Sequential\n"},
    {get_device_state, state, 0, 5, "Policy: Optimized Sequential\n"},
    {get_device_state, state, 0, 6, "Policy: Single Path\n"}, {get_device_state, state, 0, 7, "Policy: Reserve Policy\n"},
    {set_path, "set_path device 0 path 1 state 1", 0, 0, "Set Device 0 Path 1 to online\n"},
    {set_adapter, "set_adapter adapter 1 state 1", 0, 0, "Set Adapter 1 to online\n"},
    {get_dev_stats, "get_dev_stats device 9", kStatusDeviceNotFound, 0,
     "tarnwick error getting device statistics: Device Not Found\n"},
    {get_adapter_stats, "get_adapter_stats adapter 9", kStatusInvalidAdapter, 0,
     "tarnwick error getting adapter statistics: Invalid Adapter\n"},
    {set_adapter, "set_adapter adapter 5 state 2", kStatusInvalidAdapter, 0, "Error setting adapter state: Invalid Adapter\n"},
    {set_controller, "set_controller device 0 ctlr 5 action 1", kStatusInvalidParameter, 0, "tarnwick error set controller \n"},
    {set_path, "set_path dev 0 pth 1", kStatusInvalidParameter, 0,
     "set path, invalid statement at (dev 0 pth 1) set path, invalid statement at (pth 1) "
     "set path, invalid statement at () Error setting path state: Invalid Parameter\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Statement statement(std::string("command ") + c.line);
        CapturedStream out;
        CommandOutcome outcome{};
        ScopedFakeIoctl fake([&](int, unsigned long, void* record) {
            *static_cast<int32_t*>(record) = c.status;
            if (c.policy) static_cast<DeviceStateRecord*>(record)->policy = c.policy;
            return c.status == kStatusSuccess ? 0 : -1;
        });
        c.command(out.stream, statement.clause(), outcome);
        EXPECT_NE(out.text().find(c.shown), std::string::npos) << out.text();
    }
    test_context.result_code = 0;  // the wrong keywords marked the run as failed
}

}  // namespace

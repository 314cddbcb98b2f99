// Hostile driver replies: counts beyond the record, unknown codes and unterminated names stay
// inside their records and fields.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "driver/driver.h"
#include "support.h"

TEST(HostileReply, StaysInsideTheRecord) {
    const struct {
        const char* name;
        void (*command)(FILE*, const CommandClause&, CommandOutcome&);
        const char* line;
        void (*reply)(void* record);  // written over the record the driver was handed
        std::vector<std::string> shown, absent;
    } cases[] = {
    {"negative adapter count lists nothing", get_adapter_info, "get_adapter_info",
     [](void* r) { static_cast<AdapterInfoRecord*>(r)->entry_count = -1; },
     {"Number of adapter entries: -1\n"}, {"Adapter 0:"}},
    {"adapter count past the record stops at its last slot", get_adapter_info, "get_adapter_info",
     [](void* r) { static_cast<AdapterInfoRecord*>(r)->entry_count = INT32_MAX; },
     {"Adapter 31: \t"}, {"Adapter 32:"}},
    {"unknown adapter codes and an unterminated name", get_adapter_info, "get_adapter_info",
     [](void* r) {
         auto& a = *static_cast<AdapterInfoRecord*>(r);
         a.entry_count = 1, a.entries[0].state = 3, a.entries[0].mode = ~0u, a.entries[1].state = 0x41414141;
         std::memset(a.entries[0].name, 'Z', sizeof a.entries[0].name);
     },
     {"Adapter 0: " + std::string(16, 'Z') + "\tState: Error!!! Unexpected Value (3)\t    Mode: Error!!! Unexpected Value (4294967295)\n"}, {}},
    {"path count of all ones", get_device_state, "get_device_state device 0",
     [](void* r) { static_cast<DeviceStateRecord*>(r)->path_count = 0xFFFFFFFFu; },
     {"Path Count: -1 \t", "Path 31: Adapter 0 ()"}, {"Path 32:"}},
    {"a record of 'A's: unterminated names, unknown codes, huge count", get_device_state, "get_device_state device 0",
     [](void* r) { std::memset(r, 'A', sizeof(DeviceStateRecord)), static_cast<DeviceStateRecord*>(r)->status = 0; },
     {"Device:\t\t" + std::string(15, 'A') + " \n", "Serial Number:\t" + std::string(33, 'A') + "\n",
      "Device Type:\t" + std::string(8, 'A') + "\n\n", "Path Selection Policy: Error!!! Unexpected Value (1094795585)\n",
      "(" + std::string(17, 'A') + ")\tPath Name: " + std::string(15, 'A') + "\n",
      "\tState: Error!!! Unexpected Value (1094795585)\t\tMode: Error!!! Unexpected Value (1094795585)\n", "Path 31:"},
     {"Path 32:"}},
    {"counters of all ones fill their fields", get_dev_stats, "get_dev_stats device 0",
     [](void* r) { auto& s = *static_cast<DeviceStatsRecord*>(r); std::memset(&s.io, 0xFF, sizeof s.io), s.status = INT32_MIN; },
     {"Completion Status: Error!!! Unexpected Value (-2147483648)\n",
      "I/O:            4294967295   4294967295   4294967295    42949672954294967295\n"}, {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Statement statement(std::string("command ") + c.line);
        CapturedStream out;
        CommandOutcome outcome{};
        ScopedFakeIoctl fake([&](int, unsigned long, void* record) { return c.reply(record), 0; });
        c.command(out.stream, statement.clause(), outcome);
        for (const std::string& s : c.shown) EXPECT_NE(out.text().find(s), std::string::npos) << s << "\nin:\n" << out.text();
        for (const std::string& s : c.absent) EXPECT_EQ(out.text().find(s), std::string::npos) << s;
    }
}

// The simulator's own state: a topology file with nonsense is refused with
// its line, corrupt state is rebuilt rather than trusted (concurrent updates:
// depth_test). What the driver answers is proved by the golden cases.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <filesystem>
#include <string>

#include "driver.h"

namespace vpathsim {
namespace {

std::string repeat(const std::string& text, int times) { return times > 0 ? text + repeat(text, times - 1) : ""; }

TEST(Config, NonsenseIsRefusedWithItsLine) {
    const std::string ad = "adapter a\ndevice", size = "line 2: bad size (a multiple of 512, K/M/G allowed)";
    const std::pair<std::string, std::string> cases[] = {
        {"", "no device declared"}, {ad + "\n", "device 0 has no path"},
        {"path p adapter=0\n", "line 1: path before any device"},
        {ad + "\npath p adapter=1\n", "line 3: path names an adapter that is not declared"},
        {ad + "\npath p\n", "line 3: path needs a name and adapter=N"},
        {"adapter\n", "line 1: adapter needs a name"}, {"adapter a b\n", "line 1: unexpected 'b'"},
        {ad + " size=0\n", size}, {ad + " size=99999999999999999999G\n", size},
        {ad + " policy=0\n", "line 2: policy must be 1 to 7"}, {ad + " devtype=256\n", "line 2: devtype must be 0 to 255"},
        {ad + " colour=red\n", "line 2: unknown device key 'colour'"},
        {ad + " serial\n", "line 2: expected key=value, got 'serial'"}, {"disk 0\n", "line 1: unknown keyword 'disk'"},
        {repeat("adapter a\n", kMaxAdapterEntries + 1), "line 33: too many adapters"},
        {ad + "\n" + repeat("path p adapter=0\n", kMaxPathEntries + 1), "line 35: too many paths"},
        {"adapter a\n" + repeat("device\npath p adapter=0\n", kMaxDevices + 1), "line 34: too many devices"},
    };
    for (const auto& [text, expected] : cases) {
        Topology topology = default_topology();
        std::string error;
        EXPECT_FALSE(parse_config(text, &topology, &error)) << text;
        EXPECT_EQ(error, expected) << text;
        EXPECT_EQ(topology.device_count, 2) << "left untouched: " << text;
    }
}

class State : public ::testing::Test {
protected:
    void TearDown() override { std::filesystem::remove_all(dir_); }
    Sim& attach(Sim& sim) {
        std::string error;
        EXPECT_TRUE(sim.attach(dir_, "", &error)) << error;
        return sim;
    }
    char pattern_[26] = "/tmp/vpathsim-test.XXXXXX";
    std::string dir_ = mkdtemp(pattern_);
};

// Each hostile value in a loaded state (an unterminated name, a count later
// used as a bound, a fault naming what the topology lacks) makes it start
// over, the offline path coming back, instead of being trusted.
TEST_F(State, CorruptStateIsRebuilt) {
    const std::function<void(Sim&)> corruptions[] = {
        [](Sim& s) { std::memset(s.state()->topology.adapter_names[1], 'x', 16); },
        [](Sim& s) { s.state()->topology.device_count = 1 << 30; },
        [](Sim& s) { s.state()->trace.used = kTraceTableSize + 1; },
        [](Sim& s) { s.state()->trace.used = 2, s.state()->trace.entries = 1; },  // std::clamp(oldest, 3, 2)
        [](Sim& s) { s.state()->trace.used = 30, s.state()->trace.last_offset = 31; },
        [](Sim& s) { s.state()->devices[1].last_path = INT32_MAX; },
        [](Sim& s) { s.state()->devices[0].last_path = -1; },
        [](Sim& s) {
            std::string error;
            EXPECT_TRUE(s.arm({kFaultFailPath, 1, 0, 0, 9, false}, &error)) << error;
            s.state()->faults.scheduled[0].target = 4;  // vpath1 has paths 0 to 3
        },
    };
    for (const auto& corrupt : corruptions) {
        Sim sim;
        SetPathRecord offline{-1, 0, 0, 2};
        ASSERT_EQ(attach(sim).request(DD_SET_PATH, &offline), 0);
        corrupt(sim);
        Sim other;
        EXPECT_EQ(attach(other).state()->devices[0].paths[0].offline, 0);
        EXPECT_EQ(other.state()->trace.used, 0u);
        EXPECT_EQ(other.state()->faults.scheduled_count, 0);
        EXPECT_STREQ(other.state()->topology.adapter_names[1], "scsi1");
    }
}

// A state file cut short under a running program: requests fail with EIO
// instead of the mapping raising SIGBUS, and work again once it is whole.
TEST_F(State, CutShortFailsRequestsWithEio) {
    Sim sim;
    attach(sim);
    ASSERT_EQ(truncate((dir_ + "/state").c_str(), 100), 0);
    DeviceCountRecord count{};
    errno = 0;
    EXPECT_EQ(sim.request(DD_GET_NUMBER_DEVICES, &count), -1);
    EXPECT_EQ(errno, EIO);
    errno = 0;
    EXPECT_EQ(sim.transfer(0, true, 0, 512, [] { return ssize_t{512}; }), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(sim.lost());
    ASSERT_EQ(truncate((dir_ + "/state").c_str(), sizeof(SharedState)), 0);
    EXPECT_EQ(sim.request(DD_GET_NUMBER_DEVICES, &count), 0);
    EXPECT_FALSE(sim.lost());
}

}  // namespace
}  // namespace vpathsim

// A topology file with nonsense is refused with its line; corrupt state is
// refused rather than trusted (concurrent updates: depth_test).
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
    const std::string ad = "adapter a\ndevice", size = "line 2: bad size (a multiple of 512 up to 8T, K/M/G/T allowed)";
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

// Each hostile value (an unterminated name, a count later used as a bound,
// a fault naming what the topology lacks) is refused with the file and the
// field, by a program attaching and by one already attached (EIO).
TEST_F(State, CorruptStateIsRefused) {
    using S = SharedState;
    using Corruption = std::pair<std::function<void(S&)>, std::string>;
    const Corruption corruptions[] = {
        {[](S& s) { std::memset(s.topology.adapter_names[1], 'x', 16); }, "topology.adapter_names: adapter 1 name unterminated"},
        {[](S& s) { s.topology.device_count = 1 << 30; }, "topology.device_count: 1073741824 is outside 1 to 16"},
        {[](S& s) { s.trace.used = kTraceTableSize; }, "trace: entry at offset 0 has no length"},
        {[](S& s) { s.trace.used = kTraceTableSize + 1; }, "trace: used 65537 of 65536 bytes"},
        {[](S& s) { s.trace.entries = 1; }, "trace: entries 1, but the table holds 0"},
        {[](S& s) { std::memcpy(s.trace.bytes, "FD", 2), s.trace.used = 3; }, "trace: entry at offset 0 has a bad length 253"},
        {[](S& s) { std::memcpy(s.trace.bytes, "03", 3), s.trace.used = 3; }, "trace: entries 0, but the table holds 1"},
        {[](S& s) { s.devices[1].last_path = INT32_MAX; }, "devices.last_path: device 1: 2147483647 is outside 0 to 3"},
        {[](S& s) { s.injected_count = -1; }, "injected: count -1 is outside 0 to 64"},
        {[](S& s) { s.topology.devices[0].size = 1000; }, "topology.devices: device 0: size 1000 is no whole number of sectors"},
        {[](S& s) { s.faults.scheduled_count = 1, s.faults.scheduled[0] = {kFaultFailPath, 0, {}, 1, 4, 0, 9, 9}; },
         "faults: a scheduled fault names what the topology lacks"},
        {[](S& s) { s.version = 1; }, "version: 1, this vpathsim keeps " + std::to_string(kStateVersion)},
    };
    for (const auto& [corrupt, field] : corruptions) {
        Sim sim, other;
        corrupt(*attach(sim).state());
        std::string error;
        EXPECT_FALSE(other.attach(dir_, "", &error));
        EXPECT_EQ(error, dir_ + "/state: " + field + " (vpathsim init starts it over)");
        DeviceCountRecord count{};
        errno = 0;
        EXPECT_EQ(sim.request(DD_GET_NUMBER_DEVICES, &count), -1);
        EXPECT_EQ(errno, EIO);
        std::filesystem::remove(dir_ + "/state");
    }
}

}  // namespace
}  // namespace vpathsim

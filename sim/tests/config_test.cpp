// Topology descriptions: nonsense is refused with the offending line
// instead of a half-built topology. What a good file gives is shown by the
// golden cases.
#include <gtest/gtest.h>

#include <string>

#include "driver.h"

namespace vpathsim {
namespace {

TEST(ConfigTest, NonsenseIsRefusedWithItsLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "no device declared"},
        {"adapter a\ndevice\n", "device 0 has no path"},
        {"path p adapter=0\n", "line 1: path before any device"},
        {"adapter a\ndevice\npath p adapter=1\n", "line 3: path names an adapter that is not declared"},
        {"adapter a\ndevice\npath p adapter=-1\n", "line 3: path names an adapter that is not declared"},
        {"adapter a\ndevice\npath p\n", "line 3: path needs a name and adapter=N"},
        {"adapter\n", "line 1: adapter needs a name"},
        {"adapter a b\n", "line 1: unexpected 'b'"},
        {"adapter a\ndevice size=0\n", "line 2: bad size (a multiple of 512, K/M/G allowed)"},
        {"adapter a\ndevice size=-512\n", "line 2: bad size (a multiple of 512, K/M/G allowed)"},
        {"adapter a\ndevice size=99999999999999999999G\n", "line 2: bad size (a multiple of 512, K/M/G allowed)"},
        {"adapter a\ndevice size=2T\n", "line 2: bad size (a multiple of 512, K/M/G allowed)"},
        {"adapter a\ndevice policy=0\n", "line 2: policy must be 1 to 7"},
        {"adapter a\ndevice devtype=256\n", "line 2: devtype must be 0 to 255"},
        {"adapter a\ndevice colour=red\n", "line 2: unknown device key 'colour'"},
        {"adapter a\ndevice serial\n", "line 2: expected key=value, got 'serial'"},
        {"disk 0\n", "line 1: unknown keyword 'disk'"},
    };
    for (const auto& [text, expected] : cases) {
        Topology topology = default_topology();
        std::string error;
        EXPECT_FALSE(parse_config(text, &topology, &error)) << text;
        EXPECT_EQ(error, expected) << text;
        EXPECT_EQ(topology.device_count, 2) << "left untouched: " << text;
    }
}

TEST(ConfigTest, LimitsAreEnforced) {
    std::string text;
    for (int a = 0; a < kMaxAdapters + 1; ++a) text += "adapter a" + std::to_string(a) + "\n";
    Topology topology{};
    std::string error;
    EXPECT_FALSE(parse_config(text, &topology, &error));
    EXPECT_EQ(error, "line 33: too many adapters");

    text = "adapter a\ndevice\n";
    for (int p = 0; p < kMaxPaths + 1; ++p) text += "path p adapter=0\n";
    EXPECT_FALSE(parse_config(text, &topology, &error));
    EXPECT_EQ(error, "line 35: too many paths");

    text = "adapter a\n";
    for (int d = 0; d < kMaxDevices + 1; ++d) text += "device\npath p adapter=0\n";
    EXPECT_FALSE(parse_config(text, &topology, &error));
    EXPECT_EQ(error, "line 34: too many devices");
}

}  // namespace
}  // namespace vpathsim

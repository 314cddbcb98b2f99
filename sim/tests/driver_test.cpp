// The shared driver state: processes updating it at once lose nothing, and
// a corrupt state file is rebuilt rather than trusted. What the driver
// answers is proved by the golden cases run under the simulator.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "driver.h"

namespace vpathsim {
namespace {

class DriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/vpathsim-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        std::string error;
        ASSERT_TRUE(sim_.attach(dir_, "", &error)) << error;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    int set_path(int device, int path, int state, int32_t* status) {
        SetPathRecord record{-1, device, path, state};
        int rc = sim_.request(kSetPath, &record);
        *status = record.status;
        return rc;
    }

    std::string dir_;
    Sim sim_;
};

TEST_F(DriverTest, ConcurrentProcessesLoseNoCounts) {
    pid_t children[2];
    for (pid_t& child : children) {
        child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            Sim own;
            std::string error;
            if (!own.attach(dir_, "", &error)) _exit(1);
            for (int i = 0; i < 300; ++i) own.transfer(1, i % 2, 0, 512, [] { return ssize_t{512}; });
            _exit(0);
        }
    }
    for (pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    DeviceStatsRecord stats{};
    stats.device = 1;
    ASSERT_EQ(sim_.request(kGetDevStats, &stats), 0);
    EXPECT_EQ(stats.io.total_read, 300u);
    EXPECT_EQ(stats.io.total_write, 300u);
}

TEST_F(DriverTest, CorruptStateIsRebuilt) {
    {
        // An adapter name without its terminating NUL.
        Sim other;
        std::string error;
        ASSERT_TRUE(other.attach(dir_, "", &error));
        std::memset(other.state()->topology.adapter_names[1], 'x', 16);
        int32_t status = 0;
        ASSERT_EQ(set_path(0, 0, 2, &status), 0);
    }
    {
        Sim other;
        std::string error;
        ASSERT_TRUE(other.attach(dir_, "", &error));
        EXPECT_STREQ(other.state()->topology.adapter_names[1], "scsi1");
        EXPECT_EQ(other.state()->devices[0].paths[0].offline, 0);  // started over
    }
    {
        FILE* f = std::fopen((dir_ + "/state").c_str(), "r+");
        ASSERT_NE(f, nullptr);
        std::fseek(f, 16, SEEK_SET);
        int32_t hostile = 1 << 30;  // device count
        std::fwrite(&hostile, sizeof hostile, 1, f);
        std::fclose(f);
    }
    Sim other;
    std::string error;
    ASSERT_TRUE(other.attach(dir_, "", &error)) << error;
    DeviceCountRecord count{};
    ASSERT_EQ(other.request(kGetNumberDevices, &count), 0);
    EXPECT_EQ(count.count, 2);
}

}  // namespace
}  // namespace vpathsim

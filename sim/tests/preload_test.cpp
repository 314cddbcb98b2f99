// The interposer as a program sees it: a sanitized probe makes raw calls on
// /dev/vpathN under LD_PRELOAD, the way the tool does.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "driver.h"

namespace vpathsim {
namespace {

class PreloadTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/vpathsim-preload.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string probe(const std::string& args) {
        std::string command = "VPATHSIM_STATE=" + dir_ + " LD_PRELOAD=" VPATHSIM_PRELOAD_PATH " " VPATHSIM_PROBE_PATH
                              " " + args + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        std::string out;
        char chunk[4096];
        for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
        pclose(pipe);
        return out;
    }

    std::string dir_;
};

TEST_F(PreloadTest, BehavesAsABlockDevice) {
    EXPECT_EQ(probe("open /dev/vpath1 2 write 1024 0x5a seek 512 read 1024 "
                    "seek 0 end write 512 read 512 seek 67108865 seek -1 end read 600 close"),
              "open 0\nwrite 1024\nseek 512\nread 1024\ndata 5a 00\n"  // past the written part: never-written zeros
              "seek 67108864\nwrite -1 ENOSPC\nread 0\nseek -1 EINVAL\nseek 67108863\nread 1\ndata 00 00\n"
              "close 0\n");
}

TEST_F(PreloadTest, DataAndStatePersistAcrossRuns) {
    EXPECT_EQ(probe("open /dev/vpath0 2 seek 4096 write 4096 0x33 ioctl 0x6405 0 1 2"),
              "open 0\nseek 4096\nwrite 4096\nioctl 0\nrecord 0 0 1 2\n");
    EXPECT_EQ(probe("open /dev/vpath0 0 seek 4096 read 4096 ioctl 0x6404 0"),
              "open 0\nseek 4096\nread 4096\ndata 33 33\nioctl 0\nrecord 0 0 0 1952542838\n");  // "vpat"
    Sim sim;
    std::string error;
    ASSERT_TRUE(sim.attach(dir_, "", &error));
    DeviceStatsRecord stats{};
    ASSERT_EQ(sim.request(kGetDevStats, &stats), 0);
    EXPECT_EQ(stats.io.total_read, 1u);
    EXPECT_EQ(stats.io.total_write, 1u);
    EXPECT_EQ(stats.sizes[1], 2u);
    DeviceStateRecord state{};
    ASSERT_EQ(sim.request(kGetDeviceState, &state), 0);
    EXPECT_EQ(state.paths[1].mode, kPathManualOffline);
}

TEST_F(PreloadTest, RefusalsMatchTheKernel) {
    EXPECT_EQ(probe("open /dev/vpath0 -1"), "open -1 EINVAL\n");
    EXPECT_EQ(probe("open /dev/vpath2 2"), "open -1 ENXIO\n");  // not in the topology
    EXPECT_EQ(probe("open /dev/vpath02 2"), "open -1 ENOENT\n");  // no such node at all
    EXPECT_EQ(probe("open /dev/vpath0 0x800 write 512 ioctl 0x6408 ioctl 0x6402 bad-read bad-ioctl 0x6404 "
                    "bad-ioctl 0x6401 close read"),
              "open 0\nwrite -1 EBADF\nioctl -1 ENOTTY\nrecord 0 0 0 0\nioctl 0\nrecord 0 2 0 0\n"
              "read -1 EFAULT\nioctl -1 EFAULT\nioctl -1 EFAULT\nclose 0\nread -1 EBADF\n");
    EXPECT_EQ(probe("open /dev/vpath0 2 bad-write ioctl 0x6404 9"),
              "open 0\nwrite -1 EFAULT\nioctl -1 ENODEV\nrecord 3 9 0 0\n");
}

// Get number of devices answers 0 on a vpath and ENOTTY on any other file.
TEST_F(PreloadTest, CopiesOfADescriptorAreFollowed) {
    EXPECT_EQ(probe("open /dev/vpath0 2 dup ioctl 0x6402 fcntl-dup ioctl 0x6402"),
              "open 0\ndup 0\nioctl 0\nrecord 0 2 0 0\nfcntl-dup 0\nioctl 0\nrecord 0 2 0 0\n");
    for (const char* copy : {"dup2", "dup3"}) {
        EXPECT_EQ(probe(std::string("open /dev/vpath0 2 ") + copy + " /dev/null ioctl 0x6402"),
                  std::string("open 0\n") + copy + " 0\nioctl -1 ENOTTY\nrecord 0 0 0 0\n");
    }
    EXPECT_EQ(probe("open /dev/vpath0 2 close-range open /dev/null 0 ioctl 0x6402"),
              "open 0\nclose-range 0\nopen 0\nioctl -1 ENOTTY\nrecord 0 0 0 0\n");
}

// A state file cut short under a running program fails its requests with
// EIO and a message, where touching the mapping would raise SIGBUS.
TEST_F(PreloadTest, StateCutShortFailsWithEio) {
    EXPECT_EQ(probe("open /dev/vpath0 2 system 'truncate -s 0 \"$VPATHSIM_STATE\"/state' read 512 ioctl 0x6402"),
              "open 0\nsystem 0\nvpathsim: " + dir_ +
                  "/state was cut short while in use; requests fail with EIO\nread -1 EIO\nioctl -1 EIO\n"
                  "record 0 0 0 0\n");
}

// O_DIRECT (0x4000) and O_DSYNC (0x1000) open; a direct transfer off a
// 512-byte boundary is refused before it reaches a path, except a read at
// the end, which the kernel answers with 0 before it looks. The block
// layer's size requests answer on any descriptor.
TEST_F(PreloadTest, DirectTransfersAndBlockSizeRequests) {
    EXPECT_EQ(probe("open /dev/vpath0 0x5002 write 100 seek 100 write 512 read 512 seek 512 write 1024 seek 0 read 1536 "
                    "seek 67108352 read 1000 read 100 ioctl 0x80081272 ioctl 0x1268 bad-ioctl 0x1268"),
              "open 0\nwrite -1 EINVAL\nseek 100\nwrite -1 EINVAL\nread -1 EINVAL\nseek 512\nwrite 1024\n"
              "seek 0\nread 1536\ndata 00 5a\nseek 67108352\nread 512\ndata 00 00\nread 0\n"
              "ioctl 0\nrecord 67108864 0 0 0\nioctl 0\nrecord 512 0 0 0\nioctl -1 EFAULT\n");
    Sim sim;
    std::string error;
    ASSERT_TRUE(sim.attach(dir_, "", &error));
    DeviceStatsRecord stats{};
    ASSERT_EQ(sim.request(kGetDevStats, &stats), 0);
    EXPECT_EQ(stats.io.total_write, 1u);  // the refused transfers used no path
    EXPECT_EQ(stats.io.total_read, 2u);
}

TEST_F(PreloadTest, FaultsReachTheProgramAndChildrenAreUnharmed) {
    Sim sim;
    std::string error;
    ASSERT_TRUE(sim.attach(dir_, "", &error));
    ASSERT_TRUE(sim.inject_eio(0, 3));
    EXPECT_EQ(probe("open /dev/vpath0 2 read 1536 read 512 seek 2048 write 512"),
              "open 0\nread 1536\ndata 00 00\nread -1 EIO\nseek 2048\nwrite 512\n");
    ASSERT_TRUE(sim.fail_adapter(0));
    ASSERT_TRUE(sim.fail_adapter(1));
    EXPECT_EQ(probe("open /dev/vpath1 2 read 512 system 'echo child; cat /dev/null' read 0"),
              "open 0\nread -1 EIO\nchild\nsystem 0\nread 0\n");
    AdapterInfoRecord info{};
    ASSERT_EQ(sim.request(kGetAdapterInfo, &info), 0);
    EXPECT_EQ(info.entries[0].state, kAdapterFailed);
    // The medium error counts against the adapter it was tried on; the
    // refused read found no path and counts nowhere.
    EXPECT_EQ(info.entries[0].error_count + info.entries[1].error_count, 1);
}

}  // namespace
}  // namespace vpathsim

// The driver's answers to control requests, path and adapter rules,
// statistics and fault injection, on a private state directory.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <functional>
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

    template <typename Record>
    int send(uint32_t code, Record& record) {
        errno = 0;
        return sim_.request(code, &record);
    }

    // A transfer as the preload library would run it, without the image.
    ssize_t io(int device, bool write, uint64_t position, size_t length) {
        return sim_.transfer(device, write, position, length, [&] { return static_cast<ssize_t>(length); });
    }

    int set_path(int device, int path, int state, int32_t* status) {
        SetPathRecord record{-1, device, path, state};
        int rc = send(kSetPath, record);
        *status = record.status;
        return rc;
    }

    std::string dir_;
    Sim sim_;
};

TEST_F(DriverTest, DefaultTopologyAnswersQueries) {
    DeviceCountRecord count{-1, 0};
    ASSERT_EQ(send(kGetNumberDevices, count), 0);
    EXPECT_EQ(count.status, kSuccess);
    EXPECT_EQ(count.count, 2);

    DeviceStateRecord state{};
    state.status = -1;
    state.device = 1;
    ASSERT_EQ(send(kGetDeviceState, state), 0);
    EXPECT_STREQ(state.name, "vpath1");
    EXPECT_EQ(std::string(state.serial, 33), "75022811001" + std::string(22, '\0'));
    EXPECT_EQ(std::string(state.type, 8), "2107900 ");
    EXPECT_EQ(state.policy, 4u);
    EXPECT_EQ(state.path_count, 4u);
    EXPECT_EQ(state.remaining_paths, 4);
    EXPECT_STREQ(state.paths[2].name, "sdg");
    EXPECT_STREQ(state.paths[3].adapter_name, "scsi1");
    EXPECT_EQ(state.paths[3].adapter, 1);
    EXPECT_EQ(state.paths[0].state, kPathOpen);
    EXPECT_EQ(state.paths[0].mode, kPathNormal);

    AdapterInfoRecord adapters{};
    ASSERT_EQ(send(kGetAdapterInfo, adapters), 0);
    EXPECT_EQ(adapters.count, 2);
    EXPECT_STREQ(adapters.entries[1].name, "scsi1");
    EXPECT_EQ(adapters.entries[0].attached_paths, 4);
    EXPECT_EQ(adapters.entries[0].functioning_paths, 4);

    InquiryRecord inquiry{};
    inquiry.device = 0;
    ASSERT_EQ(send(kGetInquiry, inquiry), 0);
    EXPECT_EQ(inquiry.data[0], 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(inquiry.data + 8), 8), "NEWCO   ");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(inquiry.data + 16), 16), "VDISK-2107      ");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(inquiry.data + 32), 4), "1.00");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(inquiry.data + 36), 20), "SIM-VPATH-0000000000");
}

TEST_F(DriverTest, InvalidNumbersFailWithTheirStatus) {
    for (int device : {-1, 2, 1 << 30}) {
        DeviceStateRecord state{};
        state.device = device;
        EXPECT_EQ(send(kGetDeviceState, state), -1);
        EXPECT_EQ(errno, ENODEV);
        EXPECT_EQ(state.status, kDeviceNotFound);
        DeviceStatsRecord stats{};
        stats.device = device;
        EXPECT_EQ(send(kGetDevStats, stats), -1);
        EXPECT_EQ(stats.status, kDeviceNotFound);
        InquiryRecord inquiry{};
        inquiry.device = device;
        EXPECT_EQ(send(kGetInquiry, inquiry), -1);
        EXPECT_EQ(inquiry.status, kDeviceNotFound);
    }
    int32_t status = 0;
    EXPECT_EQ(set_path(0, 4, 2, &status), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(status, kInvalidParameter);
    EXPECT_EQ(set_path(0, 1, 3, &status), -1);
    EXPECT_EQ(status, kInvalidParameter);
    EXPECT_EQ(set_path(7, 0, 2, &status), -1);
    EXPECT_EQ(status, kDeviceNotFound);

    SetAdapterRecord adapter{-1, 2, 2};
    EXPECT_EQ(send(kSetAdapter, adapter), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(adapter.status, kInvalidAdapter);
    AdapterStatsRecord adapter_stats{};
    adapter_stats.adapter = -3;
    EXPECT_EQ(send(kGetAdapterStats, adapter_stats), -1);
    EXPECT_EQ(adapter_stats.status, kInvalidAdapter);

    SetControllerRecord controller{-1, 0, 1, 2};  // two controllers: 0 and 1
    EXPECT_EQ(send(kSetController, controller), -1);
    EXPECT_EQ(controller.status, kInvalidParameter);
    controller = {-1, -1, 3, 0};  // every device, preferred controller 0
    EXPECT_EQ(send(kSetController, controller), 0);
    EXPECT_EQ(controller.status, kSuccess);

    int32_t unknown[4] = {};
    EXPECT_EQ(sim_.request(0x6408, unknown), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(sim_.request(0x46402, unknown), -1);
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(DriverTest, BadRecordAddressesAreEfaultNotCrashes) {
    auto* bad = reinterpret_cast<void*>(0x10);
    for (uint32_t code : {0x6401u, 0x6402u, 0x6403u, 0x6404u, 0x6405u, 0x6406u, 0x6407u, 0x6409u, 0x640au, 0x640du}) {
        errno = 0;
        EXPECT_EQ(sim_.request(code, bad), -1) << std::hex << code;
        EXPECT_EQ(errno, EFAULT) << std::hex << code;
    }
    // A record that is readable but ends on an unmapped page.
    long page = sysconf(_SC_PAGESIZE);
    void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    ASSERT_EQ(munmap(static_cast<char*>(map) + page, page), 0);
    void* straddling = static_cast<char*>(map) + page - 8;
    EXPECT_EQ(sim_.request(kGetDeviceState, straddling), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(sim_.request(kGetNumberDevices, straddling), 0);  // 8 bytes fit
    munmap(map, page);
}

TEST_F(DriverTest, LastFunctioningPathStaysOnline) {
    int32_t status = -1;
    for (int path : {0, 1, 2}) {
        EXPECT_EQ(set_path(0, path, 2, &status), 0);
        EXPECT_EQ(status, kSuccess);
    }
    EXPECT_EQ(set_path(0, 3, 2, &status), 0);
    EXPECT_EQ(status, kLastPath);
    DeviceStateRecord state{};
    state.device = 0;
    ASSERT_EQ(send(kGetDeviceState, state), 0);
    EXPECT_EQ(state.remaining_paths, 1);
    EXPECT_EQ(state.paths[0].state, kPathClosed);
    EXPECT_EQ(state.paths[0].mode, kPathManualOffline);
    EXPECT_EQ(state.paths[3].state, kPathOpen);

    // Adapter 1 carries the last path of vpath0; adapter 0 may go.
    SetAdapterRecord adapter{-1, 1, 2};
    EXPECT_EQ(send(kSetAdapter, adapter), 0);
    EXPECT_EQ(adapter.status, kLastPath);
    adapter = {-1, 0, 2};
    EXPECT_EQ(send(kSetAdapter, adapter), 0);
    EXPECT_EQ(adapter.status, kSuccess);
    AdapterInfoRecord info{};
    ASSERT_EQ(send(kGetAdapterInfo, info), 0);
    EXPECT_EQ(info.entries[0].mode, kAdapterManualOffline);
    EXPECT_EQ(info.entries[0].functioning_paths, 0);
    EXPECT_EQ(info.entries[1].state, kAdapterDegraded);  // sdb offline

    EXPECT_EQ(set_path(0, 0, 1, &status), 0);
    adapter = {-1, 0, 1};
    EXPECT_EQ(send(kSetAdapter, adapter), 0);
    ASSERT_EQ(send(kGetDeviceState, state), 0);
    EXPECT_EQ(state.remaining_paths, 2);
}

TEST_F(DriverTest, StatisticsCountTransfersIntoBuckets) {
    for (size_t length : {1ul, 512ul, 513ul, 4096ul, 16384ul, 65536ul, 65537ul, 262144ul}) {
        EXPECT_EQ(io(0, false, 0, length), static_cast<ssize_t>(length));
    }
    EXPECT_EQ(io(0, true, 1024, 4096), 4096);
    DeviceStatsRecord stats{};
    stats.device = 0;
    ASSERT_EQ(send(kGetDevStats, stats), 0);
    EXPECT_EQ(stats.io.total_read, 8u);
    EXPECT_EQ(stats.io.total_write, 1u);
    EXPECT_EQ(stats.sectors.total_read, 1u + 1 + 2 + 8 + 32 + 128 + 129 + 512);
    EXPECT_EQ(stats.sectors.total_write, 8u);
    EXPECT_EQ(stats.sectors.maximum, 512u);
    uint32_t expected[5] = {2, 3, 1, 1, 2};
    for (int b = 0; b < 5; ++b) EXPECT_EQ(stats.sizes[b], expected[b]) << b;

    // Round robin spreads the nine transfers over both adapters.
    AdapterStatsRecord a0{}, a1{};
    a0.adapter = 0;
    a1.adapter = 1;
    ASSERT_EQ(send(kGetAdapterStats, a0), 0);
    ASSERT_EQ(send(kGetAdapterStats, a1), 0);
    EXPECT_EQ(a0.io.total_read + a0.io.total_write + a1.io.total_read + a1.io.total_write, 9u);
    EXPECT_GT(a0.io.total_read, 0u);
    EXPECT_GT(a1.io.total_read, 0u);
    DeviceStateRecord state{};
    state.device = 0;
    ASSERT_EQ(send(kGetDeviceState, state), 0);
    EXPECT_EQ(state.paths[0].times_used + state.paths[1].times_used + state.paths[2].times_used +
                  state.paths[3].times_used,
              9);
}

TEST_F(DriverTest, FaultsFailIoAndRestoreClearsThem) {
    ASSERT_TRUE(sim_.fail_adapter(0));
    ASSERT_TRUE(sim_.fail_path(1, 1));
    EXPECT_EQ(io(1, false, 0, 512), 512);  // sdh on scsi1 still works
    ASSERT_TRUE(sim_.fail_path(1, 3));
    errno = 0;
    EXPECT_EQ(io(1, false, 0, 512), -1);
    EXPECT_EQ(errno, EIO);
    DeviceStateRecord state{};
    state.device = 1;
    ASSERT_EQ(send(kGetDeviceState, state), 0);
    EXPECT_EQ(state.remaining_paths, 0);
    EXPECT_EQ(state.paths[0].state, kPathDead);

    ASSERT_TRUE(sim_.inject_eio(0, 9));
    sim_.restore();
    ASSERT_TRUE(sim_.inject_eio(0, 9));
    EXPECT_EQ(io(0, false, 0, 9 * 512), 9 * 512);  // sectors 0..8
    EXPECT_EQ(io(0, true, 9 * 512 + 511, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(io(0, false, 8 * 512 + 1, 512), -1);
    EXPECT_EQ(io(1, false, 9 * 512, 512), 512);  // other device unaffected
    EXPECT_FALSE(sim_.inject_eio(0, (64u << 20) / 512));
    EXPECT_FALSE(sim_.fail_path(0, 4));
    EXPECT_FALSE(sim_.fail_adapter(2));
    sim_.restore();
    EXPECT_EQ(io(0, false, 9 * 512, 512), 512);
}

TEST_F(DriverTest, StatePersistsAcrossAttachments) {
    int32_t status = 0;
    ASSERT_EQ(set_path(1, 2, 2, &status), 0);
    ASSERT_TRUE(sim_.fail_adapter(1));
    Sim other;
    std::string error;
    ASSERT_TRUE(other.attach(dir_, "", &error)) << error;
    DeviceStateRecord state{};
    state.device = 1;
    ASSERT_EQ(other.request(kGetDeviceState, &state), 0);
    EXPECT_EQ(state.paths[2].mode, kPathManualOffline);
    EXPECT_EQ(state.paths[1].state, kPathDead);
    EXPECT_EQ(state.remaining_paths, 1);
    EXPECT_EQ(other.device_for_path("/dev/vpath1"), 1);
    for (const char* path : {"/dev/vpath2", "/dev/vpath01", "/dev/vpath", "/dev/vpath-1", "/dev/sda", "/dev/vpath1x"})
        EXPECT_EQ(other.device_for_path(path), -1) << path;
    EXPECT_EQ(std::filesystem::file_size(other.image_path(0)), 64u << 20);
}

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
    ASSERT_EQ(send(kGetDevStats, stats), 0);
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

// Counts later used as bounds: each hostile value makes the loaded state
// start over (the offline path comes back) instead of being trusted.
TEST_F(DriverTest, CountsUsedAsBoundsAreCheckedOnLoad) {
    const std::function<void(SharedState&)> corruptions[] = {
        [](SharedState& s) { s.trace.used = kTraceTableSize + 1; },
        [](SharedState& s) { s.trace.used = 2, s.trace.entries = 1; },  // std::clamp(oldest, 3, 2)
        [](SharedState& s) { s.trace.used = 30, s.trace.last_offset = 31; },
        [](SharedState& s) { s.devices[1].last_path = INT32_MAX; },
        [](SharedState& s) { s.devices[0].last_path = -1; },
    };
    for (const auto& corrupt : corruptions) {
        int32_t status = 0;
        ASSERT_EQ(set_path(0, 0, 2, &status), 0);
        corrupt(*sim_.state());
        Sim other;
        std::string error;
        ASSERT_TRUE(other.attach(dir_, "", &error)) << error;
        EXPECT_EQ(other.state()->devices[0].paths[0].offline, 0);
        EXPECT_EQ(other.state()->trace.used, 0u);
    }
}

// A state file cut short under a running program: requests fail with EIO
// instead of the mapping raising SIGBUS, and work again once it is whole.
TEST_F(DriverTest, StateCutShortFailsRequestsWithEio) {
    ASSERT_EQ(truncate((dir_ + "/state").c_str(), 100), 0);
    DeviceCountRecord count{};
    EXPECT_EQ(send(kGetNumberDevices, count), -1);
    EXPECT_EQ(errno, EIO);
    errno = 0;
    EXPECT_EQ(io(0, true, 0, 512), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(sim_.device_size(0), 0u);
    EXPECT_TRUE(sim_.lost());
    ASSERT_EQ(truncate((dir_ + "/state").c_str(), sizeof(SharedState)), 0);
    EXPECT_EQ(send(kGetNumberDevices, count), 0);
    EXPECT_FALSE(sim_.lost());
}

}  // namespace
}  // namespace vpathsim

namespace vpathsim {
namespace {

// A refused fault leaves the state as it was; a state file whose fault table
// names what the topology lacks is started over rather than obeyed.
TEST_F(DriverTest, BadFaultsAreRefusedAndHostileFaultTablesRebuilt) {
    std::string error;
    ASSERT_TRUE(sim_.arm({kFaultFailPath, 0, 1, 0, 0, false}, &error));
    const struct {
        FaultRequest request;
        const char* error;
    } refused[] = {
        {{kFaultFailPath, 2, 0, 0, 5, false}, "no device vpath2"},
        {{kFaultDropWrites, 0, 4, 0, 0, false}, "no path 4 on vpath0"},
        {{kFaultRestoreAdapter, -1, 2, 0, 5, false}, "no adapter 2"},
        {{kFaultFlakyPath, 0, 1, 3, 5, false}, "path 1 of vpath0 has failed already; restore it first"},
        {{kFaultFlakyPath, 0, 2, 0, 0, false}, "every: K must be 1 or more"},
    };
    SharedState before = *sim_.state();
    for (const auto& bad : refused) {
        EXPECT_FALSE(sim_.arm(bad.request, &error));
        EXPECT_EQ(error, bad.error);
    }
    EXPECT_EQ(std::memcmp(&before, sim_.state(), sizeof before), 0);
    for (int i = 0; i < kMaxScheduled; ++i) ASSERT_TRUE(sim_.arm({kFaultFailPath, 1, 0, 0, 9, false}, &error));
    EXPECT_FALSE(sim_.arm({kFaultFailPath, 1, 0, 0, 9, false}, &error));
    EXPECT_EQ(error, "too many pending faults (at most 32)");

    sim_.state()->faults.scheduled[3].target = 4;  // vpath1 has paths 0 to 3
    Sim other;
    ASSERT_TRUE(other.attach(dir_, "", &error)) << error;
    EXPECT_EQ(other.state()->faults.scheduled_count, 0);
    EXPECT_EQ(other.state()->devices[0].paths[1].failed, 0);
}

}  // namespace
}  // namespace vpathsim

// The simulator's shared state where a transcript cannot reach: a topology
// with nonsense refused with its line, hostile values in a state refused
// rather than trusted, threads and processes at once, timings, dead slots.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

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
    void SetUp() override { ASSERT_TRUE(sim_.attach(dir_, "", &error_)) << error_; }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    void set(long long latency_us, long long delay_ms = 0) {
        ASSERT_TRUE(sim_.set_latency(0, latency_us, &error_)) << error_;
        ASSERT_TRUE(sim_.set_failover_delay(0, delay_ms, &error_)) << error_;
    }
    // Two writes from threads of their own (paths 1 and 2), then the fault.
    std::vector<ssize_t> fly(FaultKind fault) {
        std::vector<ssize_t> results(2);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < results.size(); ++i) {
            threads.emplace_back([&, i] { results[i] = sim_.transfer(0, true, 0, 512, [] { return ssize_t{512}; }); });
            while (sim_.in_flight(0) <= static_cast<int>(i)) std::this_thread::yield();
        }
        EXPECT_TRUE(sim_.arm({fault, 0, 1, 0, 0, false}, &error_)) << error_;
        for (auto& thread : threads) thread.join();
        return results;
    }

    char pattern_[26] = "/tmp/vpathsim-test.XXXXXX";
    std::string dir_ = mkdtemp(pattern_), error_;
    Sim sim_;
};
class Depth : public State {};  // the thread tests, run under ThreadSanitizer too

// Each hostile value (an unterminated name, a count later used as a bound,
// a fault or a request in flight naming what the topology lacks) is refused
// with the file and the field, by a program attaching and by one already
// attached (EIO).
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
        {[](S& s) { s.flight.timing[3].latency_us = kMaxLatencyUs + 1; }, "flight: a request in flight names what the topology lacks, or a timing out of range"},
        {[](S& s) { s.flight.slots[7].state = kSlotStates; }, "flight: a request in flight names what the topology lacks, or a timing out of range"},
        {[](S& s) { s.flight.slots[7] = {kSlotOnPath, 0, 2, 0, 0, 1, 1, 0, 512}; }, "flight: a request in flight names what the topology lacks, or a timing out of range"},  // no vpath2
    };
    for (const auto& [corrupt, field] : corruptions) {
        Sim sim, other;
        ASSERT_TRUE(sim.attach(dir_, "", &error_)) << error_;
        corrupt(*sim.state());
        EXPECT_FALSE(other.attach(dir_, "", &error_));
        EXPECT_EQ(error_, dir_ + "/state: " + field + " (vpathsim init starts it over)");
        DeviceCountRecord count{};
        errno = 0;
        EXPECT_EQ(sim.request(DD_GET_NUMBER_DEVICES, &count), -1);
        EXPECT_EQ(errno, EIO);
        std::filesystem::remove(dir_ + "/state");
    }
}

// flock() alone would let one process's threads in together: every transfer
// of four threads in each of two processes is counted, spread evenly, and
// with a service time they overlap.
TEST_F(Depth, ThreadsAndProcessesLoseNoCounts) {
    const auto work = [](Sim& sim) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < 1000; ++i) sim.transfer(0, false, 0, 512, [] { return ssize_t{512}; });
            });
        for (auto& thread : threads) thread.join();
    };
    for (long long latency : {0, 200}) {
        ASSERT_TRUE(sim_.reset(default_topology(), &error_)) << error_;
        set(latency);
        const pid_t child = fork();
        if (child == 0) {  // no gtest in the child
            Sim own;
            std::string error;
            if (!own.attach(dir_, "", &error)) _exit(1);
            work(own);
            _exit(0);
        }
        work(sim_);
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        DeviceStatsRecord stats{};
        ASSERT_EQ(sim_.request(DD_GET_DEV_STATS, &stats), 0);
        EXPECT_EQ(stats.io.total_read, 8000u);
        EXPECT_EQ(stats.io.active_read, 0u);
        EXPECT_EQ(stats.io.maximum > 1, latency > 0) << stats.io.maximum;
        for (int p = 0; p < 4; ++p) EXPECT_EQ(sim_.state()->devices[0].paths[p].times_used, 2000) << "path " << p;
    }
}

// A request of a failed path waits out the failover delay before its retry;
// with no path left every request in flight fails with EIO.
TEST_F(Depth, FailoverDelayThenRetryOrEio) {
    set(100000, 300);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fly(kFaultFailPath), std::vector<ssize_t>(2, 512));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(sim_.state()->devices[0].paths[1].recovered_errors, 1);
    sim_.restore();
    EXPECT_EQ(fly(kFaultFailDevice), std::vector<ssize_t>(2, -1));
    EXPECT_EQ(sim_.in_flight(0), 0);
}

// A full table of slots left by a process that died mid-transfer is taken
// back.
TEST_F(Depth, TableSurvivesDeadProcesses) {
    pid_t dead = fork();
    if (dead == 0) _exit(0);
    ASSERT_EQ(waitpid(dead, nullptr, 0), dead);
    for (InFlight& slot : sim_.state()->flight.slots) slot = {kSlotOnPath, 1, 0, 0, 0, dead, 1, 0, 512};
    set(1000);
    EXPECT_EQ(sim_.transfer(0, true, 0, 512, [] { return ssize_t{512}; }), 512);
    EXPECT_EQ(sim_.in_flight(0), 0);
}

}  // namespace
}  // namespace vpathsim

// Requests in flight: threads and processes sharing the driver lose no
// counts and spread over the paths; a path failing under requests in
// flight retries, loses or fails them as its fault says; the table of them
// survives processes that die and refuses hostile contents.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "driver.h"

namespace vpathsim {
namespace {

using Clock = std::chrono::steady_clock;

class Depth : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(sim_.attach(dir_, "", &error)) << error;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    void set(long long latency_us, long long delay_ms = 0) {
        std::string error;
        ASSERT_TRUE(sim_.set_latency(0, latency_us, &error)) << error;
        ASSERT_TRUE(sim_.set_failover_delay(0, delay_ms, &error)) << error;
    }
    void arm(FaultKind kind, int path, uint64_t after = 0) {
        std::string error;
        ASSERT_TRUE(sim_.arm({kind, 0, path, 0, after, false}, &error)) << error;
    }
    // Issues one write per entry of `stored` from a thread of its own, each
    // once the ones before are in flight (so they take paths 1, 2, 3, 0, ...
    // in order), calls between() with all of them in flight, and waits.
    std::vector<ssize_t> fly(std::vector<char>& stored, const std::function<void()>& between = [] {}) {
        std::vector<ssize_t> results(stored.size());
        std::vector<std::thread> threads;
        for (size_t i = 0; i < stored.size(); ++i) {
            threads.emplace_back([&, i] {
                results[i] = sim_.transfer(0, true, i * 4096, 4096, [&, i] { return stored[i] = 1, ssize_t{4096}; });
            });
            while (sim_.in_flight(0) < static_cast<int>(i + 1)) std::this_thread::yield();
        }
        between();
        for (auto& thread : threads) thread.join();
        return results;
    }
    DeviceStateRecord device_state() {
        DeviceStateRecord record{};
        EXPECT_EQ(sim_.request(DD_GET_DEVICE_STATE, &record), 0);
        return record;
    }

    char pattern_[26] = "/tmp/vpathsim-test.XXXXXX";
    std::string dir_ = mkdtemp(pattern_);
    Sim sim_;
};

// flock() alone would let the threads of one process in together: every
// transfer of four threads and two processes is counted, round robin spreads
// them evenly, and with a service time they overlap.
TEST_F(Depth, ThreadsAndProcessesLoseNoCounts) {
    for (long long latency : {0, 200}) {
        SCOPED_TRACE(latency);
        std::string error;
        ASSERT_TRUE(sim_.reset(default_topology(), &error)) << error;
        set(latency);
        const auto io = [] { return ssize_t{512}; };
        pid_t children[2];
        for (pid_t& child : children) {
            if ((child = fork()) != 0) continue;
            Sim own;  // no gtest in the child
            if (!own.attach(dir_, "", &error)) _exit(1);
            for (int i = 0; i < 200; ++i) own.transfer(0, true, 0, 512, io);
            _exit(0);
        }
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < 2000; ++i) sim_.transfer(0, false, 0, 512, io);
            });
        for (auto& thread : threads) thread.join();
        for (pid_t child : children) {
            int status = -1;
            EXPECT_EQ(waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
        }
        DeviceStatsRecord stats{};
        ASSERT_EQ(sim_.request(DD_GET_DEV_STATS, &stats), 0);
        EXPECT_EQ(stats.io.total_read, 8000u);
        EXPECT_EQ(stats.io.total_write, 400u);
        EXPECT_EQ(stats.io.active_read + stats.io.active_write, 0u);
        EXPECT_EQ(stats.io.maximum > 1, latency > 0) << stats.io.maximum;
        DeviceStateRecord state = device_state();
        for (int p = 0; p < 4; ++p) EXPECT_EQ(state.paths[p].times_used, 2100) << "path " << p;
    }
}

// A path failing under requests in flight: fail-path retries its request on
// the next path (a recovered error of the failed one, after the failover
// delay), lose-in-flight reports its write done without storing it, and
// with no path left every request fails with EIO.
TEST_F(Depth, FailedPathRetriesLosesOrFails) {
    set(100000);
    std::vector<char> stored(4);
    auto results = fly(stored, [&] { arm(kFaultLoseInFlight, 2); });
    EXPECT_EQ(results, std::vector<ssize_t>(4, 4096));
    EXPECT_EQ(stored, (std::vector<char>{1, 0, 1, 1}));  // the second took path 2
    EXPECT_EQ(sim_.state()->flight.requeued[0][2], 0u);

    sim_.restore();
    set(100000, 300);
    stored.assign(4, 0);
    auto start = Clock::now();
    results = fly(stored, [&] { arm(kFaultFailPath, 1); });  // after the last path 0: paths 1, 2, 3, 0
    auto took = Clock::now() - start;
    EXPECT_EQ(results, std::vector<ssize_t>(4, 4096));
    EXPECT_EQ(stored, std::vector<char>(4, 1));
    EXPECT_EQ(sim_.state()->flight.requeued[0][1], 1u);
    EXPECT_EQ(device_state().paths[1].recovered_errors, 1);
    EXPECT_GE(took, std::chrono::milliseconds(500));  // service, delay, service again

    sim_.restore();
    set(100000);
    stored.assign(3, 0);
    results = fly(stored, [&] { arm(kFaultFailDevice, -1); });
    EXPECT_EQ(results, std::vector<ssize_t>(3, -1));
    EXPECT_EQ(stored, std::vector<char>(3, 0));
    EXPECT_EQ(sim_.in_flight(0), 0);
}

// A fault scheduled by count strikes as the N-th transfer is issued: that
// one goes through on its path, the ones before it still in flight on the
// path meet the fault.
TEST_F(Depth, CountedFaultStrikesAtIssue) {
    set(100000);
    for (int path : {1, 3}) {
        sim_.restore();
        std::vector<char> stored(4);
        arm(kFaultLoseInFlight, path, 3);
        auto last = device_state().last_path_used;
        fly(stored);
        // Issued onto paths last+1, +2, +3, then past the failed one.
        std::vector<char> expected(4, 1);
        if ((last + 1) % 4 == path) expected[0] = 0;
        if ((last + 2) % 4 == path) expected[1] = 0;
        EXPECT_EQ(stored, expected) << "path " << path << " last " << last;
    }
}

// A process that dies with requests in flight leaves their slots taken;
// when the table is full they are taken back instead of the new request
// waiting for ever.
TEST_F(Depth, SlotsOfDeadProcessesAreReclaimed) {
    pid_t dead = fork();
    if (dead == 0) _exit(0);
    ASSERT_EQ(waitpid(dead, nullptr, 0), dead);
    for (InFlight& slot : sim_.state()->flight.slots) slot = {kSlotOnPath, 1, 0, 0, 0, dead, 1, 0, 512};
    EXPECT_EQ(sim_.in_flight(0), kMaxInFlight);
    set(1000);
    EXPECT_EQ(sim_.transfer(0, true, 0, 512, [] { return ssize_t{512}; }), 512);
    EXPECT_EQ(sim_.in_flight(0), 0);
}

// Hostile values in the table or timings make a loaded state start over.
TEST_F(Depth, HostileTableIsRebuilt) {
    const std::function<void(InFlightTable&)> corruptions[] = {
        [](InFlightTable& t) { t.timing[3].latency_us = kMaxLatencyUs + 1; },
        [](InFlightTable& t) { t.timing[0].failover_delay_ms = UINT32_MAX; },
        [](InFlightTable& t) { t.slots[7].state = kSlotStates; },
        [](InFlightTable& t) { t.slots[7] = {kSlotOnPath, 0, 2, 0, 0, 1, 1, 0, 512}; },  // no vpath2
        [](InFlightTable& t) { t.slots[7] = {kSlotRequeue, 0, 0, 4, 0, 1, 1, 0, 512}; },
        [](InFlightTable& t) { t.slots[7] = {kSlotLost, 0, 0, -1, 0, 1, 1, 0, 512}; },
        [](InFlightTable& t) { t.slots[7] = {kSlotTaken, 2, 0, -1, 0, 1, 1, 0, 512}; },
    };
    for (const auto& corrupt : corruptions) {
        set(7);
        corrupt(sim_.state()->flight);
        Sim other;
        std::string error;
        ASSERT_TRUE(other.attach(dir_, "", &error)) << error;
        EXPECT_EQ(other.state()->flight.timing[0].latency_us, 0u);
        EXPECT_EQ(other.in_flight(0), 0);
    }
}

}  // namespace
}  // namespace vpathsim

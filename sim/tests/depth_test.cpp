// Requests in flight where a transcript cannot reach: threads and processes
// at once, timings, the table's dead slots and hostile contents.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "driver.h"

namespace vpathsim {
namespace {

class Depth : public ::testing::Test {
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
// back; hostile values in the table or timings get the state refused.
TEST_F(Depth, TableSurvivesDeadProcessesAndHostileValues) {
    pid_t dead = fork();
    if (dead == 0) _exit(0);
    ASSERT_EQ(waitpid(dead, nullptr, 0), dead);
    for (InFlight& slot : sim_.state()->flight.slots) slot = {kSlotOnPath, 1, 0, 0, 0, dead, 1, 0, 512};
    set(1000);
    EXPECT_EQ(sim_.transfer(0, true, 0, 512, [] { return ssize_t{512}; }), 512);
    EXPECT_EQ(sim_.in_flight(0), 0);
    const std::function<void(InFlightTable&)> corruptions[] = {
        [](InFlightTable& t) { t.timing[3].latency_us = kMaxLatencyUs + 1; },
        [](InFlightTable& t) { t.slots[7].state = kSlotStates; },
        [](InFlightTable& t) { t.slots[7] = {kSlotOnPath, 0, 2, 0, 0, 1, 1, 0, 512}; },  // no vpath2
    };
    for (const auto& corrupt : corruptions) {
        const InFlightTable good = sim_.state()->flight;
        corrupt(sim_.state()->flight);
        Sim other;
        EXPECT_FALSE(other.attach(dir_, "", &error_));
        EXPECT_NE(error_.find("/state: flight: "), std::string::npos) << error_;
        sim_.state()->flight = good;
    }
}

}  // namespace
}  // namespace vpathsim

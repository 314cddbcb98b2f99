// The tool's generator against the C library's srand/rand, value for value:
// records of other runs verify and random sectors repeat only while they
// agree for every seed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "device/generator.h"
#include "device_test_support.h"

namespace {

// The seeds where the seeding arithmetic changes (0, the modulus 2^31 - 1
// and its double, the sign bit) and 3000 more spread over all 32 bits.
std::vector<uint32_t> seeds() {
    std::vector<uint32_t> s = {0u,          1u,          2u,          127773u,     2147483646u, 2147483647u,
                               2147483648u, 2147483649u, 4294967293u, 4294967294u, 4294967295u};
    for (uint32_t i = 0; i < 3000; ++i) s.push_back(i * 1431655u + i * i * 7919u);
    return s;
}

}  // namespace

TEST(Generator, RunningSequenceMatchesTheLibrary) {
    std::vector<int> library(3000);
    std::vector<int> running(3000);
    for (uint32_t seed : seeds()) {
        srand(seed);
        for (int& v : library) v = rand();
        seed_running_sequence(seed);
        for (int& v : running) v = next_running_value();
        ASSERT_EQ(running, library) << "seed " << seed;
    }
}

TEST(Generator, SeededBytesMatchTheLibraryAndLeaveTheRunningSequence) {
    seed_running_sequence(9);
    std::vector<uint8_t> library(kSeededBytes);
    std::vector<uint8_t> seeded(kSeededBytes);
    for (uint32_t seed : seeds()) {
        srand(seed);
        for (uint8_t& v : library) v = static_cast<uint8_t>(rand());
        seeded_low_bytes(seed, seeded.data());
        ASSERT_EQ(seeded, library) << "seed " << seed;
    }
    srand(9);
    EXPECT_EQ(next_running_value(), rand());
}

// Each data command's draws and reseedings, modelled with the library's own
// srand/rand: the running sequence, and so every later random sector, must
// come out as the library would have it.
TEST(Generator, RunningSequenceAfterDataCommandsFollowsTheLibrary) {
    char path[] = "/tmp/tarnwick-generator-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    reset_test_context();
    CapturedStream out;
    auto run = [&out](const std::string& clause) {
        Statement s(clause);
        CommandOutcome outcome{};
        execute_command(s.text.c_str(), out.stream, s.tokens, 0, s.count, outcome);
        return outcome.return_code;
    };
    EXPECT_GE(run(std::string("open ") + path + " RW"), 0);
    block_max = 100;
    seed_running_sequence(2024);
    EXPECT_EQ(run("write records = 3"), 512);
    run("random_read blocks = 2");
    EXPECT_EQ(run("random_write blocks = 2"), 512);
    block_seek = 0;
    EXPECT_EQ(run("read_verify records = 3"), 512);
    run("close");
    unlink(path);
    reset_test_context();

    srand(2024);
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));  // write: one draw, reseed
    for (int r = 0; r < 4; ++r) rand();                                 // random_read: sector, length
    for (int r = 0; r < 2; ++r) {                                       // random_write: sector, pattern
        rand();
        srand(static_cast<unsigned>(rand()));
    }
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));  // read_verify
    std::vector<int> library(3000);
    std::vector<int> running(3000);
    for (int& v : library) v = rand();
    for (int& v : running) v = next_running_value();
    EXPECT_EQ(running, library);
}

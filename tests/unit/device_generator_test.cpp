// The tool's generator against the C library's srand/rand, value for value:
// records of other runs verify and random sectors repeat only while they
// agree for every seed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "device/generator.h"

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

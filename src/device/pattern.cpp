// The record pattern and the random sector: both come from the C library's
// generator behind srand/rand, so records written by one run verify in any
// later run on any glibc system.
#include <cstdlib>
#include <cstring>

#include "context/context.h"
#include "device/device.h"

namespace {
// glibc's rand() is random() on a TYPE_3 state (128 bytes) behind a lock,
// and srand() seeds that state with srandom_r(). The pattern draws from a
// private state of the same type, seeded the same way, so each byte is the
// value srand(sector) followed by rand() would give, without taking the
// lock 252 times a record (that lock was most of a 512-byte write's cost).
// The running sequence itself still goes through rand() and srand().
struct PatternGenerator {
    char state[128]{};
    random_data data{};
    PatternGenerator() { initstate_r(1, state, sizeof state, &data); }
};

random_data& pattern_seeded_with(int64_t sector) {
    static PatternGenerator generator;
    srandom_r(static_cast<uint32_t>(sector), &generator.data);
    return generator.data;
}

uint8_t next_pattern_byte(random_data& data) {
    int32_t value = 0;
    random_r(&data, &value);
    return static_cast<uint8_t>(value);
}
}  // namespace

// One value of the running sequence is drawn before the pattern and seeds
// it afterwards, so the running sequence never goes on from a sector's seed.
void fill_record_pattern(uint8_t* record, int64_t sector) {
    auto saved = static_cast<unsigned>(rand());
    random_data& data = pattern_seeded_with(sector);
    for (int32_t i = kPatternBegin; i < kPatternEnd; ++i) record[i] = next_pattern_byte(data);
    srand(saved);
}

int32_t verify_record_pattern(const uint8_t* record, int64_t sector, uint8_t& expected) {
    auto saved = static_cast<unsigned>(rand());
    random_data& data = pattern_seeded_with(sector);
    int32_t mismatch = -1;
    for (int32_t i = kPatternBegin; i < kPatternEnd; ++i) {
        uint8_t value = next_pattern_byte(data);
        if (record[i] != value) {
            mismatch = i;
            expected = value;
            break;
        }
    }
    srand(saved);
    return mismatch;
}

int64_t random_sector() {
    // Extended precision keeps block_max x r exact before the division.
    long double r = rand();
    return static_cast<int64_t>(static_cast<long double>(block_max) * r / 2147483647.0L);
}

void printable_copy(const uint8_t* source, char* destination, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        destination[i] = source[i] >= 0x20 && source[i] <= 0x7e ? static_cast<char>(source[i]) : '.';
    }
    destination[n < 0 ? 0 : n] = '\0';
}

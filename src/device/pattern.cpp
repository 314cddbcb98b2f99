// The record pattern and the random sector: both are values of the C
// library's srand/rand generator (computed by device/generator), so records
// written by one run verify in any later run on any glibc system.
#include <cstring>

#include "context/context.h"
#include "device/data_commands.h"
#include "device/generator.h"

static_assert(kPatternEnd - kPatternBegin == kSeededBytes);

// One value of the running sequence is drawn before the pattern and seeds
// it afterwards, so the running sequence never goes on from a sector's seed.
void fill_record_pattern(uint8_t* record, int64_t sector) {
    const auto saved = static_cast<uint32_t>(next_running_value());
    seeded_low_bytes(static_cast<uint32_t>(sector), record + kPatternBegin);
    seed_running_sequence(saved);
}

int32_t verify_record_pattern(const uint8_t* record, int64_t sector, uint8_t& expected) {
    const auto saved = static_cast<uint32_t>(next_running_value());
    uint8_t pattern[kSeededBytes];
    seeded_low_bytes(static_cast<uint32_t>(sector), pattern);
    seed_running_sequence(saved);
    if (std::memcmp(record + kPatternBegin, pattern, kSeededBytes) == 0) return -1;
    int32_t i = 0;
    while (record[kPatternBegin + i] == pattern[i]) ++i;
    expected = pattern[i];
    return kPatternBegin + i;
}

int64_t random_sector() {
    // Extended precision keeps block_max x r exact before the division.
    long double r = next_running_value();
    return static_cast<int64_t>(static_cast<long double>(block_max) * r / 2147483647.0L);
}

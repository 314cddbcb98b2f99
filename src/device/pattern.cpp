// The record pattern and the random sector: both come from the C library's
// srand/rand, so records written by one run verify in any later run.
#include <cstdlib>
#include <cstring>

#include "context/context.h"
#include "device/device.h"

namespace {
// Seeds with the sector after saving one draw of the running sequence;
// the returned draw reseeds it once the pattern is done.
unsigned begin_pattern(int64_t sector) {
    auto saved = static_cast<unsigned>(rand());
    srand(static_cast<uint32_t>(sector));
    return saved;
}
}  // namespace

void fill_record_pattern(uint8_t* record, int64_t sector) {
    unsigned saved = begin_pattern(sector);
    for (int32_t i = kPatternBegin; i < kPatternEnd; ++i) record[i] = static_cast<uint8_t>(rand());
    srand(saved);
}

int32_t verify_record_pattern(const uint8_t* record, int64_t sector, uint8_t& expected) {
    unsigned saved = begin_pattern(sector);
    int32_t mismatch = -1;
    for (int32_t i = kPatternBegin; i < kPatternEnd; ++i) {
        auto value = static_cast<uint8_t>(rand());
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

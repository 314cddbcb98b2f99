#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "context/context.h"
#include "device/device.h"

// The pattern is drawn from a private generator; it must stay byte for byte
// what srand(sector) and rand() give, or records of older runs stop verifying.
// Filling and verifying take one draw of the running sequence and reseed it.
TEST(RecordPattern, MatchesSrandAndRandForEverySeedClass) {
    const int64_t sectors[] = {0, 1, 2, 31, 344, 2147483647, 2147483648LL, 4294967295LL, 0x100000005LL,
                               -1, -2147483648LL, 0x7fffffffffffffffLL};
    for (int64_t sector : sectors) {
        srand(static_cast<unsigned>(sector));
        std::vector<uint8_t> expected;
        for (int i = 4; i < 256; ++i) expected.push_back(static_cast<uint8_t>(rand()));
        srand(42);
        unsigned after = static_cast<unsigned>(rand());
        srand(after);
        after = static_cast<unsigned>(rand());
        uint8_t record[256] = {};
        srand(42);
        fill_record_pattern(record, sector);
        EXPECT_EQ(std::vector<uint8_t>(record + 4, record + 256), expected) << sector;
        EXPECT_EQ(record[0], 0) << sector;  // the identifier is not the pattern's
        EXPECT_EQ(static_cast<unsigned>(rand()), after) << sector;
        uint8_t wanted = 0;
        srand(42);
        EXPECT_EQ(verify_record_pattern(record, sector, wanted), -1) << sector;
        EXPECT_EQ(static_cast<unsigned>(rand()), after) << sector;
        record[100] ^= 0xff;
        record[200] ^= 0xff;
        EXPECT_EQ(verify_record_pattern(record, sector, wanted), 100) << sector;
        EXPECT_EQ(wanted, expected[96]) << sector;
    }
}

// `set buffer` refuses an address inside the tool's own writable memory.
// Where that memory lies changes from run to run: no transcript can name it.
TEST(BufferAddress, OwnWritableMemoryIsRefused) {
    int on_stack = 0;
    const uint64_t own = reinterpret_cast<uintptr_t>(&test_context);
    const struct {
        uint64_t address, length;
        bool inside;
    } cases[] = {{own, 1, true},
                 {reinterpret_cast<uintptr_t>(test_context.io_buffer), 1, true},
                 {reinterpret_cast<uintptr_t>(&on_stack), 1, true},
                 {own - 4096, kIoBufferSize, true},  // ends inside
                 {4096, 4096, false},
                 {UINT64_MAX - 10, 100, false}};  // wraps: clamped, nothing mapped there
    for (const auto& c : cases) EXPECT_EQ(address_in_writable_memory(c.address, c.length), c.inside) << c.address;
}

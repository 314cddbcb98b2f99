#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device_test_support.h"

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

// `set buffer` refuses an address inside the tool's own writable memory, and
// the refusal drops an override still armed. Where that memory lies changes
// from run to run, so no transcript can name such an address.
TEST(BufferAddress, OwnWritableMemoryIsRefused) {
    reset_test_context();
    int on_stack = 0;
    struct Case {
        uint64_t address;
        uint64_t length;
        bool inside;
    } cases[] = {
        {reinterpret_cast<uintptr_t>(&test_context), 1, true},
        {reinterpret_cast<uintptr_t>(test_context.io_buffer), 1, true},
        {reinterpret_cast<uintptr_t>(&on_stack), 1, true},
        {reinterpret_cast<uintptr_t>(&test_context) - 4096, kIoBufferSize, true},  // ends inside
        {4096, 4096, false},
        {UINT64_MAX - 10, 100, false},  // wraps: clamped, nothing mapped there
    };
    for (const Case& c : cases) EXPECT_EQ(address_in_writable_memory(c.address, c.length), c.inside) << c.address;

    CapturedStream out;
    for (std::string value : {std::string("4096"), std::to_string(reinterpret_cast<uintptr_t>(&on_stack))}) {
        Statement s("set buffer = " + value);
        EXPECT_EQ(execute_set(s.text.c_str(), out.stream, s.tokens, 1, s.count - 1), 1);
    }
    EXPECT_EQ(test_context.buffer_override_armed, 0);
    EXPECT_EQ(select_buffer(&on_stack), &on_stack);
    char expected[128];
    snprintf(expected, sizeof expected, "The buffer address %lx lies in the tool's own memory, not set.\n",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(&on_stack)));
    EXPECT_EQ(out.text(), expected);
}

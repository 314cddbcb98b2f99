#include <gtest/gtest.h>
#include <linux/fs.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "context/context.h"
#include "device/device.h"
#include "device/generator.h"
#include "device_test_support.h"
#include "fake_ioctl.h"

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
        seed_running_sequence(42);
        fill_record_pattern(record, sector);
        EXPECT_EQ(std::vector<uint8_t>(record + 4, record + 256), expected) << sector;
        EXPECT_EQ(record[0], 0) << sector;  // the identifier is not the pattern's
        EXPECT_EQ(static_cast<unsigned>(next_running_value()), after) << sector;
        uint8_t wanted = 0;
        seed_running_sequence(42);
        EXPECT_EQ(verify_record_pattern(record, sector, wanted), -1) << sector;
        EXPECT_EQ(static_cast<unsigned>(next_running_value()), after) << sector;
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

// What the block layer answers decides the capacity record (big-endian
// highest LBA and block length) and what device_capacity sets; a refused or
// senseless answer fails the command and leaves the variables alone.
TEST(DeviceCapacity, FromTheBlockSizeRequests) {
    constexpr uint64_t kTiB = 1ull << 40;
    const struct {
        int size_errno;
        uint64_t bytes;
        int block_errno, block;
        const char* record;  // hex; "" when the query fails
        int64_t block_max, sector_size;
    } cases[] = {
        {0, 64 << 20, 0, 512, "0001ffff00000200", 131071, 512},
        {0, 64 << 20, 0, 4096, "00003fff00001000", 16383, 4096},
        {0, (64 << 20) + 100, 0, 512, "0001ffff00000200", 131071, 512},  // last block cut short
        {0, kTiB + kTiB / 2, 0, 512, "bfffffff00000200", 2147483647, 512},  // reads negative
        {0, 3 * kTiB, 0, 512, "ffffffff00000200", 2147483647, 512},  // past 32 bits
        {ENOTTY, 0, 0, 512, "", 0, 512},
        {0, 64 << 20, EINVAL, 0, "", 0, 512},
        {0, 511, 0, 512, "", 0, 512},  // less than a block
        {0, 64 << 20, 0, -512, "", 0, 512},
    };
    test_context.device_handle = 3;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.record);
        ScopedFakeIoctl fake([&c](int, unsigned long request, void* record) {
            if (static_cast<uint32_t>(request) == static_cast<uint32_t>(BLKGETSIZE64)) {
                if (c.size_errno != 0) return errno = c.size_errno, -1;
                std::memcpy(record, &c.bytes, sizeof c.bytes);
                return 0;
            }
            if (c.block_errno != 0) return errno = c.block_errno, -1;
            std::memcpy(record, &c.block, sizeof c.block);
            return 0;
        });
        CapturedStream out;
        uint8_t record[8] = {};
        int rc = ps_get_capacity(out.stream, 3, record, sizeof record);
        char hex[17] = "";
        for (int i = 0; rc == 0 && i < 8; ++i) snprintf(hex + 2 * i, 3, "%02x", record[i]);
        EXPECT_STREQ(hex, c.record);
        block_max = 0;
        sector_size = 512;
        Statement s("device_capacity");
        CommandOutcome outcome{};
        execute_command(s.text.c_str(), out.stream, s.tokens, 0, s.count, outcome);
        EXPECT_EQ(outcome.return_code, rc);
        EXPECT_EQ(block_max, c.block_max);
        EXPECT_EQ(sector_size, c.sector_size);
    }
    test_context.device_handle = -1;
}

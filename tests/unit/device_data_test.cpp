#include <gtest/gtest.h>
#include <linux/fs.h>

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <vector>

#include "context/context.h"
#include "support.h"

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
        Statement s("command device_capacity");
        CommandOutcome outcome{};
        execute_command(s.text.c_str(), out.stream, s.tokens, s.command + 1, s.count - s.command - 1, outcome);
        EXPECT_EQ(outcome.return_code, rc);
        EXPECT_EQ(block_max, c.block_max);
        EXPECT_EQ(sector_size, c.sector_size);
    }
    test_context.device_handle = -1;
}

namespace {

// A scratch file opened as the device, with the variables at their start
// values, for what a transcript cannot show: when a signal lands, and
// random sectors too far out to reproduce.
struct ScratchDevice {
    char path[32] = "/tmp/tarnwick-data-XXXXXX";
    ScratchDevice() {
        test_context.device_handle = mkstemp(path);
        sector_size = 512;
        block_count = 1;
        block_seek = 0;
        block_max = 1000;  // every random sector lies inside the file
        EXPECT_EQ(ftruncate(test_context.device_handle, 1001 * 512), 0);
    }
    ~ScratchDevice() {
        close(test_context.device_handle);
        test_context.device_handle = -1;
        unlink(path);
        block_max = 0;
    }
    static void run(const char* clause, FILE* stream, CommandOutcome& outcome) {
        Statement s(std::string("command ") + clause);
        outcome = {};
        execute_command(s.text.c_str(), stream, s.tokens, s.command + 1, s.count - s.command - 1, outcome);
    }
};

// Raises SIGINT as it takes the first record's report line.
ssize_t raise_stop(void*, const char*, size_t size) {
    raise(SIGINT);
    return static_cast<ssize_t>(size);
}

}  // namespace

TEST(StopSignal, EndsEachTransferAtItsRecordBoundary) {
    ScratchDevice device;
    catch_stop_signals();
    FILE* stopping = fopencookie(nullptr, "w", {nullptr, raise_stop, nullptr, nullptr});
    setvbuf(stopping, nullptr, _IONBF, 0);
    for (const char* clause : {"write records = 5", "read records = 5", "read_verify records = 5",
                               "random_write blocks = 5", "random_read blocks = 5"}) {
        stop_signal = 0;
        block_seek = 0;
        const double before = test_context.bytes_transferred;
        CommandOutcome outcome;
        ScratchDevice::run(clause, stopping, outcome);
        EXPECT_EQ(stop_signal, SIGINT) << clause;
        EXPECT_GT(outcome.return_code, 0) << clause;  // random reads move 1 to 10 sectors a record
        EXPECT_EQ(test_context.bytes_transferred - before, outcome.return_code) << clause;
    }
    fclose(stopping);
    signal(SIGINT, SIG_DFL);
    stop_signal = 0;
}

TEST(RandomSector, OffsetBeyond64BitsFailsToSeek) {
    ScratchDevice device;
    block_max = INT64_MAX;
    for (const char* clause : {"random_write blocks = 1", "random_read blocks = 1"}) {
        CapturedStream out;
        CommandOutcome outcome;
        srand(1);  // the first draw lands far above INT64_MAX / 512
        ScratchDevice::run(clause, out.stream, outcome);
        EXPECT_EQ(outcome.return_code, -1) << clause;
        EXPECT_EQ(outcome.error_number, EOVERFLOW) << clause;
        EXPECT_NE(out.text().find("Error seeking to sector "), std::string::npos) << clause;
    }
    EXPECT_EQ(lseek(test_context.device_handle, 0, SEEK_CUR), 0);  // never moved, nothing written
}

TEST(BatchLineCounter, StopsAtInt32Max) {
    test_context.line_number = INT32_MAX - 1;
    EXPECT_TRUE(count_batch_line());
    EXPECT_EQ(test_context.line_number, INT32_MAX);
    EXPECT_FALSE(count_batch_line());
    EXPECT_EQ(test_context.line_number, INT32_MAX);
    test_context.line_number = 0;
}

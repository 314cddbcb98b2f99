#include <gtest/gtest.h>
#include <linux/fs.h>

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <vector>

#include "context/context.h"
#include "device/generator.h"
#include "support.h"

namespace {

// A scratch file opened as the device, with the variables at their start
// values, for what a transcript cannot show.
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
    static int32_t run(const char* clause, FILE* stream, CommandOutcome& outcome) {
        Statement s(std::string("command ") + clause);
        outcome = {};
        execute_command(s.text.c_str(), stream, s.tokens, s.command + 1, s.count - s.command - 1, outcome);
        return outcome.return_code;
    }
};

// Where the seeding arithmetic changes (0, the modulus 2^31 - 1 and its
// double, the sign bit), and 3000 more seeds spread over all 32 bits.
std::vector<uint32_t> seeds() {
    std::vector<uint32_t> s = {0u, 1u, 127773u, 2147483646u, 2147483647u, 2147483648u, 4294967294u, 4294967295u};
    for (uint32_t i = 0; i < 3000; ++i) s.push_back(i * 1431655u + i * i * 7919u);
    return s;
}

std::vector<int> library_values(uint32_t seed, size_t n) {
    srand(seed);
    std::vector<int> v(n);
    for (int& x : v) x = rand();
    return v;
}

}  // namespace

// Records written by any run verify, and random sectors repeat, only while
// the tool's generator gives what the C library's srand/rand give.
TEST(Generator, RunningSequenceAndSeededBytesMatchTheLibrary) {
    std::vector<int> running(3000);
    std::vector<uint8_t> seeded(kSeededBytes);
    for (uint32_t seed : seeds()) {
        seed_running_sequence(seed);
        for (int& v : running) v = next_running_value();
        ASSERT_EQ(running, library_values(seed, running.size())) << seed;
        seeded_low_bytes(seed, seeded.data());
        std::vector<int> library = library_values(seed, kSeededBytes);
        ASSERT_EQ(seeded, std::vector<uint8_t>(library.begin(), library.end())) << seed;
    }
}

// Filling and verifying a record take one draw of the running sequence and
// reseed it with that draw; a mismatch names its first byte.
TEST(RecordPattern, SeededBySectorAndReseededByOneDraw) {
    for (int64_t sector : {0LL, 2147483648LL, 0x100000005LL, -1LL, 0x7fffffffffffffffLL}) {
        std::vector<int> expected = library_values(static_cast<uint32_t>(sector), 252);
        const int after = library_values(static_cast<uint32_t>(library_values(42, 1)[0]), 1)[0];
        uint8_t record[256] = {}, wanted = 0;
        seed_running_sequence(42);
        fill_record_pattern(record, sector);
        for (int i = 4; i < 256; ++i) ASSERT_EQ(record[i], static_cast<uint8_t>(expected[i - 4])) << sector;
        EXPECT_EQ(next_running_value(), after) << sector;
        seed_running_sequence(42);
        EXPECT_EQ(verify_record_pattern(record, sector, wanted), -1) << sector;
        EXPECT_EQ(next_running_value(), after) << sector;
        record[100] ^= 0xff;
        record[200] ^= 0xff;
        EXPECT_EQ(verify_record_pattern(record, sector, wanted), 100) << sector;
        EXPECT_EQ(wanted, static_cast<uint8_t>(expected[96])) << sector;
    }
}

// The data commands' draws modelled with srand/rand: the running sequence
// after them, and so every later random sector, is the library's.
TEST(Generator, RunningSequenceAfterDataCommandsFollowsTheLibrary) {
    ScratchDevice device;
    CapturedStream out;
    CommandOutcome outcome;
    block_max = 100;
    seed_running_sequence(2024);
    EXPECT_EQ(ScratchDevice::run("write records = 3", out.stream, outcome), 512);
    ScratchDevice::run("random_read blocks = 2", out.stream, outcome);
    EXPECT_EQ(ScratchDevice::run("random_write blocks = 2", out.stream, outcome), 512);
    block_seek = 0;
    EXPECT_EQ(ScratchDevice::run("read_verify records = 3", out.stream, outcome), 512);
    srand(2024);
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));  // write: one draw, reseed
    for (int r = 0; r < 4; ++r) rand();                                 // random_read: sector, length
    for (int r = 0; r < 2; ++r) rand(), srand(static_cast<unsigned>(rand()));  // random_write
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));  // read_verify
    for (int r = 0; r < 3000; ++r) ASSERT_EQ(next_running_value(), rand()) << r;
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
        int rc = ps_get_capacity(out.stream, 3, record, sizeof record).value;
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
        seed_running_sequence(1);  // the first draw lands far above INT64_MAX / 512
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

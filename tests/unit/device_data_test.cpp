#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "device_test_support.h"
#include "fake_ioctl.h"

namespace {

struct DataCommands : ::testing::Test {
    CapturedStream out;
    CommandOutcome outcome{};
    char path[32] = "/tmp/tarnwick-data-XXXXXX";

    void SetUp() override {
        fresh_context();
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        ASSERT_EQ(run(std::string("open ") + path + " RW"), 1);
        ASSERT_GE(test_context.device_handle, 0);
        out.take();
    }
    void TearDown() override {
        fresh_context();
        unlink(path);
    }
    int run(const std::string& clause) {
        outcome = {};
        return run_command(clause, out.stream, outcome);
    }
    std::vector<uint8_t> file_bytes() {
        std::vector<uint8_t> bytes(1 << 16);
        int fd = ::open(path, O_RDONLY);
        ssize_t n = ::read(fd, bytes.data(), bytes.size());
        ::close(fd);
        bytes.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
        return bytes;
    }
};

std::vector<uint8_t> expected_pattern(unsigned sector) {
    srand(sector);
    std::vector<uint8_t> bytes;
    for (int i = 4; i < 256; ++i) bytes.push_back(static_cast<uint8_t>(rand()));
    return bytes;
}

}  // namespace

TEST(RecordPattern, SeededBySectorAndReseededByOneDraw) {
    uint8_t record[256] = {};
    srand(42);
    int first = rand();
    int second = rand();
    srand(42);
    fill_record_pattern(record, 0x1'0000'0005);  // low 32 bits seed
    std::vector<uint8_t> pattern = expected_pattern(5);
    EXPECT_EQ(std::vector<uint8_t>(record + 4, record + 256), pattern);
    EXPECT_EQ(record[0], 0);  // identifier bytes untouched
    srand(static_cast<unsigned>(first));
    int after_reseed = rand();
    srand(42);
    fill_record_pattern(record, 5);
    EXPECT_EQ(rand(), after_reseed);
    EXPECT_NE(after_reseed, second);

    uint8_t expected = 0;
    srand(42);
    EXPECT_EQ(verify_record_pattern(record, 5, expected), -1);
    EXPECT_EQ(rand(), after_reseed);  // verification draws exactly as writing does
    record[100] ^= 0xff;
    record[200] ^= 0xff;
    EXPECT_EQ(verify_record_pattern(record, 5, expected), 100);
    EXPECT_EQ(expected, pattern[96]);
}

// The pattern is drawn from a private generator; it must stay byte for byte
// what srand(sector) and rand() give, or records of older runs stop verifying.
TEST(RecordPattern, MatchesSrandAndRandForEverySeedClass) {
    const int64_t sectors[] = {0, 1, 2, 31, 344, 2147483647, 2147483648LL, 4294967295LL, -1, -2147483648LL,
                               0x7fffffffffffffffLL};
    for (int64_t sector : sectors) {
        uint8_t record[256] = {};
        fill_record_pattern(record, sector);
        EXPECT_EQ(std::vector<uint8_t>(record + 4, record + 256), expected_pattern(static_cast<unsigned>(sector)))
            << "sector " << sector;
    }
}

TEST(RandomSector, StaysWithinBlockMax) {
    reset_test_context();
    block_max = 0;
    for (int i = 0; i < 50; ++i) EXPECT_EQ(random_sector(), 0);
    block_max = 100;
    srand(1);
    for (int i = 0; i < 2000; ++i) {
        int64_t s = random_sector();
        EXPECT_GE(s, 0);
        EXPECT_LE(s, 100);
    }
    srand(7);
    long double r = rand();
    srand(7);
    EXPECT_EQ(random_sector(), static_cast<int64_t>(100.0L * r / 2147483647.0L));
}

TEST(PrintableCopy, DotsForNonPrintingBytes) {
    const uint8_t source[] = {0x00, 0x1f, 0x20, 'A', 0x7e, 0x7f, 0x80, 0xff};
    char text[9];
    std::memset(text, 'z', sizeof text);
    printable_copy(source, text, 8);
    EXPECT_STREQ(text, ".. A~...");
    printable_copy(source, text, 0);
    EXPECT_STREQ(text, "");
}

// The transfers' transcripts are proven by the black-box tests; these are
// the malformed and edge statements they do not write.
TEST_F(DataCommands, ShortFormsAndNegativeIdentifier) {
    // Short forms take the defaults without looking at any keyword.
    ASSERT_EQ(run("read records"), 1);
    ASSERT_EQ(run("write records ="), 1);
    ASSERT_EQ(run("random_read blocks ="), 1);
    EXPECT_EQ(test_context.result_code, 0);
    EXPECT_EQ(block_seek, 2);
    out.take();
    if (decimal_value("7", 1) != 7) GTEST_SKIP() << "statement language not built in";
    block_seek = 1;
    ASSERT_EQ(run("write records = 1 dat = -2"), 1);
    EXPECT_EQ(test_context.result_code, -2);
    EXPECT_EQ(out.take().substr(0, 42), "write, invalid statement at (dat = -2) wro");
    EXPECT_EQ(file_bytes()[512], 0xfe);
}

// A stream that raises SIGINT as it takes the first record's report line:
// every data command must then end at that record boundary.
ssize_t raise_stop(void*, const char*, size_t size) {
    raise(SIGINT);
    return static_cast<ssize_t>(size);
}

TEST_F(DataCommands, StopSignalEndsEachTransferAfterItsRecord) {
    catch_stop_signals();
    FILE* stopping = fopencookie(nullptr, "w", {nullptr, raise_stop, nullptr, nullptr});
    ASSERT_NE(stopping, nullptr);
    setvbuf(stopping, nullptr, _IONBF, 0);
    for (const char* clause : {"write records = 5", "read records = 5", "read_verify records = 5",
                               "random_write blocks = 5", "random_read blocks = 5"}) {
        stop_signal = 0;
        block_seek = 0;
        const double before = test_context.bytes_transferred;
        outcome = {};
        run_command(clause, stopping, outcome);
        EXPECT_EQ(stop_signal, SIGINT) << clause;
        EXPECT_EQ(outcome.return_code, 512) << clause;
        EXPECT_EQ(test_context.bytes_transferred - before, 512.0) << clause;
    }
    fclose(stopping);
    signal(SIGINT, SIG_DFL);
    stop_signal = 0;
}

// Random sectors of a huge block_max: an offset beyond 64 bits is a failed
// seek (EOVERFLOW), never a wrapped offset that reaches some other sector.
TEST_F(DataCommands, RandomOffsetBeyond64BitsFailsToSeek) {
    block_max = INT64_MAX;
    for (const char* clause : {"random_write blocks = 1", "random_read blocks = 1"}) {
        srand(1);  // the first draw lands far above INT64_MAX / 512
        run(clause);
        EXPECT_EQ(outcome.return_code, -1) << clause;
        EXPECT_EQ(outcome.error_number, EOVERFLOW) << clause;
        EXPECT_NE(out.take().find("Error seeking to sector "), std::string::npos) << clause;
    }
    EXPECT_TRUE(file_bytes().empty());
}

// What the block layer answers (or refuses with an errno) decides the
// capacity record and what device_capacity makes of it; a refused or
// senseless answer leaves the command failing and the variables alone.
TEST_F(DataCommands, CapacityFromTheBlockSizeRequests) {
    constexpr uint64_t kTiB = 1ull << 40;
    const char* kFailed = "tarnwick error calling ps_get_capacity\n";
    struct Case {
        const char* name;
        int size_errno;  // 0: BLKGETSIZE64 answers bytes
        uint64_t bytes;
        int block_errno;  // 0: BLKSSZGET answers block
        int block;
        const char* record;  // the eight record bytes in hex; "" when the query fails
        const char* output;
        int64_t block_max, sector_size;
    } cases[] = {
        {"64 MiB of 512", 0, 64 << 20, 0, 512, "0001ffff00000200", "\nsector size = 512, highest LBA = 131071 \n\n",
         131071, 512},
        {"4 KiB blocks", 0, 64 << 20, 0, 4096, "00003fff00001000", "\nsector size = 4096, highest LBA = 16383 \n\n",
         16383, 4096},
        {"last block cut short", 0, (64 << 20) + 100, 0, 512, "0001ffff00000200",
         "\nsector size = 512, highest LBA = 131071 \n\n", 131071, 512},
        {"1 TiB, highest fits 31 bits", 0, kTiB, 0, 512, "7fffffff00000200",
         "\nsector size = 512, highest LBA = 2147483647 \n\n", 2147483647, 512},
        {"1.5 TiB reads negative", 0, kTiB + kTiB / 2, 0, 512, "bfffffff00000200",
         "\nsector size = 512, highest LBA = 2147483647 \n\n", 2147483647, 512},
        {"3 TiB past 32 bits", 0, 3 * kTiB, 0, 512, "ffffffff00000200",
         "\nsector size = 512, highest LBA = 2147483647 \n\n", 2147483647, 512},
        {"size refused", ENOTTY, 0, 0, 512, "", kFailed, 0, 512},
        {"block length refused", 0, 64 << 20, EINVAL, 0, "", kFailed, 0, 512},
        {"empty device", 0, 0, 0, 512, "", kFailed, 0, 512},
        {"less than a block", 0, 511, 0, 512, "", kFailed, 0, 512},
        {"block length 0", 0, 64 << 20, 0, 0, "", kFailed, 0, 512},
        {"negative block length", 0, 64 << 20, 0, -512, "", kFailed, 0, 512},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ScopedFakeIoctl fake([&c](int, unsigned long request, void* record) {
            if (static_cast<uint32_t>(request) == static_cast<uint32_t>(BLKGETSIZE64)) {
                if (c.size_errno != 0) return errno = c.size_errno, -1;
                std::memcpy(record, &c.bytes, sizeof c.bytes);
                return 0;
            }
            EXPECT_EQ(static_cast<uint32_t>(request), static_cast<uint32_t>(BLKSSZGET));
            if (c.block_errno != 0) return errno = c.block_errno, -1;
            std::memcpy(record, &c.block, sizeof c.block);
            return 0;
        });
        uint8_t record[8] = {};
        int rc = ps_get_capacity(out.stream, test_context.device_handle, record, sizeof record);
        EXPECT_EQ(rc, *c.record == '\0' ? -1 : 0);
        if (rc == 0) {
            char hex[17];
            for (int i = 0; i < 8; ++i) snprintf(hex + 2 * i, 3, "%02x", record[i]);
            EXPECT_STREQ(hex, c.record);
        }
        block_max = 0;
        sector_size = 512;
        ASSERT_EQ(run("device_capacity"), 1);
        EXPECT_EQ(out.take(), c.output);
        EXPECT_EQ(outcome.return_code, rc);
        EXPECT_EQ(outcome.error_number, 0);
        EXPECT_EQ(block_max, c.block_max);
        EXPECT_EQ(sector_size, c.sector_size);
    }
    uint8_t record[8] = {};
    EXPECT_EQ(ps_get_capacity(out.stream, test_context.device_handle, record, 7), -1);  // record too short
    // A regular file has no block size to ask for: the command fails as ever.
    ASSERT_EQ(run("device_capacity"), 1);
    EXPECT_EQ(out.take(), kFailed);
    EXPECT_EQ(outcome.return_code, -1);
    EXPECT_EQ(block_max, 0);
}

TEST(DisplayBlock, StopsAtTheBufferAndShowsPartialLines) {
    fresh_context();
    CapturedStream out;
    CommandOutcome o{};
    sector_size = 20;  // not a multiple of 16
    test_context.io_buffer[17] = 'A';
    ASSERT_EQ(run_command("display_block", out.stream, o), 1);
    EXPECT_EQ(out.take(),
              "Contents of sector 0 \n"
              " bytes 0000-0015: 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00   (................) \n"
              " bytes 0016-0019: 00 41 00 00 \n"
              "End contents of sector 0 \n");
    sector_size = 512;
    block_count = 1024;  // 512 KiB asked, 256 KiB shown
    ASSERT_EQ(run_command("display_block", out.stream, o), 1);
    std::string text = out.take();
    EXPECT_NE(text.find(" bytes 262128-262143: "), std::string::npos);
    EXPECT_EQ(text.find(" bytes 262144-"), std::string::npos);
    fresh_context();
}

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "device/generator.h"
#include "device_test_support.h"

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
    seed_running_sequence(42);
    fill_record_pattern(record, 0x1'0000'0005);  // low 32 bits seed
    std::vector<uint8_t> pattern = expected_pattern(5);
    EXPECT_EQ(std::vector<uint8_t>(record + 4, record + 256), pattern);
    EXPECT_EQ(record[0], 0);  // identifier bytes untouched
    srand(static_cast<unsigned>(first));
    int after_reseed = rand();
    seed_running_sequence(42);
    fill_record_pattern(record, 5);
    EXPECT_EQ(next_running_value(), after_reseed);
    EXPECT_NE(after_reseed, second);

    uint8_t expected = 0;
    seed_running_sequence(42);
    EXPECT_EQ(verify_record_pattern(record, 5, expected), -1);
    EXPECT_EQ(next_running_value(), after_reseed);  // verification draws exactly as writing does
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
    seed_running_sequence(1);
    for (int i = 0; i < 2000; ++i) {
        int64_t s = random_sector();
        EXPECT_GE(s, 0);
        EXPECT_LE(s, 100);
    }
    srand(7);
    long double r = rand();
    seed_running_sequence(7);
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

// Each command's draws and reseedings, modelled with the library's own
// srand/rand: the running sequence (and so every later random sector) must
// come out as the library would have it.
TEST_F(DataCommands, RunningSequenceAfterDataCommandsFollowsTheLibrary) {
    block_max = 100;
    block_seek = 0;
    seed_running_sequence(2024);
    ASSERT_EQ(run("write records = 3"), 1);
    ASSERT_EQ(run("random_read blocks = 2"), 1);
    ASSERT_EQ(run("random_write blocks = 2"), 1);
    block_seek = 0;
    ASSERT_EQ(run("read_verify records = 3"), 1);
    EXPECT_EQ(outcome.return_code, 512);

    srand(2024);
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));  // write
    for (int r = 0; r < 4; ++r) rand();                                 // random_read: sector, length
    for (int r = 0; r < 2; ++r) {                                       // random_write: sector, pattern
        rand();
        srand(static_cast<unsigned>(rand()));
    }
    for (int r = 0; r < 3; ++r) srand(static_cast<unsigned>(rand()));  // read_verify
    std::vector<int> library(3000);
    std::vector<int> running(3000);
    for (int& v : library) v = rand();
    for (int& v : running) v = next_running_value();
    EXPECT_EQ(running, library);
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

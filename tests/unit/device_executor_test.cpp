#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "device_test_support.h"

namespace {

// Output of the syntax-error line goes to standard output; tests look at the
// result code instead.
struct Executor : ::testing::Test {
    CapturedStream out;
    CommandOutcome outcome{};
    void SetUp() override { fresh_context(); }
    void TearDown() override { fresh_context(); }
    int run(const std::string& clause) {
        outcome = {};
        return run_command(clause, out.stream, outcome);
    }
    void open_null() {
        ASSERT_EQ(run("open /dev/null RW"), 1);
        ASSERT_GE(test_context.device_handle, 0);
        out.take();
    }
};

}  // namespace

// The messages are in the black-box transcripts; the outcome they leave is not.
TEST_F(Executor, ClosedDeviceLeavesTheOutcomeZeroAndDataAlone) {
    for (const char* name : {"read", "read_verify", "write", "random_read", "random_write", "get_inquiry",
                             "device_capacity"}) {
        CommandOutcome o{1, 2, 3, 4, 99};
        EXPECT_EQ(run_command(name, out.stream, o), 1);
        EXPECT_EQ(out.take(), "tarnwick error execute_command device closed\n") << name;
        EXPECT_EQ(o.return_code, 0);
        EXPECT_EQ(o.error_number, 0);
        EXPECT_EQ(o.error_value, 0);
        EXPECT_EQ(o.residual, 0);
        EXPECT_EQ(o.data, 99);  // the executor leaves data alone
    }
}

TEST_F(Executor, OpenModesAndClose) {
    struct Case {
        const char* mode;
        const char* message;
        int access;
    } cases[] = {{"RO", "Open mode: Read only.\n", O_RDONLY},
                 {"RW", "Open mode: Read and wirte.\n", O_RDWR},
                 {"RO+NDELAY", "Open mode: Read only, no delay.\n", O_RDONLY},
                 {"RW+NDELAY", "Open mode:Read and write, no delay.\n", O_RDWR}};
    for (const Case& c : cases) {
        block_max = 77;
        sector_size = 4096;
        EXPECT_EQ(run(std::string("open /dev/null ") + c.mode), 1);
        EXPECT_EQ(out.take(), c.message);
        int fd = test_context.device_handle;
        ASSERT_GE(fd, 0);
        EXPECT_EQ(outcome.return_code, fd);
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, c.access);
        EXPECT_EQ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0, std::string(c.mode).find("NDELAY") != std::string::npos);
        EXPECT_EQ(block_max, 0);
        EXPECT_EQ(sector_size, 512);
        EXPECT_EQ(test_context.open_device[0], '\0');  // not opened by number

        EXPECT_EQ(run("close"), 1);
        EXPECT_EQ(outcome.return_code, 0);
        EXPECT_EQ(test_context.device_handle, -1);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(Executor, FailedOpenCapturesErrno) {
    block_max = 77;
    EXPECT_EQ(run("open /nonexistent/disk RO"), 1);
    EXPECT_EQ(outcome.return_code, -1);
    EXPECT_EQ(outcome.error_number, ENOENT);
    EXPECT_EQ(test_context.device_handle, -1);
    EXPECT_EQ(block_max, 77);  // only a successful open resets it
}

TEST_F(Executor, InvalidModeAndShortStatementsAreNotExecuted) {
    for (const char* clause : {"open x RX", "open /dev/null", "open", "open /dev/null rw", "open /dev/null RWX"}) {
        test_context.result_code = 0;
        EXPECT_EQ(run(clause), 0) << clause;
        EXPECT_EQ(out.take(), "tarnwick error execute_command invalid open flags\n");
        EXPECT_EQ(test_context.result_code, -2);
        EXPECT_EQ(test_context.device_handle, -1);
    }
}

TEST_F(Executor, DollarDIsMatchedOnItsFirstTwoCharacters) {
    test_context.special_file_given = 1;
    snprintf(test_context.special_file, sizeof test_context.special_file, "/dev/zero");
    EXPECT_EQ(run("open $Dxyz RO"), 1);
    EXPECT_EQ(out.take(), "device file (/dev/zero) will be opened \nOpen mode: Read only.\n");
    EXPECT_GE(test_context.device_handle, 0);
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(Executor, DeviceNumbersOpenVpathFiles) {
    test_context.special_file_given = 1;
    snprintf(test_context.special_file, sizeof test_context.special_file, "2");
    EXPECT_EQ(run("open $D RW"), 1);
    EXPECT_STREQ(test_context.open_device, "/dev/vpath2");
    EXPECT_EQ(outcome.error_number, ENOENT);
    // A name that is not all digits leaves the last number's path shown.
    EXPECT_EQ(run("open 12a RO"), 1);
    EXPECT_STREQ(test_context.open_device, "/dev/vpath2");
    EXPECT_EQ(run("open 17 RO"), 1);
    EXPECT_STREQ(test_context.open_device, "/dev/vpath17");
}

TEST_F(Executor, LongestDeviceNamesFitAndLongerAreRefused) {
    std::string name(254, '7');
    EXPECT_EQ(run("open " + name + " RO"), 1);
    EXPECT_EQ(std::string(test_context.open_device), "/dev/vpath" + name);
    EXPECT_EQ(outcome.error_number, ENAMETOOLONG);  // the system's verdict, not a cut name
    std::string too_long = "/" + std::string(300, 'x');
    EXPECT_EQ(run("open " + too_long + " RO"), 1);
    EXPECT_EQ(outcome.return_code, -1);
    EXPECT_EQ(outcome.error_number, ENAMETOOLONG);
}

TEST_F(Executor, TransferSizeIsCheckedForEveryCommand) {
    block_count = 600;
    EXPECT_EQ(run("close"), 1);
    EXPECT_EQ(out.take(),
              "Data transfer size of 307200 exceeds maximum supported 262144 \n"
              "tarnwick error execute_command already closed\n");
    EXPECT_EQ(test_context.result_code, -2);
    test_context.result_code = 0;
    block_count = 512;  // exactly io_buffer
    EXPECT_EQ(run("close"), 1);
    EXPECT_EQ(out.take(), "tarnwick error execute_command already closed\n");
    EXPECT_EQ(test_context.result_code, 0);
    sector_size = 0;
    EXPECT_EQ(run("nosuch"), 1);
    EXPECT_EQ(out.take(), "Data transfer size is 0 \nERROR execute_command unrecognized command (nosuch)\n");
}

TEST_F(Executor, OversizedRecordsAreNeverTransferred) {
    open_null();
    block_count = 1000;
    for (const char* clause : {"read", "read_verify records = 3", "write records = 2"}) {
        int64_t seek = block_seek;
        EXPECT_EQ(run(clause), 1);
        EXPECT_EQ(out.take(), "Data transfer size of 512000 exceeds maximum supported 262144 \n");
        EXPECT_EQ(outcome.return_code, 0);
        EXPECT_EQ(block_seek, seek);
    }
    EXPECT_EQ(test_context.bytes_transferred, 0.0);
    // A size beyond 64 bits is over the limit, never wrapped onto a small
    // (here 0 or negative) size.
    for (int64_t factor : {(INT64_C(1) << 54) + 1, INT64_C(1) << 55}) {
        block_count = factor;
        int64_t seek = block_seek;
        EXPECT_EQ(run("write"), 1);
        EXPECT_EQ(out.take(), "Data transfer size of 9223372036854775807 exceeds maximum supported 262144 \n");
        EXPECT_EQ(outcome.return_code, 0);
        EXPECT_EQ(block_seek, seek);
    }
}

TEST_F(Executor, CloseTracesOnStandardOutputAndAlwaysForgetsTheHandle) {
    open_null();
    close(test_context.device_handle);  // make the close fail
    EXPECT_EQ(run("close"), 1);
    EXPECT_EQ(outcome.return_code, -1);
    EXPECT_EQ(outcome.error_number, EBADF);
    EXPECT_EQ(test_context.device_handle, -1);
}

TEST(DeviceArguments, CountsAndLongs) {
    reset_test_context();
    block_max = 0x1'0000'0007;
    EXPECT_EQ(parse_count("*"), 7);  // low 32 bits
    EXPECT_EQ(parse_count("**"), ('*' - '0') * 10 + ('*' - '0'));
    EXPECT_EQ(parse_count("-12"), -12);
    EXPECT_EQ(parse_count("4294967297"), 1);  // 32-bit wrap
    EXPECT_EQ(parse_count("2147483648"), INT32_MIN);
    EXPECT_EQ(parse_count(""), 0);
    EXPECT_EQ(parse_count("-"), 0);
    EXPECT_EQ(parse_long("*"), '*' - '0');
    EXPECT_EQ(parse_long("4294967297"), 4294967297);
    // 10^23 - 1 wraps modulo 2^64 instead of overflowing.
    EXPECT_EQ(parse_long("99999999999999999999999"), 200376420520689663);
    EXPECT_EQ(parse_long("x"), 'x' - '0');
    EXPECT_TRUE(keyword_matches("recordsXYZ", "records"));
    EXPECT_FALSE(keyword_matches("record", "records"));
    EXPECT_FALSE(keyword_matches("", "data"));
}

TEST(DeviceArguments, ClauseNeverReadsPastItsTokens) {
    Statement s("command read records = 5 result rc == 512");
    CommandClause clause{s.text.c_str(), &s.tokens, 1, 4};
    EXPECT_EQ(clause.token(0), "read");
    EXPECT_EQ(clause.token(3), "5");
    EXPECT_EQ(clause.token(4), "");
    EXPECT_EQ(clause.token(-1), "");
    EXPECT_STREQ(clause.rest(1), "records = 5 result rc == 512");
    EXPECT_STREQ(clause.rest(9), "");
    CommandClause past_list{s.text.c_str(), &s.tokens, 48, 10};
    EXPECT_EQ(past_list.token(2), "");
}

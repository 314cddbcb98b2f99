#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "script_test_support.h"

using DispatcherTest = ScriptTest;

TEST_F(DispatcherTest, ErrnoNameTakesTheFirstMatchingRow) {
    EXPECT_STREQ(errno_name(0), "Successful");
    EXPECT_STREQ(errno_name(13), "EACCES");  // not ENOTREADY, a later row
    EXPECT_STREQ(errno_name(14), "EFAULT");
    EXPECT_STREQ(errno_name(9), "EBADF");
    EXPECT_STREQ(errno_name(17), "EEXIST");
    EXPECT_STREQ(errno_name(-1), "?");  // the end entry is never matched
    EXPECT_STREQ(errno_name(2), "?");
    EXPECT_STREQ(test_context.value_text, "?");
}

TEST_F(DispatcherTest, DecimalValueTakesEveryCharacterAsADigitAndWraps) {
    auto value = [](const char* text) { return decimal_value(text, static_cast<int32_t>(std::strlen(text))); };
    EXPECT_EQ(value("0"), 0);
    EXPECT_EQ(value("1234"), 1234);
    EXPECT_EQ(value("-12"), -12);
    EXPECT_EQ(value(""), 0);
    EXPECT_EQ(value("-"), 0);
    EXPECT_EQ(value("x"), 72);       // 'x' - '0'
    EXPECT_EQ(value("1-"), 10 - 3);  // '-' after the first character is a "digit" of -3
    EXPECT_EQ(value("2147483647"), INT32_MAX);
    EXPECT_EQ(value("2147483648"), INT32_MIN);
    EXPECT_EQ(value("-2147483648"), INT32_MIN);
    EXPECT_EQ(value("4294967297"), 1);
    EXPECT_EQ(value("99999999999999999999999999"), -469762049);
    EXPECT_EQ(decimal_value("123", 2), 12);  // counted, not terminated
    EXPECT_EQ(decimal_value("123", -4), 0);
}


TEST_F(DispatcherTest, ExitSetsItsResultCodeAndTracesEveryPath) {
    test_context.trace = 1;
    process("exit", out.get());
    EXPECT_EQ(test_context.result_code, kResultExit);
    EXPECT_EQ(out.text(),
              "TTRACE: process entered (exit).\nTTRACE: parse entered (exit).\n"
              "TTRACE: parse exit 1.\nTTRACE: process exit.\n");
}

TEST_F(DispatcherTest, SystemTakesTheTextAfterTheKeywordAndOneSeparator) {
    process("system", out.get());
    process("system ", out.get());
    process("a system  true", out.get());
    EXPECT_EQ(out.text(),
              "No command entered, ignored!!!\nNo command entered, ignored!!!\n"
              "system ( true) \ncommand returned rc 0 \n");
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(DispatcherTest, DelayOfZeroOrLessReturnsAtOnceWithItsTraces) {
    test_context.trace = 1;
    execute_delay(out.get(), -3);
    execute_delay(out.get(), INT32_MIN);
    execute_delay(out.get(), 0);
    const std::string pair = "TTRACE: execute_delay entered. \nTTRACE: execute_delay exited. \n";
    EXPECT_EQ(out.text(), pair + pair + pair);
}

TEST_F(DispatcherTest, IfRunsTheGuardedStatementFromTheFifthToken) {
    capture_stdout();
    process("if vendor_id !has X type yes", out.get());
    process("if vendor_id == X type no", out.get());
    process("if vendor_id != X if product_id !has Z type nested", out.get());
    EXPECT_EQ(captured_stdout(), " yes\n nested\n");
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(DispatcherTest, NewlineToBlankStopsAtZeroAndAtTheLength) {
    char buffer[] = "a\nb\n\0\n";
    newline_to_blank(buffer, 3);
    EXPECT_EQ(std::memcmp(buffer, "a b\n\0\n", 6), 0);
    newline_to_blank(buffer, sizeof buffer);
    EXPECT_EQ(std::memcmp(buffer, "a b \0\n", 6), 0);
}

TEST(BatchLineCounter, StopsAtInt32Max) {
    test_context.line_number = INT32_MAX - 1;
    EXPECT_TRUE(count_batch_line());
    EXPECT_EQ(test_context.line_number, INT32_MAX);
    EXPECT_FALSE(count_batch_line());
    EXPECT_EQ(test_context.line_number, INT32_MAX);
    test_context.line_number = 0;
}

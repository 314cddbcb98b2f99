#include <cerrno>
#include <cstring>
#include <string>

#include "device/device.h"
#include "script_test_support.h"

namespace {

class AnalyzeTest : public ScriptTest {
protected:
    // Parses a command line and judges the given outcome against its result
    // clause; standard output is kept in stdout_text.
    int judge(const char* line, CommandOutcome o) {
        Parsed p(line, out.get());
        EXPECT_EQ(p.kind, StatementKind::command) << line;
        int32_t first = 0;
        int32_t count = p.count;
        if (p.result_index >= 0) {
            first = p.result_index + 1;
            count = p.count - first;
        }
        capture_stdout();
        const int verdict = analyze(line, out.get(), p.tokens, first, count, o.return_code, o.error_number,
                                    o.error_value, o.residual, o.data);
        stdout_text = captured_stdout();
        return verdict;
    }
    std::string stdout_text;
};

const char kZeroOutcome[] =
    "analyze return code 0  errno 0 (Successful) \n    error value 0 (Successful) residual 0 data 0\n";

}  // namespace


TEST_F(AnalyzeTest, WithoutResultClauseTheOutcomeIsShownNotJudged) {
    EXPECT_EQ(judge("command read records = 5", {-1, 2, 13, 7, 9}), 1);
    EXPECT_EQ(out.text(),
              "analyze return code -1  errno 2 (?) \n    error value 13 (EACCES) residual 7 data 9\n");
    EXPECT_EQ(test_context.result_code, 0);
}


TEST_F(AnalyzeTest, OutsideABatchRunTheFailureLineHasNoNumber) {
    test_context.trace = 1;
    EXPECT_EQ(judge("command x result data == 12", {0, 0, 0, 0, 11}), 0);
    EXPECT_EQ(stdout_text, "ERROR, test failed!\n");
    const std::string text = out.text();
    EXPECT_NE(text.find("sector identifier not as expected.\n"), std::string::npos);
    EXPECT_NE(text.find("result not as expected\nTTRACE: analyze exit.\n"), std::string::npos);
    EXPECT_EQ(test_context.failed_line, 0);
}


TEST_F(AnalyzeTest, ResidualIsZeroedAfterMinusOne) {
    errno = 0;
    EXPECT_EQ(judge("command x result rc == -1 resid == 0 residual < 1", {-1, 0, 0, 55, 0}), 1);
    EXPECT_EQ(judge("command x result resid == 55", {0, 0, 0, 55, 0}), 1);
}

TEST_F(AnalyzeTest, FieldsMatchByLeadingCharacters) {
    EXPECT_EQ(judge("command x result rcode == 3 error == 22 cc >= 5 resid <= 4 data > 1",
                    {3, 22, 5, 4, 2}),
              1);
    // "error" judges errno, not the error value.
    EXPECT_EQ(judge("command x result error == EINVAL", {0, 0, 22, 0, 0}), 0);
    EXPECT_NE(out.text().find("errno not as expected.\n"), std::string::npos);
}

TEST_F(AnalyzeTest, SymbolicExpectedValues) {
    EXPECT_EQ(judge("command x result errno == E", {0, 1, 0, 0, 0}), 1);  // EPERM, first prefix
    EXPECT_EQ(judge("command x result errno == ENOTREADY", {0, 13, 0, 0, 0}), 1);
    EXPECT_EQ(judge("command x result errno == Succ cc == 22", {0, 0, 22, 0, 0}), 1);
    // rc takes no symbols: EIO is decimal_value of its letters.
    EXPECT_EQ(judge("command x result rc == EIO", {5, 0, 0, 0, 0}), 0);
}

TEST_F(AnalyzeTest, ShortClauseIsASyntaxError) {
    test_context.line_number = 3;
    EXPECT_EQ(judge("command read result rc ==", {0, 0, 0, 0, 0}), 0);
    EXPECT_EQ(out.text(), std::string(kZeroOutcome) + "error analyze insufficent tokens\n");
    EXPECT_EQ(stdout_text, "batch file syntax error, line 3 \n");
    EXPECT_EQ(test_context.result_code, kResultSyntaxError);
}

TEST_F(AnalyzeTest, TrailingTokensShortOfACheckAreIgnored) {
    EXPECT_EQ(judge("command read result rc == 0 errno", {0, 0, 0, 0, 0}), 1);
    EXPECT_EQ(judge("command read result rc == 0 errno ==", {0, 0, 0, 0, 0}), 1);
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(AnalyzeTest, UnknownFieldFailsTheCheckAfterASyntaxError) {
    test_context.line_number = 2;
    EXPECT_EQ(judge("command read result xyz == 1", {0, 0, 0, 0, 0}), 0);
    EXPECT_EQ(out.text(), std::string(kZeroOutcome) +
                              "analyze ERROR unexpected token\nanalyze error ...  result not as expected\n");
    EXPECT_EQ(stdout_text, "batch file syntax error, line 2 \nERROR, test at line 2 failed!\n");
    EXPECT_EQ(test_context.result_code, kResultCheckFailed);
}


TEST_F(AnalyzeTest, RelationsOnTheirFirstTwoCharacters) {
    EXPECT_EQ(as_expected(1, "< 2", 2), 1);
    EXPECT_EQ(as_expected(2, "< 2", 2), 0);
    EXPECT_EQ(as_expected(2, "<= 2", 2), 1);
    EXPECT_EQ(as_expected(3, "<=", 2), 0);
    EXPECT_EQ(as_expected(2, "== 2", 2), 1);
    EXPECT_EQ(as_expected(2, "=== 2", 2), 1);  // only two characters count
    EXPECT_EQ(as_expected(2, "!= 2", 2), 0);
    EXPECT_EQ(as_expected(2, ">= 2", 2), 1);
    EXPECT_EQ(as_expected(3, "> 2", 2), 1);
    EXPECT_EQ(as_expected(INT32_MIN, "< ", INT32_MAX), 1);
    capture_stdout();
    EXPECT_EQ(as_expected(1, ">", 2), -1);  // the terminator is not a blank
    EXPECT_EQ(as_expected(1, "", 2), -1);
    EXPECT_EQ(as_expected(1, "=", 2), -1);
    EXPECT_EQ(captured_stdout(),
              "as_expected, invalid relation (>) \nbatch file syntax error, line 0 \n"
              "as_expected, invalid relation () \nbatch file syntax error, line 0 \n"
              "as_expected, invalid relation (=) \nbatch file syntax error, line 0 \n");
}

TEST_F(AnalyzeTest, SymbolicValueTakesTheFirstRowTheTokenIsAPrefixOf) {
    EXPECT_STREQ(symbolic_value("E", 1), "1");
    EXPECT_STREQ(symbolic_value("EFAULT", 6), "14");
    EXPECT_STREQ(symbolic_value("ENOTREADY", 9), "13");
    EXPECT_STREQ(symbolic_value("EN", 2), "6");       // ENXIO
    EXPECT_STREQ(symbolic_value("EIOX", 4), "EIOX");  // longer than every name
    EXPECT_STREQ(symbolic_value("UNKNOWN", 7), "UNKNOWN");
    EXPECT_STREQ(symbolic_value("EIO == 3", 3), "5");  // counted, not terminated
    EXPECT_STREQ(symbolic_value("", 0), "0");          // the empty prefix of "Successful"
    const std::string long_token(300, '7');
    EXPECT_EQ(std::string(symbolic_value(long_token.c_str(), 300)), std::string(255, '7'));
}

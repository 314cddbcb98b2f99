// Each bad line's transcript lines and standard output, and how the run is
// marked (a syntax error; a failed check wins): a whole run each would repeat
// the same frame, which batch/command_line.case shows once (bad.tw).
#include <gtest/gtest.h>

#include <string>

#include "context/context.h"
#include "support.h"

TEST(SyntaxErrors, EachBadLine) {
    const std::string syntax = "batch file syntax error, line 7 \n";
    const struct { const char* line; std::string transcript, out; int32_t result; } rows[] = {
        {"if vendor_id !has 'B C' exit ", "parse command | result | set found in wrong place\n", syntax,
         kResultSyntaxError},
        {"skip ", "", syntax, kResultSyntaxError},
        {"if vendor_id == ABC ", "Invalid 'if' statement \n", syntax, kResultSyntaxError},
        {"if vendor_id =! ABC type x ", "(=! ABC type x ) is an invalid comparison.\n", syntax, kResultSyntaxError},
        {"xxxxxxxx ", "unrecognized statement.\n", syntax, kResultSyntaxError},
        {"command readx result xyz == 1 rc <\t0 ",
         "ERROR execute_command unrecognized command (command readx result xyz == 1 rc <\t0 )\n"
         "analyze return code 0  errno 0 (Successful) \n    error value 0 (Successful) residual 0 data 0\n"
         "analyze ERROR unexpected token\nanalyze error ...  result not as expected\n",
         syntax + syntax + "as_expected, invalid relation (<\t0 ) \n" + syntax + "ERROR, test at line 7 failed!\n",
         kResultCheckFailed},
    };
    for (const auto& row : rows) {
        test_context.result_code = kResultOk, test_context.line_number = 7;
        CapturedStream transcript;
        testing::internal::CaptureStdout();
        process(row.line, transcript.stream);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out) << row.line;
        EXPECT_EQ(transcript.text(), row.transcript) << row.line;
        EXPECT_EQ(test_context.result_code, row.result) << row.line;
    }
    test_context.result_code = kResultOk, test_context.failed_line = 0;
}

#include <cstring>
#include <string>

#include "script_test_support.h"

namespace {

class IfTest : public ScriptTest {
protected:
    int evaluate(const char* line) {
        Parsed p(line, out.get());
        EXPECT_EQ(p.kind, StatementKind::if_statement) << line;
        capture_stdout();
        const int result = execute_if(line, out.get(), p.tokens, p.count);
        stdout_text = captured_stdout();
        return result;
    }
    static void set_inquiry(std::size_t offset, const char* bytes, std::size_t length) {
        std::memcpy(test_context.inquiry_data + offset, bytes, length);
    }
    std::string stdout_text;
};

}  // namespace


TEST_F(IfTest, EqualityIsAgainstTheBlankPaddedValue) {
    set_inquiry(8, "ABC     ", 8);
    EXPECT_EQ(evaluate("if vendor_id == ABC close"), 1);
    EXPECT_EQ(evaluate("if vendor_id == AB close"), 0);
    EXPECT_EQ(evaluate("if vendor_id != AB close"), 1);
    EXPECT_EQ(evaluate("if vendor_id has AB close"), 1);
    EXPECT_EQ(evaluate("if vendor_id has BC\tclose"), 0);  // only a blank ends a bare value
    EXPECT_EQ(evaluate("if vendor_id == ABCDEFGHI close"), 0);
    EXPECT_EQ(evaluate("if vendor_id != ABCDEFGHI close"), 1);
}

TEST_F(IfTest, ZeroByteEndsTheFieldTextAndIsBlankedWithTheRest) {
    set_inquiry(8, "AB\0Z", 4);
    EXPECT_EQ(evaluate("if vendor_id == AB close"), 1);
    EXPECT_EQ(evaluate("if vendor_id has Z close"), 0);
}


TEST_F(IfTest, QuotedValues) {
    set_inquiry(8, "AB C'D\"E", 8);
    EXPECT_EQ(evaluate("if vendor_id has 'B C' close"), 1);
    EXPECT_EQ(evaluate("if vendor_id has \"B C\" close"), 1);
    EXPECT_EQ(evaluate("if vendor_id has '\"C'D\" close"), 1);
    set_inquiry(8, "ABC     ", 8);
    EXPECT_EQ(evaluate("if vendor_id == 'ABC' command close"), 1);
    // The first character is always taken, even the closing quote.
    EXPECT_EQ(evaluate("if vendor_id has '' close"), 0);
}

TEST_F(IfTest, ValueIsCutToTwentyCharacters) {
    set_inquiry(36, "abcdefghijklmnopqrst", 20);
    EXPECT_EQ(evaluate("if vendor_specific == abcdefghijklmnopqrstuvwxyz close"), 1);
}

TEST_F(IfTest, ValueNeverRunsPastTheLine) {
    // Without a blank the bare value would run on; it stops at the line's end.
    EXPECT_EQ(evaluate("if vendor_id has x\ty\tz"), 0);
    EXPECT_EQ(evaluate("if vendor_id has ' y"), 0);
}

TEST_F(IfTest, TracesShowTheTextsCompared) {
    test_context.trace = 1;
    set_inquiry(8, "ABC", 3);
    EXPECT_EQ(evaluate("if vendor_id == AB close"), 0);
    EXPECT_EQ(out.text(),
              "TTRACE: parse entered (if vendor_id == AB close).\nTTRACE: parse exit 5.\n"
              "TTRACE: execute_if entered. \n"
              "TTRACE: compare (ABC     ) \nTTRACE: length   8  \n"
              "TTRACE: compare to (AB      ) \nTTRACE: length   2  \n"
              "TTRACE: comparison type = 1 \nTTRACE: execute_if exit rc=0 \n");
}

TEST_F(IfTest, MalformedStatements) {
    test_context.line_number = 5;
    struct Case {
        const char* line;
        const char* message;
    };
    const Case cases[] = {
        {"if vendor_id == ABC", "Invalid 'if' statement \n"},
        {"note if vendor_id == X close", ""},
        {"if vendor == X close", "(vendor == X close) is an invalid variable name.\n"},
        {"if Vendor_id == X close", "(Vendor_id == X close) is an invalid variable name.\n"},
        {"if vendor_id =! ABC close", "(=! ABC close) is an invalid comparison.\n"},
        {"if vendor_id HAS ABC close", "(HAS ABC close) is an invalid comparison.\n"},
    };
    test_context.trace = 1;
    for (const Case& c : cases) {
        CapturedStream stream;
        Parsed p(c.line, stream.get());
        capture_stdout();
        EXPECT_EQ(execute_if(c.line, stream.get(), p.tokens, p.count), -2) << c.line;
        EXPECT_EQ(captured_stdout(), "batch file syntax error, line 5 \n") << c.line;
        const std::string text = stream.text();
        const std::string tail = std::string("TTRACE: execute_if entered. \n") + c.message +
                                 "TTRACE: execute_if exit rc=-2 \n";
        EXPECT_EQ(text.substr(text.size() - std::min(text.size(), tail.size())), tail) << c.line;
    }
    EXPECT_EQ(test_context.result_code, kResultSyntaxError);
}

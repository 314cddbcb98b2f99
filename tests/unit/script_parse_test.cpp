#include <string>

#include "script_test_support.h"

using ParseTest = ScriptTest;

TEST_F(ParseTest, TokensAreSpansSeparatedByBlanksControlsAndHighBytes) {
    const char line[] = "  command\tread\x80x\xffy\x01z  result rc == 0 ";
    Parsed p(line, out.get());
    ASSERT_EQ(p.count, 9);
    EXPECT_EQ(p.token(line, 0), "command");
    EXPECT_EQ(p.tokens.start[0], 2);
    EXPECT_EQ(p.token(line, 1), "read");
    EXPECT_EQ(p.token(line, 2), "x");
    EXPECT_EQ(p.token(line, 3), "y");
    EXPECT_EQ(p.token(line, 4), "z");
    EXPECT_EQ(p.token(line, 8), "0");
    EXPECT_EQ(p.kind, StatementKind::command);
    EXPECT_EQ(p.command_index, 0);
    EXPECT_EQ(p.result_index, 5);
    EXPECT_EQ(p.statement_index, -1);
    EXPECT_EQ(out.text(), "");
}

TEST_F(ParseTest, FiftyTokensAreClassifiedFiftyOneIgnoredSilently) {
    std::string line = "type";
    for (int i = 0; i < 49; ++i) line += " x";
    Parsed fifty(line.c_str(), out.get());
    EXPECT_EQ(fifty.count, 50);
    EXPECT_EQ(fifty.kind, StatementKind::type);
    line += " x";
    Parsed fifty_one(line.c_str(), out.get());
    EXPECT_EQ(fifty_one.count, 0);
    EXPECT_EQ(fifty_one.kind, StatementKind::none);
    // Thousands of tokens: still only counted, never stored past the list.
    std::string huge(20000, ' ');
    for (std::size_t i = 0; i < huge.size(); i += 2) huge[i] = 'q';
    Parsed many(huge.c_str(), out.get());
    EXPECT_EQ(many.count, 0);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(ParseTest, EmptyBlankAndCommentLinesAreSilent) {
    for (const char* line : {"", "   \t\n", "#comment", "# comment", "  #x command read"}) {
        Parsed p(line, out.get());
        EXPECT_EQ(p.count, 0) << line;
        EXPECT_EQ(p.kind, StatementKind::none) << line;
    }
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(ParseTest, HashLaterInTheLineIsAnOrdinaryToken) {
    const char line[] = "command read # x";
    Parsed p(line, out.get());
    EXPECT_EQ(p.count, 4);
    EXPECT_EQ(p.kind, StatementKind::command);
}

TEST_F(ParseTest, EachKeywordGivesItsKindAndIndex) {
    struct Case {
        const char* line;
        StatementKind kind;
        int32_t statement_index;
    };
    const Case cases[] = {
        {"set block_seek = 1", StatementKind::set, 0},
        {"symbols", StatementKind::symbols, 0},
        {"exit", StatementKind::exit, 0},
        {"note type hello", StatementKind::type, 1},
        {"a b pause", StatementKind::pause, 2},
        {"x if vendor_id has X close", StatementKind::if_statement, -1},
        {"skip 3", StatementKind::skip, -1},
        {"run system ls", StatementKind::system, -1},
        {"1 2 3 4 5 6 delay", StatementKind::delay, -1},
    };
    for (const Case& c : cases) {
        Parsed p(c.line, out.get());
        EXPECT_GT(p.count, 0) << c.line;
        EXPECT_EQ(p.kind, c.kind) << c.line;
        EXPECT_EQ(p.statement_index, c.statement_index) << c.line;
        EXPECT_EQ(p.command_index, -1) << c.line;
    }
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(test_context.result_code, 0);
}

TEST_F(ParseTest, ScanStopsAtTheFirstStoppingKeyword) {
    Parsed p("command read if vendor_id has X command close", out.get());
    EXPECT_EQ(p.kind, StatementKind::if_statement);
    EXPECT_EQ(p.command_index, 0);
    Parsed q("type set", out.get());
    EXPECT_EQ(q.kind, StatementKind::type);
    EXPECT_EQ(q.statement_index, 0);
}

TEST_F(ParseTest, CommandWithoutResultAndWithShortResult) {
    Parsed plain("command read", out.get());
    EXPECT_EQ(plain.count, 2);
    EXPECT_EQ(plain.result_index, -1);
    Parsed short_clause("command read result rc", out.get());
    EXPECT_EQ(short_clause.count, 4);
    EXPECT_EQ(short_clause.result_index, 2);
    EXPECT_EQ(out.text(), "");
}




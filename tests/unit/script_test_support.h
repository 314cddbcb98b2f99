// Helpers for the statement-language unit tests: a fresh context per test
// and a parse of one line.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "context/context.h"
#include "device_test_support.h"
#include "script/script.h"

class ScriptTest : public ::testing::Test {
protected:
    void SetUp() override {
        reset_test_context();
        test_context.line_number = 0;
        test_context.failed_line = 0;
    }
    void TearDown() override { reset_test_context(); }

    static void capture_stdout() {
        fflush(stdout);
        ::testing::internal::CaptureStdout();
    }
    static std::string captured_stdout() {
        fflush(stdout);
        return ::testing::internal::GetCapturedStdout();
    }

    CapturedStream out;
};

// A parse of one line with every output captured.
struct Parsed {
    TokenList tokens{};
    int32_t command_index = -7;
    int32_t result_index = -7;
    int32_t statement_index = -7;
    StatementKind kind = StatementKind::command;
    int count = -1;

    Parsed(const char* line, FILE* stream) {
        count = parse(line, stream, tokens, command_index, result_index, statement_index, kind);
    }
    std::string token(const char* line, int i) const {
        return std::string(line + tokens.start[i], static_cast<std::size_t>(tokens.length[i]));
    }
};

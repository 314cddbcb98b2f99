// Helpers for the statement-language unit tests: a stream whose text can be
// read back, and a fresh context per test.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "context/context.h"
#include "script/script.h"

class MemoryStream {
public:
    MemoryStream() : file_(open_memstream(&buffer_, &size_)) {}
    ~MemoryStream() {
        fclose(file_);
        free(buffer_);
    }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;

    FILE* get() const { return file_; }
    std::string text() {
        fflush(file_);
        return std::string(buffer_, size_);
    }

private:
    char* buffer_ = nullptr;
    std::size_t size_ = 0;
    FILE* file_;
};

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

    MemoryStream out;
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

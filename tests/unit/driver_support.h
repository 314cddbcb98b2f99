// Test support for the driver commands: a statement split into a command
// clause, captured output streams, and a fake driver that answers one
// request type with a crafted record.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "context/context.h"
#include "driver/driver.h"
#include "fake_ioctl.h"

// A statement line whose whole text is the command clause, split on blanks
// and tabs as the tokenizer does for these simple lines.
struct Statement {
    std::string line;
    TokenList tokens{};
    int32_t count = 0;

    explicit Statement(std::string text) : line(std::move(text)) {
        std::size_t i = 0;
        while (i < line.size() && count < kMaxTokens) {
            while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
            if (i >= line.size()) break;
            std::size_t start = i;
            while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
            tokens.start[count] = static_cast<int32_t>(start);
            tokens.length[count] = static_cast<int32_t>(i - start);
            ++count;
        }
    }
    CommandClause clause() const { return CommandClause{line.c_str(), &tokens, 0, count}; }
};

// An output stream whose bytes (NULs included) can be read back.
struct CapturedStream {
    char* buffer = nullptr;
    std::size_t size = 0;
    FILE* file = open_memstream(&buffer, &size);

    CapturedStream() = default;
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;
    ~CapturedStream() {
        fclose(file);
        std::free(buffer);
    }
    std::string text() {
        fflush(file);
        return std::string(buffer, size);
    }
};

// Answers every request by recording what it was sent and writing reply
// over whatever address the driver was handed.
template <typename Record>
struct FakeDriver {
    Record reply{};
    int rc = 0;
    std::vector<unsigned long> requests;
    std::vector<void*> addresses;
    std::vector<Record> sent;
    ScopedFakeIoctl fake{[this](int, unsigned long request, void* record) {
        requests.push_back(request);
        addresses.push_back(record);
        Record in;
        std::memcpy(&in, record, sizeof in);
        sent.push_back(in);
        std::memcpy(record, &reply, sizeof reply);
        return rc;
    }};
};

struct CommandRun {
    std::string out;      // the command's output stream
    std::string console;  // standard output (syntax-error lines)
    CommandOutcome outcome{};
};

using Command = void (*)(FILE*, const CommandClause&, CommandOutcome&);

inline CommandRun run_command(Command command, const std::string& line) {
    Statement statement(line);
    CapturedStream stream;
    CommandRun run;
    testing::internal::CaptureStdout();
    command(stream.file, statement.clause(), run.outcome);
    fflush(stdout);
    run.console = testing::internal::GetCapturedStdout();
    run.out = stream.text();
    return run;
}

// A device open on some descriptor, no tracing, no earlier failure.
class DriverCommand : public testing::Test {
  protected:
    void SetUp() override {
        test_context.device_handle = 3;
        test_context.trace = 0;
        test_context.result_code = kResultOk;
        test_context.line_number = 7;
        test_context.buffer_override_armed = 0;
        test_context.buffer_override = 0;
    }
    void TearDown() override {
        test_context.trace = 0;
        test_context.buffer_override_armed = 0;
        test_context.device_handle = -1;
        test_context.result_code = kResultOk;
    }
};

inline const std::string kSyntaxLine = "batch file syntax error, line 7 \n";

template <typename Field, std::size_t N>
void fill_text(Field (&field)[N], std::string_view text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(N, text.size()));
}

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
#include "device_test_support.h"
#include "driver/driver.h"
#include "fake_ioctl.h"

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
    command(stream.get(), statement.clause(), run.outcome);
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

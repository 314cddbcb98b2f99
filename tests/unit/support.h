// Shared by the unit tests: a statement parsed as the runner parses it, an output stream read back,
// and a seam (fake_ioctl.cpp) handing every ioctl to a handler, to craft driver replies byte by byte.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "device/access.h"
#include "device/data_commands.h"
#include "device/executor.h"
#include "device/variables.h"
#include "script/script.h"

struct Statement {  // "command NAME ARGS..."
    std::string text;
    TokenList tokens{};
    int32_t command = -1, result = -1, statement = -1;
    StatementKind kind{};
    int32_t count;  // declared last: parse fills in the members above first
    explicit Statement(std::string line)
        : text(std::move(line)), count(parse(text.c_str(), stderr, tokens, command, result, statement, kind)) {}
    CommandClause clause() const { return CommandClause{text.c_str(), &tokens, command + 1, count - command - 1}; }
    CommandOutcome run(FILE* stream) const {  // as the executor runs a command statement
        CommandOutcome outcome{};
        return execute_command(text.c_str(), stream, tokens, command + 1, count - command - 1, outcome), outcome;
    }
};

struct CapturedStream {  // its bytes, NULs included, read back by text()
    char* data = nullptr;
    std::size_t size = 0;
    FILE* stream = open_memstream(&data, &size);
    ~CapturedStream() { fclose(stream), free(data); }
    CapturedStream() = default;
    CapturedStream(const CapturedStream&) = delete;  // one owner frees the buffer
    CapturedStream& operator=(const CapturedStream&) = delete;
    std::string text() { return fflush(stream), std::string(data, size); }
};

using FakeIoctl = std::function<int(int descriptor, unsigned long request, void* record)>;
void set_fake_ioctl(FakeIoctl handler);  // an empty handler restores the real call
struct ScopedFakeIoctl {
    explicit ScopedFakeIoctl(FakeIoctl handler) { set_fake_ioctl(std::move(handler)); }
    ~ScopedFakeIoctl() { set_fake_ioctl({}); }
};

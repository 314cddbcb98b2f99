// Shared by the device unit tests: statements tokenized on blanks, a
// captured output stream, and a context reset to its start values.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "context/context.h"
#include "device/device.h"

struct Statement {
    std::string text;
    TokenList tokens{};
    int32_t count = 0;

    explicit Statement(std::string line) : text(std::move(line)) {
        std::size_t i = 0;
        while (i < text.size() && count < kMaxTokens) {
            while (i < text.size() && text[i] == ' ') ++i;
            if (i == text.size()) break;
            std::size_t begin = i;
            while (i < text.size() && text[i] != ' ') ++i;
            tokens.start[count] = static_cast<int32_t>(begin);
            tokens.length[count] = static_cast<int32_t>(i - begin);
            ++count;
        }
    }
};

// A stream whose contents can be taken as a string.
struct Capture {
    char* data = nullptr;
    std::size_t size = 0;
    FILE* stream = open_memstream(&data, &size);

    std::string take() {
        fflush(stream);
        std::string s(data, size);
        fclose(stream);
        free(data);
        data = nullptr;
        size = 0;
        stream = open_memstream(&data, &size);
        return s;
    }
    ~Capture() {
        fclose(stream);
        free(data);
    }
};

// Runs "command ..." text (without the word command) through the executor.
inline int run_command(const std::string& clause, FILE* stream, CommandOutcome& outcome) {
    Statement s(clause);
    return execute_command(s.text.c_str(), stream, s.tokens, 0, s.count, outcome);
}

inline void fresh_context() {
    if (test_context.device_handle != -1) ps_close(test_context.device_handle);
    reset_test_context();
    last_sector = 0;
}

// Shared by the unit tests: statements tokenized on blanks and tabs, and a
// captured output stream.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "context/context.h"
#include "device/device.h"

// A statement line whose whole text is the command clause, split on blanks
// and tabs as the tokenizer does for these simple lines.
struct Statement {
    std::string text;
    TokenList tokens{};
    int32_t count = 0;

    explicit Statement(std::string line) : text(std::move(line)) {
        std::size_t i = 0;
        while (i < text.size() && count < kMaxTokens) {
            while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
            if (i == text.size()) break;
            std::size_t begin = i;
            while (i < text.size() && text[i] != ' ' && text[i] != '\t') ++i;
            tokens.start[count] = static_cast<int32_t>(begin);
            tokens.length[count] = static_cast<int32_t>(i - begin);
            ++count;
        }
    }
    CommandClause clause() const { return CommandClause{text.c_str(), &tokens, 0, count}; }
};

// An output stream whose bytes (NULs included) can be read back.
class CapturedStream {
public:
    CapturedStream() = default;
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;
    ~CapturedStream() {
        fclose(stream);
        free(data_);
    }

    FILE* get() const { return stream; }
    std::string text() {
        fflush(stream);
        return std::string(data_, size_);
    }

private:
    char* data_ = nullptr;
    std::size_t size_ = 0;

public:
    FILE* stream = open_memstream(&data_, &size_);
};

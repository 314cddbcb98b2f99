// Tokenizer and classifier of one statement line.
#include <string_view>

#include "context/context.h"
#include "script/script.h"

namespace {

// Every control byte, the blank and (because the byte is taken as signed)
// everything from 0x80 up separates tokens.
constexpr bool is_separator(char byte) { return static_cast<signed char>(byte) <= 32; }

struct Keyword {
    std::string_view text;
    StatementKind kind;
    bool reports_statement_index;
};

// Tested in this order; `command` and `result` are handled before the table
// because the scan goes on after them. `type` and `pause` report where they
// stand, like `set`, `symbols` and `exit`, although only those three must
// stand first.
constexpr Keyword kStoppingKeywords[] = {
    {"set", StatementKind::set, true},
    {"if", StatementKind::if_statement, false},
    {"skip", StatementKind::skip, false},
    {"delay", StatementKind::delay, false},
    {"system", StatementKind::system, false},
    {"symbols", StatementKind::symbols, true},
    {"exit", StatementKind::exit, true},
    {"type", StatementKind::type, true},
    {"pause", StatementKind::pause, true},
};

constexpr bool must_be_well_placed(StatementKind kind) {
    return kind == StatementKind::command || kind == StatementKind::set ||
           kind == StatementKind::symbols || kind == StatementKind::exit;
}

}  // namespace

int parse(const char* line, FILE* stream, TokenList& tokens, int32_t& command_index,
          int32_t& result_index, int32_t& statement_index, StatementKind& kind) {
    kind = StatementKind::none;
    ttrace(stream, "TTRACE: parse entered (%s).\n", line);

    // Counted in 64 bits so a line of any length cannot overflow the count;
    // only the first kMaxTokens spans are stored.
    int64_t count = 0;
    bool in_token = false;
    for (int32_t i = 0; line[i] != '\0'; ++i) {
        if (is_separator(line[i])) {
            in_token = false;
            continue;
        }
        if (!in_token) {
            in_token = true;
            if (count < kMaxTokens) {
                tokens.start[count] = i;
                tokens.length[count] = 0;
            }
            ++count;
        }
        if (count <= kMaxTokens) ++tokens.length[count - 1];
    }
    if (count == 0 || count > kMaxTokens) return 0;
    if (line[tokens.start[0]] == '#') return 0;

    const auto token_count = static_cast<int32_t>(count);
    command_index = -1;
    result_index = -1;
    statement_index = -1;
    for (int32_t t = 0; t < token_count; ++t) {
        const std::string_view token(line + tokens.start[t], static_cast<std::size_t>(tokens.length[t]));
        if (token == "command") {
            kind = StatementKind::command;
            command_index = t;
            continue;
        }
        if (token == "result") {
            result_index = t;
            continue;
        }
        bool stop = false;
        for (const Keyword& k : kStoppingKeywords) {
            if (token != k.text) continue;
            kind = k.kind;
            if (k.reports_statement_index) statement_index = t;
            stop = true;
            break;
        }
        if (stop) break;
    }

    if (kind == StatementKind::none) {
        fprintf(stream, "unrecognized statement.\n");
        report_syntax_error();
        return 0;
    }
    if (must_be_well_placed(kind)) {
        const bool badly_placed = command_index > 0 ||
                                  (command_index == 0 && result_index >= token_count - 1) ||
                                  statement_index > 0;
        if (badly_placed) {
            fprintf(stream, "parse command | result | set found in wrong place\n");
            report_syntax_error();
            kind = StatementKind::none;
            return 0;
        }
    }
    ttrace(stream, "TTRACE: parse exit %d.\n", token_count);
    return token_count;
}

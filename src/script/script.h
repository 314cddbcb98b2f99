// Statement language: tokenizer and classifier, dispatcher, batch runner,
// result analysis and the conditional statement.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

inline constexpr int32_t kMaxTokens = 50;

// Token spans of one statement line; tokens are neither copied nor terminated.
struct TokenList {
    int32_t start[kMaxTokens];
    int32_t length[kMaxTokens];
};

// The text of token index of line.
inline std::string_view token_text(const char* line, const TokenList& tokens, int32_t index) {
    return {line + tokens.start[index], static_cast<std::size_t>(tokens.length[index])};
}

enum class StatementKind : int32_t {
    none = 0,
    command = 1,
    set = 2,
    symbols = 3,
    type = 4,
    pause = 5,
    exit = 6,
    if_statement = 7,
    skip = 8,
    system = 10,
    delay = 11,
};

// The five values one command reports and a result clause judges, and the
// process's errno as the command leaves it: the one its latest call on the
// device left, else the one it found on entry. A return code of -1 is
// reported with that number as the error value, also when the command
// failed without a failed call of its own.
struct CommandOutcome {
    int32_t return_code;
    int32_t error_number;
    int32_t error_value;
    int32_t residual;
    int32_t data;
    int32_t last_errno;
};

// Tokenizes and classifies one line; returns the token count (1..50) of a
// well-formed statement, else 0 with kind none.
int parse(const char* line, FILE* stream, TokenList& tokens, int32_t& command_index,
          int32_t& result_index, int32_t& statement_index, StatementKind& kind);

// Executes one statement; failures show in test_context.result_code.
void process(const char* line, FILE* stream);

// Name of an error number from the symbol table, "?" when it has none.
const char* errno_name(int32_t value);

// Digits of a counted text to a 32-bit number (wrapping; no character refused).
int32_t decimal_value(const char* text, int32_t length);

void execute_delay(FILE* stream, int32_t seconds);

// Runs command with /bin/sh -c in a process group of its own and waits for
// it; every stop signal meanwhile is passed on to the whole group. Returns
// the wait status as system() does, -1 (errno set) when no shell started.
int run_shell_command(const char* command);

void batch_test_menu();
// Counts one more batch line in line_number; false, the count unchanged,
// once it has reached INT32_MAX.
bool count_batch_line();
void newline_to_blank(char* buffer, std::size_t length);

int analyze(const char* line, FILE* stream, const TokenList& tokens, int32_t first, int32_t count,
            const CommandOutcome& outcome);
// The lines the latest analysis wrote about the outcome and its failed checks,
// as the transcript holds them; empty before any analysis.
const char* analysis_reason();
// The checks the latest analysis judged (context/results.h).
struct CheckRecords;
const CheckRecords& analysis_checks();
// relation points into the statement line at the relation token.
int as_expected(int32_t actual, const char* relation, int32_t expected);
const char* symbolic_value(const char* text, int32_t length);
// Stores number, the process's error number after the command, into the
// error value and 0 into the residual.
void ps_return_error(FILE* stream, int32_t number, int32_t* error_value, int32_t* residual);

int execute_if(const char* line, FILE* stream, const TokenList& tokens, int32_t count);

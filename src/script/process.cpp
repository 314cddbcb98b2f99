// Statement dispatcher: runs one statement line and the small statements
// that need no device.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "context/context.h"
#include "context/results.h"
#include "device/executor.h"
#include "device/variables.h"
#include "script/errno_table.h"
#include "script/script.h"

const char* errno_name(int32_t value) {
    std::strcpy(test_context.value_text, "?");
    for (const ErrnoSymbol& row : errno_symbols()) {
        if (row.value == value) return row.name.data();
    }
    return test_context.value_text;
}

int32_t decimal_value(const char* text, int32_t length) {
    if (length <= 0) return 0;
    const bool negative = text[0] == '-';
    uint32_t value = 0;
    for (int32_t i = negative ? 1 : 0; i < length; ++i) {
        value = value * 10u + static_cast<uint32_t>(text[i] - '0');
    }
    if (negative) value = 0u - value;
    return static_cast<int32_t>(value);
}

void execute_delay(FILE* stream, int32_t seconds) {
    ttrace(stream, "TTRACE: execute_delay entered. \n");
    // A negative delay waits not at all; a signal cutting the sleep short
    // must not shorten the wait the script asked for, unless it asks the
    // run to stop.
    unsigned remaining = seconds > 0 ? static_cast<unsigned>(seconds) : 0u;
    while (remaining > 0 && !stop_requested()) remaining = sleep(remaining);
    ttrace(stream, "TTRACE: execute_delay exited. \n");
}

namespace {

int32_t token_value(const char* line, const TokenList& tokens, int32_t index) {
    return decimal_value(line + tokens.start[index], tokens.length[index]);
}

void run_command(const char* line, FILE* stream, const TokenList& tokens, int32_t token_count,
                 int32_t command_index, int32_t result_index, CommandOutcome& outcome) {
    const int32_t clause_end = result_index >= 0 ? result_index : token_count;
    const int executed = execute_command(line, stream, tokens, command_index + 1,
                                         clause_end - command_index - 1, outcome);
    ttrace(stream, "TTRACE: execute_command returned %d.\n", executed);
    if (executed == 0) {
        fprintf(stream, "orvane process error unable to execute\n");
        return;
    }
    int32_t first = 0;
    int32_t count = token_count;
    if (result_index >= 0) {
        first = result_index + 1;
        count = token_count - result_index - 1;
    }
    const int judged = analyze(line, stream, tokens, first, count, outcome);
    if (!results_enabled()) return;
    results_data_command(outcome);
    if (first > 0) {
        results_check(line, token_text(line, tokens, command_index + 1), analysis_checks(), judged == 1);
    }
}

void list_symbols(FILE* stream) {
    fprintf(stream, "Symbolic values:\n");
    for (const ErrnoSymbol& row : errno_symbols()) {
        fprintf(stream, " %35.35s = %d (0x%x)\n", row.name.data(), row.value, static_cast<unsigned>(row.value));
    }
}

void run_system(const char* line, FILE* stream) {
    // The command starts after the keyword and one separator; a line that
    // ends right after the keyword has none.
    const char* keyword = std::strstr(line, "system");
    const char* command = keyword + 6;
    if (*command != '\0') ++command;
    if (*command == '\0') {
        fprintf(stream, "No command entered, ignored!!!\n");
        return;
    }
    fprintf(stream, "system (%s) \n", command);
    const int status = run_shell_command(command);
    fprintf(stream, "command returned rc %d \n", status);
    if (status == -1) {
        const int number = errno;
        fprintf(stream, "errno was %d (%s)\n", number, errno_name(number));
    }
}

}  // namespace

void process(const char* line, FILE* stream) {
    ttrace(stream, "TTRACE: process entered (%s).\n", line);

    TokenList tokens;
    int32_t command_index = -1;
    int32_t result_index = -1;
    int32_t statement_index = -1;
    StatementKind kind = StatementKind::none;
    CommandOutcome outcome = {0, 0, 0, 0, 0, 0};
    const int32_t token_count =
        parse(line, stream, tokens, command_index, result_index, statement_index, kind);

    switch (kind) {
        case StatementKind::none:
            break;
        case StatementKind::command:
            run_command(line, stream, tokens, token_count, command_index, result_index, outcome);
            break;
        case StatementKind::set:
            execute_set(line, stream, tokens, statement_index + 1, token_count - statement_index - 1);
            break;
        case StatementKind::symbols:
            list_symbols(stream);
            break;
        case StatementKind::type:
            printf("%s\n", std::strstr(line, "type") + 4);
            break;
        case StatementKind::pause:
            printf("%s:\n", line);
            (void)getchar();
            break;
        case StatementKind::exit:
            test_context.result_code = kResultExit;
            break;
        case StatementKind::if_statement:
            if (execute_if(line, stream, tokens, token_count) == 1) process(line + tokens.start[4], stream);
            break;
        case StatementKind::skip:
            if (token_count == 2) {
                test_context.skip_count = token_value(line, tokens, 1);
            } else {
                report_syntax_error();
            }
            break;
        case StatementKind::system:
            run_system(line, stream);
            break;
        case StatementKind::delay:
            if (token_count == 2) {
                execute_delay(stream, token_value(line, tokens, 1));
            } else {
                report_syntax_error();
            }
            break;
    }

    ttrace(stream, "TTRACE: process exit.\n");
}

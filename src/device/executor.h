// Command executor: runs the command clause of a `command` statement, and
// the argument access and number parsing every command shares.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "device/access.h"
#include "script/script.h"

// The command clause of one statement: token 0 is the command name. Tokens
// past the clause read as empty, so a short statement never reaches past
// the token list.
struct CommandClause {
    const char* line;
    const TokenList* tokens;
    int32_t first;  // index of the command-name token in the token list
    int32_t count;  // tokens in the clause, counting the name

    std::string_view token(int32_t i) const;
    // Statement text from clause token i to the end of the line; the empty
    // text at the line's end when the clause has no token i.
    const char* rest(int32_t i) const;
};

// A keyword argument matches when the token begins with the keyword.
bool keyword_matches(std::string_view token, std::string_view keyword);

// The value of a call the command made; the errno the call left becomes
// the one the command leaves (CommandOutcome::last_errno).
template <typename Value>
Value note_result(CommandOutcome& outcome, const AccessResult<Value>& result) {
    outcome.last_errno = result.error_number;
    return result.value;
}

// Runs the command clause into outcome; on return the process's errno is
// the one outcome leaves, for a later command that fails without a failed
// call of its own.
int execute_command(const char* line, FILE* stream, const TokenList& tokens, int32_t name_index,
                    int32_t count, CommandOutcome& outcome);

int64_t parse_count(const char* text, int32_t length);
int64_t parse_long(const char* text, int32_t length);
inline int64_t parse_count(std::string_view t) { return parse_count(t.data(), static_cast<int32_t>(t.size())); }
inline int64_t parse_long(std::string_view t) { return parse_long(t.data(), static_cast<int32_t>(t.size())); }

// The address for the next transfer or driver request: the armed one-shot
// override (disarming it), else the default.
void* select_buffer(void* default_address);

// Device access layer, command executor, test variables and data commands.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "script/script.h"

// ---- driver access layer ----
int ps_open(const char* path, int32_t flags, int32_t mode);
int ps_close(int descriptor);
int32_t ps_read(FILE* stream, int descriptor, void* buffer, uint32_t length);
int32_t ps_write(FILE* stream, int descriptor, const void* buffer, uint32_t length);
int64_t ps_lseek(FILE* stream, int descriptor, int64_t offset);
int ps_ddioctl(FILE* stream, int descriptor, uint32_t request, void* record, int64_t length);
int ps_get_capacity(FILE* stream, int descriptor, void* record, int64_t length);
char* ps_strerror(int number);

// ---- command executor ----

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

int execute_command(const char* line, FILE* stream, const TokenList& tokens, int32_t name_index,
                    int32_t count, CommandOutcome& outcome);

int64_t parse_count(const char* text, int32_t length);
int64_t parse_long(const char* text, int32_t length);
inline int64_t parse_count(std::string_view t) { return parse_count(t.data(), static_cast<int32_t>(t.size())); }
inline int64_t parse_long(std::string_view t) { return parse_long(t.data(), static_cast<int32_t>(t.size())); }

// The address for the next transfer or driver request: the armed one-shot
// override (disarming it), else the default.
void* select_buffer(void* default_address);

// ---- test variables ----
int execute_set(const char* line, FILE* stream, const TokenList& tokens, int32_t index, int32_t count);
void settings();

// ---- data commands (device already checked open by the executor) ----
extern int64_t last_sector;

// Record size of the data commands: block_count x sector_size, held at the
// 64-bit bound on its side when it does not fit (see saturated_product).
int64_t record_size();

// Bytes 4..255 of a record: the pattern for that sector. One value is drawn
// from the running sequence (device/generator.h) first and reseeds it
// afterwards, so the running sequence never continues from a pattern's seed.
inline constexpr int32_t kPatternBegin = 4;
inline constexpr int32_t kPatternEnd = 256;
void fill_record_pattern(uint8_t* record, int64_t sector);
// Same draws as fill_record_pattern; returns the first byte index that
// differs (its expected value in expected), or -1 when all 252 match.
int32_t verify_record_pattern(const uint8_t* record, int64_t sector, uint8_t& expected);

// Sector of a random transfer, 0..block_max, from the next running value.
int64_t random_sector();

// Copies n bytes, "." for anything outside 0x20..0x7e, and terminates;
// destination holds n + 1 characters.
void printable_copy(const uint8_t* source, char* destination, int32_t n);

// True when any byte of [address, address + length) lies in a writable
// mapping of this process (or the mappings cannot be read).
bool address_in_writable_memory(uint64_t address, uint64_t length);

// The data commands of the executor's table. Each runs after the executor's
// entry checks; the device-open check is the executor's too.
#pragma once

#include <cstdint>
#include <cstdio>

#include "device/executor.h"

void command_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_read_verify(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_write(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_random_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_random_write(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_device_capacity(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_display_block(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);

// Sector of the latest transfer, shown by display_block.
extern int64_t last_sector;

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

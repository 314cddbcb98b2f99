// The data commands of the executor's table. Each runs after the executor's
// entry checks; the device-open check is the executor's too.
#pragma once

#include <cstdio>

#include "device/device.h"

void command_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_read_verify(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_write(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_random_read(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_random_write(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_device_capacity(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void command_display_block(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);

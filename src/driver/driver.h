// Driver query and control commands: request records, value tables and the
// commands of the executor's table that send them.
#pragma once

#include <cstdint>
#include <cstdio>

#include "device/device.h"

struct ValueName {
    int64_t value;
    const char* text;
};

const char* value_to_name(int64_t value, const ValueName* table);

// Each runs one command clause; the executor has already checked that a
// device is open and zeroed the outcome.
void get_number_devices(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_device_state(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void set_path(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_adapter_info(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void set_adapter(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void set_controller(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_dev_stats(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_adapter_stats(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);
void get_inquiry(FILE* stream, const CommandClause& clause, CommandOutcome& outcome);

void fprintf_inquiry_data(FILE* stream, const uint8_t* data);

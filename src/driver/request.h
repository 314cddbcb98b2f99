// Shared steps of the driver commands: sending one request and reading one
// keyword argument.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "device/executor.h"

// Sends a request on the open device into outcome's return code (0 or -1
// as ps_ddioctl gives it), a failure's errno into outcome. The driver gets
// the armed one-shot address override in place of the record when there is
// one; the report is still printed from the record.
void send_request(FILE* stream, CommandOutcome& outcome, uint32_t opcode, void* record, int64_t length);

// Same, but always with the record's own address, leaving an armed
// override for a later request.
void send_request_own_record(FILE* stream, CommandOutcome& outcome, uint32_t opcode, void* record, int64_t length);

// Reads "keyword number" at clause tokens position and position + 1 into
// field. A wrong or missing keyword leaves field alone, prints
// "<command>, invalid statement at (<rest of line>) " and reports a syntax
// error; the caller still sends its request.
void keyword_argument(FILE* stream, const CommandClause& clause, int32_t position, std::string_view keyword,
                      const char* command, int32_t& field);

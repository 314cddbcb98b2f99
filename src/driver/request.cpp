#include "driver/request.h"

#include "context/context.h"
#include "device/access.h"

void send_request(FILE* stream, CommandOutcome& outcome, uint32_t opcode, void* record, int64_t length) {
    send_request_own_record(stream, outcome, opcode, select_buffer(record), length);
}

void send_request_own_record(FILE* stream, CommandOutcome& outcome, uint32_t opcode, void* record, int64_t length) {
    outcome.return_code = note_result(outcome, ps_ddioctl(stream, test_context.device_handle, opcode, record, length));
}

void keyword_argument(FILE* stream, const CommandClause& clause, int32_t position, std::string_view keyword,
                      const char* command, int32_t& field) {
    if (keyword_matches(clause.token(position), keyword)) {
        // Stored in 32 bits as given; the driver judges the range.
        field = static_cast<int32_t>(parse_long(clause.token(position + 1)));
        return;
    }
    fprintf(stream, "%s, invalid statement at (%s) ", command, clause.rest(position));
    report_syntax_error();
}

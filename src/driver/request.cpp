#include "driver/request.h"

#include "context/context.h"
#include "device/access.h"

int send_request(FILE* stream, uint32_t opcode, void* record, int64_t length) {
    return ps_ddioctl(stream, test_context.device_handle, opcode, select_buffer(record), length);
}

int send_request_own_record(FILE* stream, uint32_t opcode, void* record, int64_t length) {
    return ps_ddioctl(stream, test_context.device_handle, opcode, record, length);
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

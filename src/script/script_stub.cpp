// Placeholder until the statement language lands.
#include "script/script.h"
#include "context/context.h"

int parse(const char*, FILE*, TokenList&, int32_t&, int32_t&, int32_t&, StatementKind& kind) {
    kind = StatementKind::none;
    return 0;
}
void process(const char*, FILE*) {}
const char* errno_name(int32_t) { return "?"; }
int32_t decimal_value(const char*, int32_t) { return 0; }
void execute_delay(FILE*, int32_t) {}
void batch_test_menu() {}
void newline_to_blank(char*, std::size_t) {}
int analyze(const char*, FILE*, const TokenList&, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t) { return 1; }
int as_expected(int32_t, const char*, int32_t) { return 1; }
const char* symbolic_value(const char*, int32_t) { return ""; }
void ps_return_error(FILE*, int32_t*, int32_t*) {}
int execute_if(const char*, FILE*, const TokenList&, int32_t) { return 0; }

// Result analysis: judges a command's outcome against the checks of its
// result clause.
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <string_view>

#include "context/context.h"
#include "context/results.h"
#include "device/access.h"
#include "script/errno_table.h"
#include "script/script.h"

namespace {

enum class Field { return_code, error_number, error_value, residual, data };

struct FieldRule {
    std::string_view keyword;  // a field token matches when it begins with it
    Field field;
    bool symbolic;             // the expected value may be an errno name
    const char* failure;
};

constexpr FieldRule kFieldRules[] = {
    {"rc", Field::return_code, false, "return code not as expected.\n"},
    {"err", Field::error_number, true, "errno not as expected.\n"},
    {"cc", Field::error_value, true, "error value not as expected.\n"},
    {"resid", Field::residual, false, "residual count not as expected.\n"},
    {"data", Field::data, false, "sector identifier not as expected.\n"},
};

// The field names the results file uses, in Field's order.
constexpr const char* kFieldNames[] = {"rc", "errno", "cc", "resid", "data"};

const FieldRule* find_field(std::string_view token) {
    for (const FieldRule& rule : kFieldRules) {
        if (token.substr(0, rule.keyword.size()) == rule.keyword) return &rule;
    }
    return nullptr;
}

// What the analysis of the current line wrote about its outcome and its
// failed checks, kept for the batch runner to show beside the verdict.
struct Reason {
    char text[1024];
    std::size_t used;
};
Reason reason;

// The checks of the current line as judged, for the results file.
CheckRecords judged;

void remember(const char* text, std::size_t length) {
    const std::size_t kept = std::min(length, sizeof reason.text - 1 - reason.used);
    std::memcpy(reason.text + reason.used, text, kept);
    reason.used += kept;
    reason.text[reason.used] = '\0';
}

// Writes one line to the stream, byte for byte as fprintf would, and
// remembers it as part of the reason.
__attribute__((format(printf, 2, 3))) void report(FILE* stream, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof text) {
        fputs(text, stream);
        remember(text, static_cast<std::size_t>(length));
    } else {
        vfprintf(stream, format, again);  // too long to keep whole: the stream still gets all of it
    }
    va_end(again);
}

}  // namespace

const char* analysis_reason() { return reason.text; }
const CheckRecords& analysis_checks() { return judged; }

void ps_return_error(FILE* stream, int32_t number, int32_t* error_value, int32_t* residual) {
    ttrace(stream, "TTRACE: ps_return_error entered.\n");
    *error_value = number;
    *residual = 0;
    ttrace(stream, "TTRACE: ps_return_error exit %d.\n", *error_value);
}

const char* symbolic_value(const char* text, int32_t length) {
    const std::string_view token(text, length > 0 ? static_cast<std::size_t>(length) : 0u);
    char* out = test_context.value_text;
    for (const ErrnoSymbol& row : errno_symbols()) {
        if (row.name.substr(0, token.size()) == token && row.name.size() >= token.size()) {
            snprintf(out, sizeof test_context.value_text, "%d", row.value);
            return out;
        }
    }
    const std::size_t kept = std::min(token.size(), sizeof test_context.value_text - 1);
    std::memcpy(out, token.data(), kept);
    out[kept] = '\0';
    return out;
}

int as_expected(int32_t actual, const char* relation, int32_t expected) {
    // A one-character relation is told apart by the byte after it, so "<"
    // must be followed by a blank; the terminator is never read past.
    const char first = relation[0];
    const char second = first != '\0' ? relation[1] : '\0';
    if (first == '<' && second == ' ') return actual < expected ? 1 : 0;
    if (first == '<' && second == '=') return actual <= expected ? 1 : 0;
    if (first == '=' && second == '=') return actual == expected ? 1 : 0;
    if (first == '!' && second == '=') return actual != expected ? 1 : 0;
    if (first == '>' && second == '=') return actual >= expected ? 1 : 0;
    if (first == '>' && second == ' ') return actual > expected ? 1 : 0;
    printf("as_expected, invalid relation (%s) \n", relation);
    report_syntax_error();
    return -1;
}

int analyze(const char* line, FILE* stream, const TokenList& tokens, int32_t first, int32_t count,
            const CommandOutcome& outcome) {
    const int32_t return_code = outcome.return_code;
    const int32_t error_number = outcome.error_number;
    int32_t error_value = outcome.error_value;
    int32_t residual = outcome.residual;
    const int32_t data = outcome.data;
    ttrace(stream, "TTRACE: analyze entered (%s).\n", line);
    reason.used = 0;
    reason.text[0] = '\0';
    judged.count = 0;
    judged.seen = outcome;
    report(stream, "analyze return code %d  errno %d (%s) \n    error value %d (%s) residual %d data %d\n",
            return_code, error_number, errno_name(error_number), error_value, errno_name(error_value),
            residual, data);
    if (first <= 0) return 1;  // no result clause: shown, not judged
    if (count < 3) {
        fprintf(stream, "error analyze insufficent tokens\n");
        report_syntax_error();
        return 0;
    }
    if (return_code == -1) {
        ps_return_error(stream, outcome.last_errno, &error_value, &residual);
        judged.seen.error_value = error_value;
        judged.seen.residual = residual;
        const char* name = errno_name(error_value);
        report(stream, "analyze return_error cc %d (%s) %s\n", error_value, name, ps_strerror(error_value));
    }

    bool failed = false;
    // Checks are whole triples; the list never holds more than kMaxTokens.
    const int32_t end = std::min(first + count, kMaxTokens);
    for (int32_t t = first; t + 3 <= end; t += 3) {
        const FieldRule* rule = find_field(token_text(line, tokens, t));
        if (rule == nullptr) {
            report(stream, "analyze ERROR unexpected token\n");
            report_syntax_error();
            failed = true;
            continue;
        }
        const std::string_view value_token = token_text(line, tokens, t + 2);
        int32_t expected = 0;
        if (rule->symbolic) {
            const char* text = symbolic_value(value_token.data(), static_cast<int32_t>(value_token.size()));
            expected = decimal_value(text, static_cast<int32_t>(std::strlen(text)));
        } else {
            expected = decimal_value(value_token.data(), static_cast<int32_t>(value_token.size()));
        }
        int32_t actual = 0;
        switch (rule->field) {
            case Field::return_code: actual = return_code; break;
            case Field::error_number: actual = error_number; break;
            case Field::error_value: actual = error_value; break;
            case Field::residual: actual = residual; break;
            case Field::data: actual = data; break;
        }
        const char* relation = line + tokens.start[t + 1];
        const int verdict = as_expected(actual, relation, expected);
        if (verdict == 0) {
            report(stream, "%s", rule->failure);
            failed = true;
        }
        if (judged.count < kMaxCheckRecords) {
            CheckRecord& check = judged.checks[judged.count++];
            check.field = kFieldNames[static_cast<int>(rule->field)];
            const std::size_t length = std::min<std::size_t>(static_cast<std::size_t>(tokens.length[t + 1]), 2);
            std::memcpy(check.relation, relation, length);
            check.relation[length] = '\0';
            check.expected = expected;
            check.actual = actual;
            check.pass = verdict == 1;
        }
    }
    if (!failed) return 1;

    fprintf(stream, "analyze error ...  result not as expected\n");
    test_context.result_code = kResultCheckFailed;
    test_context.failed_line = test_context.line_number;
    if (test_context.line_number > 0) {
        printf("ERROR, test at line %d failed!\n", test_context.line_number);
    } else {
        printf("ERROR, test failed!\n");
    }
    ttrace(stream, "TTRACE: analyze exit.\n");
    return 0;
}

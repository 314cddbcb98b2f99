// Conditional statement: guards a statement with a test on the INQUIRY data
// of the last get_inquiry.
#include <cstring>
#include <string_view>

#include "context/context.h"
#include "script/script.h"

namespace {

constexpr std::size_t kMaxValueLength = 20;

struct InquiryField {
    std::string_view name;
    std::size_t offset;
    std::size_t length;  // never more than kMaxValueLength
};

// product_id compares the first 12 of its 16 bytes. The widths belong to
// the statement language: a guard must test the same bytes in every run,
// whatever the device puts in the rest of the field.
constexpr InquiryField kInquiryFields[] = {
    {"vendor_id", 8, 8},
    {"product_id", 16, 12},
    {"firmware_revision_level", 32, 4},
    {"vendor_specific", 36, 20},
};

enum class Comparison : int { equal = 1, not_equal = 2, has = 3, has_not = 4 };

struct ComparisonName {
    std::string_view name;
    Comparison comparison;
};

constexpr ComparisonName kComparisons[] = {
    {"==", Comparison::equal},
    {"!=", Comparison::not_equal},
    {"has", Comparison::has},
    {"!has", Comparison::has_not},
};

// The value starts at the value token: 'quoted', "quoted", '"quoted" (so a
// value may hold a single quote) or bare up to a blank. Its first character
// is always taken, even a closing quote; it never runs past the line's end.
std::size_t read_value(const char* text, char (&value)[kMaxValueLength + 1]) {
    char end = ' ';
    if (*text == '\'') {
        ++text;
        end = '\'';
        if (*text == '"') {
            ++text;
            end = '"';
        }
    } else if (*text == '"') {
        ++text;
        end = '"';
    }
    std::size_t length = 0;
    if (text[0] != '\0') {
        length = 1;
        while (length < kMaxValueLength && text[length] != '\0' && text[length] != end) ++length;
    }
    std::memcpy(value, text, length);
    value[length] = '\0';
    return length;
}

int malformed(FILE* stream) {
    report_syntax_error();
    ttrace(stream, "TTRACE: execute_if exit rc=%d \n", -2);
    return -2;
}

}  // namespace

int execute_if(const char* line, FILE* stream, const TokenList& tokens, int32_t count) {
    ttrace(stream, "TTRACE: execute_if entered. \n");
    if (count < 5) {
        fprintf(stream, "Invalid 'if' statement \n");
        return malformed(stream);
    }
    if (token_text(line, tokens, 0) != "if") return malformed(stream);

    const InquiryField* field = nullptr;
    for (const InquiryField& f : kInquiryFields) {
        if (token_text(line, tokens, 1) == f.name) field = &f;
    }
    if (field == nullptr) {
        fprintf(stream, "(%s) is an invalid variable name.\n", line + tokens.start[1]);
        return malformed(stream);
    }
    const ComparisonName* comparison = nullptr;
    for (const ComparisonName& c : kComparisons) {
        if (token_text(line, tokens, 2) == c.name) comparison = &c;
    }
    if (comparison == nullptr) {
        fprintf(stream, "(%s) is an invalid comparison.\n", line + tokens.start[2]);
        return malformed(stream);
    }

    char value[kMaxValueLength + 1];
    const std::size_t value_length = read_value(line + tokens.start[3], value);

    // The field up to its first zero byte, blank-padded to its full length.
    char field_text[kMaxValueLength + 1];
    const uint8_t* bytes = test_context.inquiry_data + field->offset;
    std::size_t copied = 0;
    while (copied < field->length && bytes[copied] != 0) {
        field_text[copied] = static_cast<char>(bytes[copied]);
        ++copied;
    }
    std::memset(field_text + copied, ' ', field->length - copied);
    field_text[field->length] = '\0';

    char compare_text[kMaxValueLength + 1];
    std::memcpy(compare_text, value, value_length + 1);
    const bool exact = comparison->comparison == Comparison::equal ||
                       comparison->comparison == Comparison::not_equal;
    if (exact && value_length < field->length) {
        std::memset(compare_text + value_length, ' ', field->length - value_length);
        compare_text[field->length] = '\0';
    }

    ttrace(stream, "TTRACE: compare (%s) \n", field_text);
    ttrace(stream, "TTRACE: length   %d  \n", static_cast<int>(field->length));
    ttrace(stream, "TTRACE: compare to (%s) \n", compare_text);
    ttrace(stream, "TTRACE: length   %d  \n", static_cast<int>(value_length));
    ttrace(stream, "TTRACE: comparison type = %d \n", static_cast<int>(comparison->comparison));

    const bool equal = value_length <= field->length &&
                       std::memcmp(field_text, compare_text, field->length) == 0;
    const bool contained = std::string_view(field_text).find(compare_text) != std::string_view::npos;
    int result = 0;
    switch (comparison->comparison) {
        case Comparison::equal: result = equal ? 1 : 0; break;
        case Comparison::not_equal: result = equal ? 0 : 1; break;
        case Comparison::has: result = contained ? 1 : 0; break;
        case Comparison::has_not: result = contained ? 0 : 1; break;
    }
    ttrace(stream, "TTRACE: execute_if exit rc=%d \n", result);
    return result;
}

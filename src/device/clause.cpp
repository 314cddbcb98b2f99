// Argument access and number parsing shared by every command.
#include <cstdint>

#include "context/context.h"
#include "device/executor.h"

std::string_view CommandClause::token(int32_t i) const {
    if (i < 0 || i >= count || first + i >= kMaxTokens) return {};
    return {line + tokens->start[first + i], static_cast<std::size_t>(tokens->length[first + i])};
}

const char* CommandClause::rest(int32_t i) const {
    if (i < 0 || i >= count || first + i >= kMaxTokens) return line + std::char_traits<char>::length(line);
    return line + tokens->start[first + i];
}

bool keyword_matches(std::string_view token, std::string_view keyword) {
    return token.size() >= keyword.size() && token.substr(0, keyword.size()) == keyword;
}

namespace {
// Every character after an optional '-' counts as a digit, unchecked;
// arithmetic wraps like the fixed-width integers it is done in.
template <typename Unsigned>
Unsigned digits_value(const char* text, int32_t length, bool& negative) {
    Unsigned value = 0;
    int32_t i = 0;
    negative = length > 0 && text[0] == '-';
    if (negative) i = 1;
    for (; i < length; ++i) value = value * 10 + static_cast<Unsigned>(static_cast<unsigned char>(text[i]) - '0');
    return value;
}
}  // namespace

int64_t parse_count(const char* text, int32_t length) {
    if (length == 1 && text[0] == '*') return static_cast<int32_t>(static_cast<uint32_t>(block_max));
    bool negative = false;
    uint32_t value = digits_value<uint32_t>(text, length, negative);
    if (negative) value = 0u - value;
    return static_cast<int32_t>(value);
}

int64_t parse_long(const char* text, int32_t length) {
    bool negative = false;
    uint64_t value = digits_value<uint64_t>(text, length, negative);
    if (negative) value = 0u - value;
    return static_cast<int64_t>(value);
}

void* select_buffer(void* default_address) {
    if (test_context.buffer_override_armed) {
        test_context.buffer_override_armed = 0;
        return reinterpret_cast<void*>(test_context.buffer_override);
    }
    return default_address;
}

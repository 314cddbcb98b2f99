// The case format: sections, the escapes of a body, and the masks.
#include <cstdio>
#include <cstring>

#include "check/check.h"

namespace check {

namespace {

constexpr std::string_view kKeywords[] = {"run", "file", "stdin", "expect", "status"};
constexpr std::string_view kNoEol = " (no-eol)";

}  // namespace

bool read_file(const std::string& path, std::string* out) {
    FILE* in = std::fopen(path.c_str(), "rb");
    if (in == nullptr) return false;
    out->clear();
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) out->append(buffer, n);
    bool ok = std::ferror(in) == 0;
    std::fclose(in);
    return ok;
}

bool write_file(const std::string& path, std::string_view data) {
    FILE* out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) return false;
    bool ok = std::fwrite(data.data(), 1, data.size(), out) == data.size();
    return std::fclose(out) == 0 && ok;
}

// A header line is "--- " followed by one of the keywords; a body line that
// would read as one is written with its first byte escaped.
static bool header_keyword(std::string_view line, std::string_view* keyword, std::string_view* argument) {
    if (line.substr(0, 4) != "--- ") return false;
    std::string_view rest = line.substr(4);
    size_t blank = rest.find(' ');
    std::string_view word = rest.substr(0, blank);
    for (std::string_view k : kKeywords) {
        if (word == k) {
            *keyword = word;
            *argument = blank == std::string_view::npos ? std::string_view{} : rest.substr(blank + 1);
            return true;
        }
    }
    return false;
}

bool parse_case(const std::string& text, Case* c, std::string* error) {
    size_t pos = 0;
    Section* current = nullptr;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        size_t next = end == std::string::npos ? text.size() : end + 1;
        std::string_view line(text.data() + pos, (end == std::string::npos ? text.size() : end) - pos);
        std::string_view keyword, argument;
        if (header_keyword(line, &keyword, &argument)) {
            c->sections.push_back({std::string(keyword), std::string(argument), {}});
            current = &c->sections.back();
        } else if (current != nullptr) {
            current->body.append(text, pos, next - pos);
        } else {
            c->preamble.append(text, pos, next - pos);
        }
        pos = next;
    }
    int runs = 0;
    for (const Section& s : c->sections) {
        if (s.keyword == "run") ++runs;
        if ((s.keyword == "file" || s.keyword == "expect") && s.argument.empty()) {
            *error = "--- " + s.keyword + " needs a name";
            return false;
        }
    }
    if (runs != 1) {
        *error = "a case needs exactly one --- run section";
        return false;
    }
    return true;
}

static int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The bytes a body stands for: \xHH and \\ decoded, " (no-eol)" at the end
// of the last line taking that line's line end away.
std::string decode(std::string_view body) {
    const std::string tail = std::string(kNoEol) + "\n";
    if (body.size() >= tail.size() && body.substr(body.size() - tail.size()) == tail) body.remove_suffix(tail.size());
    std::string out;
    for (size_t i = 0; i < body.size(); ++i) {
        if (body[i] == '\\' && i + 1 < body.size() && body[i + 1] == '\\') {
            out += '\\';
            ++i;
        } else if (body[i] == '\\' && i + 3 < body.size() && body[i + 1] == 'x' && hex_digit(body[i + 2]) >= 0 &&
                   hex_digit(body[i + 3]) >= 0) {
            out += static_cast<char>(hex_digit(body[i + 2]) * 16 + hex_digit(body[i + 3]));
            i += 3;
        } else {
            out += body[i];
        }
    }
    return out;
}

static bool digits(std::string_view s, size_t at, size_t count) {
    if (at + count > s.size()) return false;
    for (size_t i = at; i < at + count; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

static bool clock_time(std::string_view s, size_t at) {
    return digits(s, at, 2) && at + 8 <= s.size() && s[at + 2] == ':' && digits(s, at + 3, 2) && s[at + 5] == ':' &&
           digits(s, at + 6, 2);
}

static bool name3(std::string_view s, size_t at) {
    return at + 3 <= s.size() && s[at] >= 'A' && s[at] <= 'Z' && s[at + 1] >= 'a' && s[at + 1] <= 'z' &&
           s[at + 2] >= 'a' && s[at + 2] <= 'z';
}

// Length of a ctime date ("Mon Nov 23 15:50:59 2026") at `at`, 0 if none.
static size_t ctime_length(std::string_view s, size_t at) {
    if (!name3(s, at) || at + 24 > s.size() || s[at + 3] != ' ' || !name3(s, at + 4) || s[at + 7] != ' ') return 0;
    if (!(s[at + 8] == ' ' || digits(s, at + 8, 1)) || !digits(s, at + 9, 1) || s[at + 10] != ' ') return 0;
    if (!clock_time(s, at + 11) || s[at + 19] != ' ') return 0;
    size_t n = 20;
    while (digits(s, at + n, 1)) ++n;
    return n >= 24 ? n : 0;
}

// Replaces the number printed after `label` (padding included) by `mask`.
static void mask_number(std::string& line, std::string_view label, std::string_view mask) {
    size_t at = line.find(label);
    if (at == std::string::npos) return;
    size_t begin = at + label.size(), end = begin;
    while (end < line.size() && line[end] == ' ') ++end;
    while (end < line.size() && (std::strchr("+-.0123456789", line[end]) != nullptr ||
                                 (line[end] >= 'a' && line[end] <= 'z')))
        ++end;
    if (end > begin) line.replace(begin, end - begin, mask);
}

// Masks one line of escaped text: only what differs between two runs of
// the same case.
static void mask_line(std::string& line) {
    if (clock_time(line, 0) && line.compare(8, 6, " Line ") == 0) line.replace(0, 8, "hh:mm:ss");
    for (size_t at = 0; at < line.size(); ++at) {
        size_t n = ctime_length(line, at);
        if (n > 0) line.replace(at, n, "<ctime>");
    }
    mask_number(line, "elapsed time in seconds = ", "<elapsed>");
    mask_number(line, "Data rate = ", "<rate>");
}

// The text a body would hold for `bytes`, masked: the inverse of decode()
// for everything that is not masked.
std::string visible(std::string_view bytes) {
    std::string out, line;
    auto finish = [&](bool eol) {
        mask_line(line);
        if (line.compare(0, 4, "--- ") == 0) line.replace(0, 1, "\\x2d");
        out += line;
        out += eol ? "\n" : std::string(kNoEol) + "\n";
        line.clear();
    };
    for (unsigned char c : bytes) {
        if (c == '\n') {
            finish(true);
        } else if (c == '\\') {
            line += "\\\\";
        } else if (c == '\t' || (c >= 0x20 && c < 0x7f)) {
            line += static_cast<char>(c);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            line += hex;
        }
    }
    if (!line.empty()) finish(false);
    return out;
}

// The body as the checker compares it: masked the same way as the actual
// text, so that an approved transcript may be raw or already masked.
std::string normal(std::string_view body) { return visible(decode(body)); }

}  // namespace check

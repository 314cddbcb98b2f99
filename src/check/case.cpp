// The case format: sections and their checks, the escapes of a body, and
// the masks for what changes from run to run.
#include <limits.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "check/check.h"

namespace check {

namespace {

constexpr std::string_view kKeywords[] = {"run", "file", "stdin", "expect", "status"};
constexpr std::string_view kNoEol = " (no-eol)";

}  // namespace

const Section* Case::find(std::string_view keyword) const {
    for (const Section& s : sections)
        if (s.keyword == keyword) return &s;
    return nullptr;
}

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

std::string self_path() {
    char buffer[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return "tarnwick-check";
    buffer[n] = '\0';
    return buffer;
}

namespace {

// A name a case gives a file: inside its scratch folder, so relative and
// never climbing out of it.
bool confined(const std::string& name) {
    std::filesystem::path p(name);
    if (name.empty() || p.is_absolute()) return false;
    for (const auto& part : p)
        if (part == "..") return false;
    return true;
}

std::string checked_section(const Section& s) {
    const std::string& a = s.argument;
    if (s.keyword == "run") {
        bool sim = false, config = false;
        for (size_t at = 0; at <= a.size();) {
            size_t end = a.find(' ', at);
            if (end == std::string::npos) end = a.size();
            std::string word = a.substr(at, end - at);
            if (word == "sim" && !sim) {
                sim = true;
            } else if (word.compare(0, 7, "config=") == 0 && word.size() > 7 && !config) {
                config = true;
                if (!confined(word.substr(7))) return "--- run " + word + ": the file must be in the scratch folder";
            } else if (!word.empty()) {
                return "--- run: '" + word + "' is neither sim nor config=FILE";
            }
            at = end + 1;
        }
        if (config && !sim) return "--- run: config=FILE is the simulator's, and needs sim";
    } else if (s.keyword == "file" || s.keyword == "expect") {
        if (a.empty()) return "--- " + s.keyword + " needs a name";
        if (!(s.keyword == "expect" && (a == "stdout" || a == "stderr")) && !confined(a))
            return "--- " + s.keyword + " " + a + ": names a file outside the scratch folder (no leading /, no ..)";
    } else if (s.keyword == "stdin") {
        if (!a.empty()) return "--- stdin takes no name";
    } else if (s.keyword == "status") {
        bool number = !a.empty() && a.size() <= 3 && a.find_first_not_of("0123456789") == std::string::npos;
        if (!number || std::stoi(a) > 255) return "--- status needs an exit status from 0 to 255, not '" + a + "'";
    }
    return {};
}

}  // namespace

bool parse_case(const std::string& text, Case* c, std::string* error) {
    size_t pos = 0;
    int number = 0;
    Section* current = nullptr;
    auto fail = [&](int line, const std::string& what) {
        *error = std::to_string(line) + ": " + what;
        return false;
    };
    while (pos < text.size()) {
        ++number;
        size_t end = text.find('\n', pos);
        size_t next = end == std::string::npos ? text.size() : end + 1;
        std::string_view line(text.data() + pos, (end == std::string::npos ? text.size() : end) - pos);
        size_t cr = line.find('\r');
        if (cr != std::string_view::npos) {
            return fail(number, cr + 1 == line.size()
                                    ? "the line ends in CR LF; a case file ends its lines with LF alone"
                                    : "a carriage return; a body writes it \\x0d");
        }
        if (line.substr(0, 4) == "--- ") {
            std::string_view rest = line.substr(4);
            size_t blank = rest.find(' ');
            std::string_view word = rest.substr(0, blank);
            bool known = false;
            for (std::string_view k : kKeywords) known |= word == k;
            if (!known) {
                return fail(number, "unknown section '--- " + std::string(word) +
                                        "' (run, file, stdin, expect, status; a body line that begins with "
                                        "\"--- \" is written \\x2d-- )");
            }
            std::string argument = blank == std::string_view::npos ? "" : std::string(rest.substr(blank + 1));
            c->sections.push_back({std::string(word), argument, {}, number});
            current = &c->sections.back();
            std::string what = checked_section(*current);
            if (!what.empty()) return fail(number, what);
            for (size_t i = 0; i + 1 < c->sections.size(); ++i) {
                const Section& s = c->sections[i];
                bool named = s.keyword == "file" || s.keyword == "expect";
                if (s.keyword == current->keyword && (!named || s.argument == current->argument)) {
                    return fail(number, "a second '" + std::string(line) + "' (the first is at line " +
                                            std::to_string(s.line) + ")");
                }
            }
        } else if (current != nullptr) {
            current->body.append(text, pos, next - pos);
        } else {
            c->preamble.append(text, pos, next - pos);
        }
        pos = next;
    }
    if (c->find("run") == nullptr) return fail(number, "a case needs a --- run section");
    return true;
}

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

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

namespace {

bool digits(std::string_view s, size_t at, size_t count) {
    if (at + count > s.size()) return false;
    for (size_t i = at; i < at + count; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

bool clock_time(std::string_view s, size_t at) {
    return digits(s, at, 2) && at + 8 <= s.size() && s[at + 2] == ':' && digits(s, at + 3, 2) && s[at + 5] == ':' &&
           digits(s, at + 6, 2);
}

bool name3(std::string_view s, size_t at) {
    return at + 3 <= s.size() && s[at] >= 'A' && s[at] <= 'Z' && s[at + 1] >= 'a' && s[at + 1] <= 'z' &&
           s[at + 2] >= 'a' && s[at + 2] <= 'z';
}

// Length of a ctime date ("Mon Nov 23 15:50:59 2026") at `at`, 0 if none.
size_t ctime_length(std::string_view s, size_t at) {
    if (!name3(s, at) || at + 24 > s.size() || s[at + 3] != ' ' || !name3(s, at + 4) || s[at + 7] != ' ') return 0;
    if (!(s[at + 8] == ' ' || digits(s, at + 8, 1)) || !digits(s, at + 9, 1) || s[at + 10] != ' ') return 0;
    if (!clock_time(s, at + 11) || s[at + 19] != ' ') return 0;
    size_t n = 20;
    while (digits(s, at + n, 1)) ++n;
    return n >= 24 ? n : 0;
}

// Replaces the number printed after `label` (padding included) by `mask`.
void mask_number(std::string& line, std::string_view label, std::string_view mask) {
    size_t at = line.find(label);
    if (at == std::string::npos) return;
    size_t begin = at + label.size(), end = begin;
    while (end < line.size() && line[end] == ' ') ++end;
    while (end < line.size() && (std::strchr("+-.0123456789", line[end]) != nullptr ||
                                 (line[end] >= 'a' && line[end] <= 'z')))
        ++end;
    if (end > begin) line.replace(begin, end - begin, mask);
}

// Replaces a path ending in "/vpathsim-run.XXXXXX" (the temporary state
// of a `vpathsim run` without --state) by `mask`.
void mask_sim_runs(std::string& line) {
    static constexpr std::string_view kRun = "/vpathsim-run.";
    for (size_t at = line.find(kRun); at != std::string::npos; at = line.find(kRun, at + 1)) {
        size_t end = at + kRun.size();
        while (end < line.size() && (std::isalnum(static_cast<unsigned char>(line[end])) != 0)) ++end;
        if (end != at + kRun.size() + 6) continue;
        size_t begin = at;
        while (begin > 0 && std::strchr(" \t'\"=(:", line[begin - 1]) == nullptr) --begin;
        line.replace(begin, end - begin, "<simstate>");
        at = begin;
    }
}

// "pid 1234", "PID=1234", "process 1234": a process id reads <pid>.
void mask_pids(std::string& line) {
    for (std::string_view word : {"pid", "PID", "process"}) {
        for (size_t at = line.find(word); at != std::string::npos; at = line.find(word, at + 1)) {
            if (at > 0 && std::isalnum(static_cast<unsigned char>(line[at - 1])) != 0) continue;
            size_t begin = at + word.size();
            if (begin < line.size() && std::strchr(" =:", line[begin]) != nullptr) ++begin;
            if (begin < line.size() && line[begin] == ' ' && line[begin - 1] == ':') ++begin;
            size_t end = begin;
            while (end < line.size() && digits(line, end, 1)) ++end;
            if (end == begin || (end < line.size() && std::isalnum(static_cast<unsigned char>(line[end])) != 0))
                continue;
            line.replace(begin, end - begin, "<pid>");
        }
    }
}

// A results file (-j) carries the unit of a measured time or rate in the
// key's name: the number after a key ending in _s or _us varies by run.
void mask_result_times(std::string& line) {
    for (std::string_view unit : {"_s\":", "_us\":"}) {
        for (size_t at = line.find(unit); at != std::string::npos; at = line.find(unit, at + 1)) {
            size_t begin = at + unit.size(), end = begin;
            while (end < line.size() && std::strchr("+-.0123456789e", line[end]) != nullptr) ++end;
            if (end > begin) line.replace(begin, end - begin, "<t>");
        }
    }
}

// Masks one line of escaped text: only what differs between two runs of
// the same case. The run's own folders go first, as their names may hold
// anything the other masks look for.
void mask_line(std::string& line, const Masks& masks) {
    for (const auto& [text, mask] : masks) {
        if (text.empty()) continue;
        for (size_t at = line.find(text); at != std::string::npos; at = line.find(text, at + mask.size())) {
            line.replace(at, text.size(), mask);
        }
    }
    if (clock_time(line, 0) && line.compare(8, 6, " Line ") == 0) line.replace(0, 8, "hh:mm:ss");
    for (size_t at = 0; at < line.size(); ++at) {
        size_t n = ctime_length(line, at);
        if (n > 0) line.replace(at, n, "<ctime>");
    }
    mask_number(line, "elapsed time in seconds = ", "<elapsed>");
    mask_number(line, "Data rate = ", "<rate>");
    mask_result_times(line);
    mask_sim_runs(line);
    mask_pids(line);
}

}  // namespace

// The text a body would hold for `bytes`, masked: the inverse of decode()
// for everything that is not masked. A line of its own that ends like the
// no-eol mark has its "(" escaped, so each text has one body and back.
std::string visible(std::string_view bytes, const Masks& masks) {
    std::string out, line;
    auto finish = [&](bool eol) {
        mask_line(line, masks);
        if (line.compare(0, 4, "--- ") == 0) line.replace(0, 1, "\\x2d");
        if (line.size() >= kNoEol.size() && line.compare(line.size() - kNoEol.size(), kNoEol.size(), kNoEol) == 0)
            line.replace(line.size() - kNoEol.size() + 1, 1, "\\x28");
        out += line;
        out += eol ? "\n" : std::string(kNoEol) + "\n";
        line.clear();
    };
    bool pending = false;  // a line begun, even an empty one
    for (unsigned char c : bytes) {
        pending = true;
        if (c == '\n') {
            finish(true);
            pending = false;
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
    if (pending) finish(false);
    return out;
}

// The body as the checker compares it: masked the same way as the actual
// text, so that an approved transcript may be raw or already masked.
std::string normal(std::string_view body, const Masks& masks) { return visible(decode(body), masks); }

}  // namespace check

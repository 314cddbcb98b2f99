// tarnwick-check: runs golden cases (a run, its inputs and its literal
// expected output in one file) and compares, or compares a transcript with
// an approved one. Only what changes from run to run is masked; everything
// else, trailing blanks and line ends included, must match byte for byte.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: tarnwick-check [--approve] [--keep] [--timeout SECONDS] CASE...\n"
    "       tarnwick-check [--approve] --compare APPROVED ACTUAL\n"
    "Runs each golden case and compares its results with the case's expectations,\n"
    "or compares the transcript ACTUAL with the approved transcript APPROVED.\n"
    "Times, dates, elapsed seconds and data rates (in -j results lines, the\n"
    "numbers of keys ending in _s or _us) are masked. --approve writes\n"
    "the actual results as the new expectations. Exit status: 0 equal,\n"
    "1 different, 2 the case could not be read or run.\n";

constexpr int kDifferent = 1;
constexpr int kTrouble = 2;

struct Options {
    bool approve = false;
    bool keep = false;
    int timeout_seconds = 120;
    std::string tarnwick;  // the tool under test; its directory goes first on PATH
    std::string vpathsim;
};

// One "--- KEYWORD ARGUMENT" section of a case; `body` is the escaped text
// exactly as the file holds it.
struct Section {
    std::string keyword;
    std::string argument;
    std::string body;
};

struct Case {
    std::string preamble;  // comment lines before the first section
    std::vector<Section> sections;
};

constexpr std::string_view kKeywords[] = {"run", "file", "stdin", "expect", "status"};
constexpr std::string_view kNoEol = " (no-eol)";

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
bool header_keyword(std::string_view line, std::string_view* keyword, std::string_view* argument) {
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

int hex_digit(char c) {
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

// Masks one line of escaped text: only what differs between two runs of
// the same case.
void mask_line(std::string& line) {
    if (clock_time(line, 0) && line.compare(8, 6, " Line ") == 0) line.replace(0, 8, "hh:mm:ss");
    for (size_t at = 0; at < line.size(); ++at) {
        size_t n = ctime_length(line, at);
        if (n > 0) line.replace(at, n, "<ctime>");
    }
    mask_number(line, "elapsed time in seconds = ", "<elapsed>");
    mask_number(line, "Data rate = ", "<rate>");
    // A results file (-j) carries the unit of a measured time or rate in
    // the key's name: a number after a key ending in _s or _us is masked.
    for (std::string_view unit : {"_s\":", "_us\":"}) {
        for (size_t at = line.find(unit); at != std::string::npos; at = line.find(unit, at + 1)) {
            size_t begin = at + unit.size(), end = begin;
            while (end < line.size() && std::strchr("+-.0123456789e", line[end]) != nullptr) ++end;
            if (end > begin) line.replace(begin, end - begin, "<t>");
        }
    }
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

std::string self_directory() {
    char buffer[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return ".";
    buffer[n] = '\0';
    return fs::path(buffer).parent_path().string();
}

// Prints a unified diff of two texts; returns false when they differ.
bool same_or_diff(const std::string& name, const std::string& expected, const std::string& actual,
                  const std::string& scratch) {
    if (expected == actual) return true;
    std::string a = scratch + "/.expected", b = scratch + "/.actual";
    if (write_file(a, expected) && write_file(b, actual)) {
        std::fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            std::string la = "expected " + name, lb = "actual " + name;
            execlp("diff", "diff", "-u", "--label", la.c_str(), "--label", lb.c_str(), a.c_str(), b.c_str(),
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        if (pid > 0) waitpid(pid, &status, 0);
        if (pid < 0 || !WIFEXITED(status) || WEXITSTATUS(status) > 1) {
            std::printf("--- expected %s\n%s+++ actual %s\n%s", name.c_str(), expected.c_str(), name.c_str(),
                        actual.c_str());
        }
    }
    return false;
}

struct RunResult {
    int status = -1;
    bool timed_out = false;
    std::string out, err;
};

// Runs the case's script in `scratch` and collects its streams and status.
bool run_case(const Case& c, const Options& o, const std::string& scratch, RunResult* r, std::string* error) {
    const Section* run = nullptr;
    std::string input;
    for (const Section& s : c.sections) {
        if (s.keyword == "run") run = &s;
        if (s.keyword == "stdin") input = decode(s.body);
        if (s.keyword == "file" && !write_file(scratch + "/" + s.argument, decode(s.body))) {
            *error = "cannot write " + s.argument + ": " + std::strerror(errno);
            return false;
        }
    }
    if (run == nullptr) {
        *error = "no --- run section";
        return false;
    }
    bool sim = false;
    std::string config;
    for (size_t at = 0; at < run->argument.size();) {
        size_t end = run->argument.find(' ', at);
        if (end == std::string::npos) end = run->argument.size();
        std::string word = run->argument.substr(at, end - at);
        if (word == "sim") {
            sim = true;
        } else if (word.compare(0, 7, "config=") == 0) {
            config = word.substr(7);
        } else if (!word.empty()) {
            *error = "unknown run option " + word;
            return false;
        }
        at = end + 1;
    }
    std::string in_path = scratch + "/.stdin", out_path = scratch + "/.stdout", err_path = scratch + "/.stderr";
    if (!write_file(in_path, input)) {
        *error = std::string("cannot write standard input: ") + std::strerror(errno);
        return false;
    }
    std::string script = decode(run->body);
    std::vector<std::string> args;
    if (sim) {
        args = {o.vpathsim, "run"};
        if (!config.empty()) args.insert(args.end(), {"--config", config});
        args.push_back("--");
    }
    args.insert(args.end(), {"/bin/sh", "-c", script});
    std::string path = fs::path(o.tarnwick).parent_path().string() + ":" +
                       fs::path(o.vpathsim).parent_path().string() + ":" + self_directory();
    if (const char* old = getenv("PATH")) path += std::string(":") + old;

    std::fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        *error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0) {
        setpgid(0, 0);
        int in = open(in_path.c_str(), O_RDONLY);
        int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || chdir(scratch.c_str()) != 0) _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        // Only the three streams are inherited, so the descriptor numbers a
        // run prints depend on the run alone, not on who started the checker.
        close_range(3, ~0U, 0);
        setenv("PATH", path.c_str(), 1);
        setenv("LC_ALL", "C", 1);
        std::vector<char*> argv;
        argv.reserve(args.size() + 1);
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    time_t deadline = time(nullptr) + o.timeout_seconds;
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        if (done < 0 && errno != EINTR) {
            *error = std::string("waitpid: ") + std::strerror(errno);
            return false;
        }
        if (time(nullptr) > deadline) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            r->timed_out = true;
            break;
        }
        usleep(5000);
    }
    // Whatever the run left behind in its process group must not outlive it.
    kill(-pid, SIGKILL);
    r->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    read_file(out_path, &r->out);
    read_file(err_path, &r->err);
    return true;
}

std::string actual_of(const Section& s, const RunResult& r, const std::string& scratch, bool* exists) {
    *exists = true;
    if (s.argument == "stdout") return r.out;
    if (s.argument == "stderr") return r.err;
    std::string data;
    if (!read_file(scratch + "/" + s.argument, &data)) *exists = false;
    return data;
}

// Rewrites the case with the run's results as its expectations: inputs
// first as they were, then the expected files in their order, the streams
// when not empty, the status when not 0.
bool approve_case(const std::string& path, const Case& c, const RunResult& r, const std::string& scratch) {
    std::string text = c.preamble;
    for (const Section& s : c.sections) {
        if (s.keyword == "expect" || s.keyword == "status") continue;
        text += "--- " + s.keyword + (s.argument.empty() ? "" : " " + s.argument) + "\n" + s.body;
    }
    for (const Section& s : c.sections) {
        if (s.keyword != "expect" || s.argument == "stdout" || s.argument == "stderr") continue;
        bool exists;
        std::string data = actual_of(s, r, scratch, &exists);
        text += "--- expect " + s.argument + "\n" + visible(data);
    }
    if (!r.out.empty()) text += "--- expect stdout\n" + visible(r.out);
    if (!r.err.empty()) text += "--- expect stderr\n" + visible(r.err);
    if (r.status != 0) text += "--- status " + std::to_string(r.status) + "\n";
    return write_file(path, text);
}

// Runs one case; returns 0, kDifferent or kTrouble.
int check_case(const std::string& path, const Options& o) {
    std::string text, error;
    Case c;
    if (!read_file(path, &text)) {
        std::fprintf(stderr, "tarnwick-check: %s: %s\n", path.c_str(), std::strerror(errno));
        return kTrouble;
    }
    if (!parse_case(text, &c, &error)) {
        std::fprintf(stderr, "tarnwick-check: %s: %s\n", path.c_str(), error.c_str());
        return kTrouble;
    }
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tarnwick-check.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::fprintf(stderr, "tarnwick-check: scratch folder: %s\n", std::strerror(errno));
        return kTrouble;
    }
    const std::string scratch = pattern;
    RunResult r;
    int result = 0;
    if (!run_case(c, o, scratch, &r, &error)) {
        std::fprintf(stderr, "tarnwick-check: %s: %s\n", path.c_str(), error.c_str());
        result = kTrouble;
    } else if (r.timed_out) {
        std::printf("%s: the run did not end within %d seconds\n", path.c_str(), o.timeout_seconds);
        result = kDifferent;
    } else if (o.approve) {
        if (!approve_case(path, c, r, scratch)) {
            std::fprintf(stderr, "tarnwick-check: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
            result = kTrouble;
        }
    } else {
        bool same = true, saw_out = false, saw_err = false;
        int expected_status = 0;
        for (const Section& s : c.sections) {
            if (s.keyword == "status") expected_status = std::atoi(s.argument.c_str());
            if (s.keyword != "expect") continue;
            saw_out |= s.argument == "stdout";
            saw_err |= s.argument == "stderr";
            bool exists;
            std::string data = actual_of(s, r, scratch, &exists);
            std::string actual = exists ? visible(data) : "(no file " + s.argument + ")\n";
            if (!same_or_diff(s.argument, normal(s.body), actual, scratch)) same = false;
        }
        if (!saw_out && !same_or_diff("stdout", "", visible(r.out), scratch)) same = false;
        if (!saw_err && !same_or_diff("stderr", "", visible(r.err), scratch)) same = false;
        if (r.status != expected_status) {
            std::printf("exit status %d, expected %d\n", r.status, expected_status);
            same = false;
        }
        if (!same) {
            std::printf("%s: differs from the run above\n", path.c_str());
            result = kDifferent;
        }
    }
    if (o.keep) {
        std::printf("%s: kept %s\n", path.c_str(), scratch.c_str());
    } else {
        std::error_code ignored;
        fs::remove_all(scratch, ignored);
    }
    return result;
}

int compare_transcripts(const std::string& approved, const std::string& actual, const Options& o) {
    std::string a, b;
    if (!read_file(actual, &b)) {
        std::fprintf(stderr, "tarnwick-check: %s: %s\n", actual.c_str(), std::strerror(errno));
        return kTrouble;
    }
    if (o.approve) {
        if (write_file(approved, b)) return 0;
        std::fprintf(stderr, "tarnwick-check: cannot write %s: %s\n", approved.c_str(), std::strerror(errno));
        return kTrouble;
    }
    if (!read_file(approved, &a)) {
        std::fprintf(stderr, "tarnwick-check: %s: %s\n", approved.c_str(), std::strerror(errno));
        return kTrouble;
    }
    std::string expected = visible(a), got = visible(b);
    if (expected == got) return 0;
    char dir[] = "/tmp/tarnwick-check.XXXXXX";
    if (mkdtemp(dir) == nullptr) return kTrouble;
    same_or_diff(fs::path(actual).filename().string(), expected, got, dir);
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    return kDifferent;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    std::string here = self_directory();
    o.tarnwick = here + "/tarnwick";
    o.vpathsim = here + "/vpathsim";
    if (const char* t = getenv("TARNWICK")) o.tarnwick = t;
    if (const char* v = getenv("VPATHSIM")) o.vpathsim = v;
    bool compare = false;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "--approve") {
            o.approve = true;
        } else if (a == "--keep") {
            o.keep = true;
        } else if (a == "--compare") {
            compare = true;
        } else if (a == "--timeout" && i + 1 < argc) {
            o.timeout_seconds = std::atoi(argv[++i]);
            if (o.timeout_seconds <= 0) o.timeout_seconds = 120;
        } else if ((a == "--tarnwick" || a == "--vpathsim") && i + 1 < argc) {
            (a == "--tarnwick" ? o.tarnwick : o.vpathsim) = argv[++i];
        } else if (a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a.size() > 1 && a[0] == '-') {
            std::fputs(kUsage, stderr);
            return kTrouble;
        } else {
            files.emplace_back(a);
        }
    }
    if (files.empty() || (compare && files.size() != 2)) {
        std::fputs(kUsage, stderr);
        return kTrouble;
    }
    // A path relative to the caller must still name the tool once the run
    // has moved into its scratch folder.
    std::error_code ignored;
    o.tarnwick = fs::absolute(o.tarnwick, ignored).string();
    o.vpathsim = fs::absolute(o.vpathsim, ignored).string();
    if (compare) return compare_transcripts(files[0], files[1], o);
    int worst = 0;
    for (const std::string& f : files) {
        int r = check_case(f, o);
        if (r > worst) worst = r;
    }
    return worst;
}

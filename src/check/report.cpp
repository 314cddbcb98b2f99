// The reports: a unified diff of a difference, --approve, and the JUnit
// XML file that CI servers read.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <vector>

#include "check/check.h"
#include "common/xml.h"

namespace fs = std::filesystem;

namespace check {

namespace {

// Runs diff with `options` on two files of `folder` holding a and b; true
// with its output in `text` when they differ (diff's status 1).
bool diff_of(const std::vector<std::string>& options, const std::string& a, const std::string& b,
             const std::string& folder, std::string* text) {
    const std::string old_file = folder + "/expected", new_file = folder + "/actual", out_file = folder + "/diff";
    text->clear();
    if (!write_file(old_file, a) || !write_file(new_file, b)) return false;
    std::vector<const char*> argv{"diff"};
    for (const std::string& o : options) argv.push_back(o.c_str());
    argv.insert(argv.end(), {old_file.c_str(), new_file.c_str(), nullptr});
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || dup2(out, 1) < 0) _exit(127);
        execvp("diff", const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    int status = 0;
    if (pid > 0) {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            if (caught_signal() != 0) kill(pid, SIGTERM);  // a long diff is not waited out
        }
    }
    return pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 1 && read_file(out_file, text);
}

// A scratch folder for two files to compare, or "" (said on standard error).
std::string compare_folder() {
    std::string dir = temporary_directory() + "/tarnwick-check.XXXXXX";
    if (mkdtemp(dir.data()) != nullptr) return dir;
    std::fprintf(stderr, "tarnwick-check: scratch folder %s: %s\n", dir.c_str(), std::strerror(errno));
    return {};
}

bool read_or_say(const std::string& path, std::string* out) {
    if (read_file(path, out)) return true;
    std::fprintf(stderr, "tarnwick-check: %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
}

}  // namespace

bool same_or_diff(const std::string& expected_label, const std::string& actual_label, const std::string& expected,
                  const std::string& actual, const std::string& folder, std::string* report) {
    if (expected == actual) return true;
    std::string text;
    if (!diff_of({"-u", "--label", expected_label, "--label", actual_label}, expected, actual, folder, &text))
        text = "--- " + expected_label + "\n" + expected + "+++ " + actual_label + "\n" + actual;
    std::fputs(text.c_str(), stdout);
    *report += text;
    return false;
}

// Lines are compared as the case shows them (escaped, times masked), so a
// time that ticked over between two runs is no difference; each line listed
// is given back as its bytes, a last line without a line end as one.
int show_changes(const std::string& old_path, const std::string& new_path) {
    std::string a, b;
    if (!read_or_say(old_path, &a) || !read_or_say(new_path, &b)) return kTrouble;
    a = visible(a), b = visible(b);
    if (a == b) return 0;
    const std::string dir = compare_folder();
    if (dir.empty()) return kTrouble;
    std::string text;
    const bool listed =
        diff_of({"--unchanged-line-format=", "--old-line-format=-%L", "--new-line-format=+%L"}, a, b, dir, &text);
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    if (!listed) {
        std::fprintf(stderr, "tarnwick-check: diff could not compare %s and %s\n", old_path.c_str(), new_path.c_str());
        return kTrouble;
    }
    for (size_t at = 0; at < text.size() && caught_signal() == 0;) {
        const size_t end = std::min(text.find('\n', at), text.size() - 1);
        const std::string raw = decode(std::string_view(text).substr(at + 1, end - at));
        std::fputc(text[at], stdout), std::fputc(' ', stdout), std::fwrite(raw.data(), 1, raw.size(), stdout);
        at = end + 1;
    }
    return kDifferent;
}

// Rewrites the case with the run's results as its expectations: inputs
// first as they were, then the expected files in their order, the streams
// when not empty, the status when not 0. A file the case expects and the
// run never wrote is not made up: the case stays as it was.
int approve_case(const std::string& path, const Case& c, const RunResult& r, const Scratch& s, std::string* error) {
    Masks masks = masks_of(s);
    std::string text = c.preamble;
    for (const Section& x : c.sections) {
        if (x.keyword == "expect" || x.keyword == "status") continue;
        text += "--- " + x.keyword + (x.argument.empty() ? "" : " " + x.argument) + "\n" + x.body;
    }
    for (const Section& x : c.sections) {
        if (x.keyword != "expect" || x.argument == "stdout" || x.argument == "stderr") continue;
        std::string data;
        if (!read_file(s.run + "/" + x.argument, &data)) {
            *error = std::to_string(x.line) + ": the run wrote no file " + x.argument + "; the case is left as it was";
            return kDifferent;
        }
        text += "--- expect " + x.argument + "\n" + visible(data, masks);
    }
    if (!r.out.empty()) text += "--- expect stdout\n" + visible(r.out, masks);
    if (!r.err.empty()) text += "--- expect stderr\n" + visible(r.err, masks);
    if (r.status != 0) text += "--- status " + std::to_string(r.status) + "\n";
    if (!write_file(path, text)) {
        *error = "cannot write the case: " + std::string(std::strerror(errno));
        return kTrouble;
    }
    return 0;
}

int compare_transcripts(const std::string& approved, const std::string& actual, const Options& o) {
    std::string a, b;
    if (!read_or_say(actual, &b)) return kTrouble;
    if (o.approve) {
        if (write_file(approved, b)) return 0;
        std::fprintf(stderr, "tarnwick-check: cannot write %s: %s\n", approved.c_str(), std::strerror(errno));
        return kTrouble;
    }
    if (!read_or_say(approved, &a)) return kTrouble;
    std::string expected = visible(a), got = visible(b);
    if (expected == got) return 0;
    const std::string dir = compare_folder();
    if (dir.empty()) return kTrouble;
    std::string report;
    same_or_diff("expected " + approved, "actual " + actual, expected, got, dir, &report);
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    return kDifferent;
}

namespace {

// The first lines that differ: the label and changed lines of the first
// hunk, read by its line counts ("@@ -1,2 +1,3 @@").
std::string first_difference(const std::string& report) {
    std::string lines, label;
    long removed = -1, added = -1;
    int count = 0;
    for (size_t at = 0; at < report.size();) {
        size_t end = report.find('\n', at);
        if (end == std::string::npos) end = report.size();
        std::string line = report.substr(at, end - at);
        at = end + 1;
        if (removed < 0) {
            if (line.compare(0, 4, "--- ") == 0) label = line.substr(4) + "\n";
            long a = 1, b = 1;
            int start_a = 0, start_b = 0;
            if (std::sscanf(line.c_str(), "@@ -%d,%ld +%d,%ld @@", &start_a, &a, &start_b, &b) == 4 ||
                std::sscanf(line.c_str(), "@@ -%d +%d,%ld @@", &start_a, &start_b, &b) == 3 ||
                (a = 1, b = 1, std::sscanf(line.c_str(), "@@ -%d,%ld +%d @@", &start_a, &a, &start_b) == 3) ||
                (a = 1, b = 1, std::sscanf(line.c_str(), "@@ -%d +%d @@", &start_a, &start_b) == 2)) {
                removed = a;
                added = b;
            }
            continue;
        }
        if (removed <= 0 && added <= 0) break;
        if (line.empty()) continue;
        if (line[0] != '+') --removed;
        if (line[0] != '-') --added;
        if (line[0] != ' ' && count++ < 6) lines += line + "\n";
    }
    if (lines.empty()) {
        size_t end = report.find('\n');
        return report.substr(0, end == std::string::npos ? report.size() : end + 1);
    }
    return label + lines;
}

// As CTest names the project's cases: the folder and the file's name,
// "check.checker" for tests/golden/check/checker.case.
std::string case_name(const std::string& file) {
    fs::path path(file);
    std::string folder = path.parent_path().filename().string();
    return folder.empty() ? path.stem().string() : folder + "." + path.stem().string();
}

}  // namespace

// The form `ctest --output-junit` writes, which CI servers read: one
// testcase per case, its failure message the first lines that differ.
bool write_junit(const std::string& path, const std::vector<Outcome>& outcomes) {
    int failures = 0, errors = 0;
    double total = 0;
    for (const Outcome& o : outcomes) {
        failures += o.result == kDifferent;
        errors += o.result == kTrouble;
        total += o.seconds;
    }
    char stamp[32] = "";
    time_t now = time(nullptr);
    struct tm local {};
    if (localtime_r(&now, &local) != nullptr) std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &local);
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    char head[1024];
    std::snprintf(head, sizeof head,
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                  "<testsuite name=\"tarnwick-check\" tests=\"%zu\" failures=\"%d\" errors=\"%d\" disabled=\"0\" "
                  "skipped=\"0\" hostname=\"%s\" time=\"%.6f\" timestamp=\"%s\">\n",
                  outcomes.size(), failures, errors, xml_text(host).c_str(), total, stamp);
    std::string text = head;
    for (const Outcome& o : outcomes) {
        std::string name = xml_text(case_name(o.file));
        char line[1024];
        std::snprintf(line, sizeof line, "\t<testcase name=\"%s\" classname=\"%s\" time=\"%.6f\" status=\"%s\">\n",
                      name.c_str(), name.c_str(), o.seconds, o.result == 0 ? "run" : "fail");
        text += line;
        if (o.result == kDifferent) text += "\t\t<failure message=\"" + xml_text(first_difference(o.report)) + "\"/>\n";
        if (o.result == kTrouble) text += "\t\t<error message=\"" + xml_text(o.message) + "\"/>\n";
        text += "\t\t<system-out>" + xml_text(o.report, false) + "</system-out>\n\t</testcase>\n";
    }
    text += "</testsuite>\n";
    return write_file(path, text);
}

}  // namespace check

// The reports: a unified diff of a difference, and --approve.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

#include "check/check.h"

namespace check {

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

}  // namespace check

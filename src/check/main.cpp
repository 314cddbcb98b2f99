// tarnwick-check: runs golden cases (a run, its inputs and its literal
// expected output in one file) and compares, or compares a transcript with
// an approved one. Only what changes from run to run is masked; everything
// else, trailing blanks and line ends included, must match byte for byte.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "check/check.h"

namespace fs = std::filesystem;
using namespace check;

namespace {

const char kUsage[] =
    "usage: tarnwick-check [--approve] [--keep] [--timeout SECONDS] CASE...\n"
    "       tarnwick-check [--approve] --compare APPROVED ACTUAL\n"
    "Runs each golden case and compares its results with the case's expectations,\n"
    "or compares the transcript ACTUAL with the approved transcript APPROVED.\n"
    "Times, dates, elapsed seconds and data rates are masked. --approve writes\n"
    "the actual results as the new expectations. Exit status: 0 equal,\n"
    "1 different, 2 the case could not be read or run.\n";

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

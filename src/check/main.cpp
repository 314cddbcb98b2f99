// tarnwick-check: runs golden cases (a run, its inputs and its literal
// expected output in one file) and compares, or compares a transcript with
// an approved one. Only what changes from run to run is masked; everything
// else, trailing blanks and line ends included, must match byte for byte.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
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
    "usage: tarnwick-check [--approve] [--keep] [--timeout SECONDS] [--junit FILE]\n"
    "                      [--tarnwick PATH] [--vpathsim PATH] [--tarnwick-plot PATH]\n"
    "                      CASE...\n"
    "       tarnwick-check [--approve] --compare APPROVED ACTUAL\n"
    "       tarnwick-check --changes OLD NEW\n"
    "Runs each golden case and compares its results with the case's expectations,\n"
    "compares the transcript ACTUAL with the approved transcript APPROVED, or\n"
    "lists the lines only OLD has (\"- \") and only NEW has (\"+ \").\n"
    "Times, dates, elapsed seconds, data rates, the measured times of -j results\n"
    "lines (keys ending in _s or _us), the case's scratch folder, the simulator's\n"
    "state folder and process ids are masked.\n"
    "  --approve          write the actual results as the new expectations\n"
    "  --keep             keep each case's scratch folder and print its name\n"
    "  --timeout SECONDS  end a run that lasts longer (default 120); it differs\n"
    "  --junit FILE       also write the results as JUnit XML, a testcase per case\n"
    "  --tarnwick PATH    the tarnwick the cases run (default $TARNWICK, else the\n"
    "                     one beside tarnwick-check)\n"
    "  --vpathsim PATH    the vpathsim the cases run (default $VPATHSIM, else the\n"
    "                     one beside tarnwick-check or in its sim/ folder)\n"
    "  --tarnwick-plot PATH  the tarnwick-plot the cases run (default\n"
    "                     $TARNWICK_PLOT, else the one beside tarnwick)\n"
    "Exit status: 0 equal, 1 different, 2 a case could not be read or run,\n"
    "128+N ended by signal N.\n";

double seconds_since(const timespec& start) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) + static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
}

// Printed on standard output and kept for the JUnit report.
void say(Outcome* out, const char* format, ...) {
    char line[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    std::fputs(line, stdout);
    out->report += line;
}

// A message with a line number, "12: what", reads "CASE:12: what".
int trouble(Outcome* out, const std::string& message, int result = kTrouble) {
    bool line = !message.empty() && message[0] >= '0' && message[0] <= '9';
    std::fprintf(stderr, "tarnwick-check: %s:%s%s\n", out->file.c_str(), line ? "" : " ", message.c_str());
    out->message = message;
    return out->result = result;
}

int compare_run(const Case& c, const RunResult& r, const Scratch& s, Outcome* out) {
    Masks masks = masks_of(s);
    bool same = true, saw_out = false, saw_err = false;
    int expected_status = 0;
    for (const Section& x : c.sections) {
        if (x.keyword == "status") expected_status = std::atoi(x.argument.c_str());
        if (x.keyword != "expect") continue;
        saw_out |= x.argument == "stdout";
        saw_err |= x.argument == "stderr";
        std::string data, actual;
        if (x.argument == "stdout") {
            actual = visible(r.out, masks);
        } else if (x.argument == "stderr") {
            actual = visible(r.err, masks);
        } else if (read_file(s.run + "/" + x.argument, &data)) {
            actual = visible(data, masks);
        } else {
            actual = "(no file " + x.argument + ")\n";
        }
        same &= same_or_diff("expected " + x.argument, "actual " + x.argument, normal(x.body, masks), actual,
                             s.top, &out->report);
    }
    if (!saw_out) same &= same_or_diff("expected stdout", "actual stdout", "", visible(r.out, masks), s.top, &out->report);
    if (!saw_err) same &= same_or_diff("expected stderr", "actual stderr", "", visible(r.err, masks), s.top, &out->report);
    if (r.status != expected_status) {
        say(out, "exit status %d, expected %d\n", r.status, expected_status);
        same = false;
    }
    if (same) return 0;
    say(out, "%s: differs from the run above\n", out->file.c_str());
    return kDifferent;
}

// Runs one case; sets and returns 0, kDifferent or kTrouble.
int check_case(const Options& o, Outcome* out) {
    std::string text, error;
    Case c;
    if (!read_file(out->file, &text)) return trouble(out, std::strerror(errno));
    if (!parse_case(text, &c, &error)) return trouble(out, error);
    Scratch s;
    if (!make_scratch(o, &s, &error)) return trouble(out, error);
    RunResult r;
    if (!run_case(c, o, s, &r, &error)) {
        trouble(out, error);
    } else if (caught_signal() != 0) {
        out->result = kTrouble;
        out->message = "stopped by signal " + std::to_string(caught_signal());
    } else if (!r.missing.empty()) {
        const Program& p = r.missing[0] == o.tarnwick.name   ? o.tarnwick
                           : r.missing[0] == o.vpathsim.name ? o.vpathsim
                                                             : o.plot;
        trouble(out, "the case runs " + p.name + ", and there is none (looked for " + p.looked + "); name it with --" +
                         p.name + " PATH or $" + p.variable);
    } else if (r.timed_out) {
        say(out, "%s: the run did not end within %d seconds\n", out->file.c_str(), o.timeout_seconds);
        out->result = kDifferent;
    } else if (o.approve) {
        if (int result = approve_case(out->file, c, r, s, &error); result != 0) trouble(out, error, result);
    } else {
        out->result = compare_run(c, r, s, out);
    }
    if (o.keep) {
        keep_scratch(s);
        say(out, "%s: kept %s\n", out->file.c_str(), s.run.c_str());
    } else {
        remove_scratch(s);
    }
    return out->result;
}

// The program a case runs as `name`: exactly the one named by the option or
// the variable, else the first of `places` there is. false: named, not there.
bool find_program(Program* p, const char* option, const std::vector<std::string>& places) {
    const char* env = getenv(p->variable.c_str());
    std::string named = option != nullptr ? option : env != nullptr ? env : "";
    std::string how = (option != nullptr ? "--" : "$") + (option != nullptr ? p->name : p->variable);
    if (!named.empty()) {
        std::error_code ec;
        std::string path = fs::absolute(named, ec).string();
        if (access(path.c_str(), X_OK) != 0) {
            std::fprintf(stderr, "tarnwick-check: %s %s: %s\n", how.c_str(), named.c_str(), std::strerror(errno));
            return false;
        }
        if (!fs::is_regular_file(path, ec)) {
            std::fprintf(stderr, "tarnwick-check: %s %s: not a program\n", how.c_str(), named.c_str());
            return false;
        }
        p->path = path;
        p->looked = path;
        return true;
    }
    for (const std::string& place : places) {
        if (!p->looked.empty()) p->looked += " and ";
        p->looked += place;
        std::error_code ec;
        if (p->path.empty() && access(place.c_str(), X_OK) == 0 && fs::is_regular_file(place, ec)) p->path = place;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    bool compare = false, changes = false;
    const char* tarnwick = nullptr;
    const char* vpathsim = nullptr;
    const char* plot = nullptr;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        bool value = i + 1 < argc;
        if (a == "--approve") {
            o.approve = true;
        } else if (a == "--keep") {
            o.keep = true;
        } else if (a == "--compare") {
            compare = true;
        } else if (a == "--changes") {
            changes = true;
        } else if (a == "--timeout" && value) {
            const char* t = argv[++i];
            char* end = nullptr;
            errno = 0;
            long seconds = std::strtol(t, &end, 10);
            if (end == t || *end != '\0' || errno != 0 || seconds <= 0 || seconds > 86400L * 365) {
                std::fprintf(stderr, "tarnwick-check: --timeout %s: a whole number of seconds, 1 or more\n", t);
                return kTrouble;
            }
            o.timeout_seconds = static_cast<int>(seconds);
        } else if (a == "--tarnwick" && value) {
            tarnwick = argv[++i];
        } else if (a == "--vpathsim" && value) {
            vpathsim = argv[++i];
        } else if (a == "--tarnwick-plot" && value) {
            plot = argv[++i];
        } else if (a == "--junit" && value) {
            o.junit = argv[++i];
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
    if (files.empty() || ((compare || changes) && files.size() != 2) || (compare && changes)) {
        std::fputs(kUsage, stderr);
        return kTrouble;
    }
    if (compare || changes) {
        // A signal waits for diff to end, so that its scratch folder goes.
        handle_ending_signals();
        const int r = compare ? compare_transcripts(files[0], files[1], o) : show_changes(files[0], files[1]);
        return caught_signal() != 0 ? 128 + caught_signal() : r;
    }
    // A build tree has the simulator in sim/, an installation beside us.
    std::string here = fs::path(self_path()).parent_path().string();
    if (!find_program(&o.tarnwick, tarnwick, {here + "/tarnwick"}) ||
        !find_program(&o.vpathsim, vpathsim, {here + "/vpathsim", here + "/sim/vpathsim"}) ||
        !find_program(&o.plot, plot,
                      {fs::path(o.tarnwick.path).parent_path().string() + "/tarnwick-plot", here + "/tarnwick-plot"}))
        return kTrouble;
    handle_ending_signals();
    sweep_stale_scratch();
    std::vector<Outcome> outcomes;
    int worst = 0;
    for (const std::string& f : files) {
        if (caught_signal() != 0) break;
        Outcome out;
        out.file = f;
        timespec start{};
        clock_gettime(CLOCK_MONOTONIC, &start);
        int r = check_case(o, &out);
        out.seconds = seconds_since(start);
        if (caught_signal() != 0) break;
        outcomes.push_back(out);
        if (r > worst) worst = r;
    }
    if (!o.junit.empty() && !write_junit(o.junit, outcomes)) {
        std::fprintf(stderr, "tarnwick-check: cannot write %s: %s\n", o.junit.c_str(), std::strerror(errno));
        if (worst < kTrouble) worst = kTrouble;
    }
    if (int n = caught_signal(); n != 0) return 128 + n;
    if (std::fflush(stdout) != 0 && worst < kTrouble) worst = kTrouble;
    return worst;
}

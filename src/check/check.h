// The parts of tarnwick-check: the case format (case.cpp), the run
// (run.cpp) and the reports (report.cpp), tied together by main.cpp.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace check {

constexpr int kDifferent = 1;
constexpr int kTrouble = 2;

// A program a case may run: the one to run, or where it was looked for.
struct Program {
    std::string name;      // as the case calls it: tarnwick, vpathsim
    std::string variable;  // the environment variable that names it: TARNWICK, VPATHSIM
    std::string path;      // absolute; empty when none was found
    std::string looked;  // the places tried, for the message that none was found
};

struct Options {
    bool approve = false;
    bool keep = false;
    int timeout_seconds = 120;
    Program tarnwick{"tarnwick", "TARNWICK", {}, {}};
    Program vpathsim{"vpathsim", "VPATHSIM", {}, {}};
    Program plot{"tarnwick-plot", "TARNWICK_PLOT", {}, {}};
    std::string junit;  // --junit FILE
};

// One "--- KEYWORD ARGUMENT" section of a case; `body` is the escaped text
// exactly as the file holds it, `line` the line number of its header.
struct Section {
    std::string keyword;
    std::string argument;
    std::string body;
    int line = 0;
};

struct Case {
    std::string preamble;  // comment lines before the first section
    std::vector<Section> sections;
    const Section* find(std::string_view keyword) const;
};

// Text that changes from run to run and the mask shown in its place.
using Masks = std::vector<std::pair<std::string, std::string>>;

// case.cpp
bool read_file(const std::string& path, std::string* out);
bool write_file(const std::string& path, std::string_view data);
// On a fault, `error` reads "LINE: what is wrong".
bool parse_case(const std::string& text, Case* c, std::string* error);
std::string decode(std::string_view body);
std::string visible(std::string_view bytes, const Masks& masks = {});
std::string normal(std::string_view body, const Masks& masks = {});
std::string self_path();

// run.cpp
// The folder of one run: `top` holds the checker's own files, `run` is the
// case's scratch folder (its working directory), `sim` the simulator state.
struct Scratch {
    std::string top, run, sim, bin;
    int lock = -1;  // the folder's lock, held while the checker or its supervisor lives
};
bool make_scratch(const Options& o, Scratch* s, std::string* error);
void remove_scratch(const Scratch& s);
void keep_scratch(const Scratch& s);  // for --keep: never swept
void sweep_stale_scratch();
std::string temporary_directory();  // $TMPDIR, else /tmp
Masks masks_of(const Scratch& s);

struct RunResult {
    int status = -1;
    bool timed_out = false;
    std::string out, err;
    std::vector<std::string> missing;  // programs the case ran that were not there
};
// Returns false with `error` when the case could not be run.
bool run_case(const Case& c, const Options& o, const Scratch& s, RunResult* r, std::string* error);
void handle_ending_signals();
int caught_signal();  // the first ending signal that arrived, 0 if none

// report.cpp
// Appends a unified diff of two texts to `report`; returns false when they differ.
bool same_or_diff(const std::string& expected_label, const std::string& actual_label, const std::string& expected,
                  const std::string& actual, const std::string& folder, std::string* report);
// Returns 0, kDifferent (a file the case expects was not written) or kTrouble.
int approve_case(const std::string& path, const Case& c, const RunResult& r, const Scratch& s, std::string* error);
int compare_transcripts(const std::string& approved, const std::string& actual, const Options& o);
// Lists the lines only OLD has ("- ") and only NEW has ("+ "), times masked
// in both: 0 the same, kDifferent, kTrouble.
int show_changes(const std::string& old_path, const std::string& new_path);

struct Outcome {
    std::string file;
    int result = 0;        // 0, kDifferent or kTrouble
    double seconds = 0;
    std::string report;    // what was printed for the case
    std::string message;   // why it could not be read or run
};
bool write_junit(const std::string& path, const std::vector<Outcome>& outcomes);

}  // namespace check

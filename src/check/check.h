// The parts of tarnwick-check: the case format (case.cpp), the run
// (run.cpp) and the reports (report.cpp), tied together by main.cpp.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace check {

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

bool read_file(const std::string& path, std::string* out);
bool write_file(const std::string& path, std::string_view data);
bool parse_case(const std::string& text, Case* c, std::string* error);
std::string decode(std::string_view body);
std::string visible(std::string_view bytes);
std::string normal(std::string_view body);
std::string self_directory();

struct RunResult {
    int status = -1;
    bool timed_out = false;
    std::string out, err;
};

bool run_case(const Case& c, const Options& o, const std::string& scratch, RunResult* r, std::string* error);

bool same_or_diff(const std::string& name, const std::string& expected, const std::string& actual,
                  const std::string& scratch);
std::string actual_of(const Section& s, const RunResult& r, const std::string& scratch, bool* exists);
bool approve_case(const std::string& path, const Case& c, const RunResult& r, const std::string& scratch);
int compare_transcripts(const std::string& approved, const std::string& actual, const Options& o);

}  // namespace check

#include "context/results.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <string>
#include <nlohmann/json.hpp>

#include "context/output.h"

char results_file[kFileNameSize];
int32_t results_file_given = 0;

namespace {

using Json = nlohmann::ordered_json;

FILE* results = nullptr;

// Run totals for the end event.
struct Totals {
    int64_t checks = 0;
    int64_t checks_failed = 0;
    int64_t data_commands = 0;
    int64_t records = 0;
};
Totals totals;
timespec run_start{};

// A script's text may hold any bytes; invalid UTF-8 is replaced rather
// than allowed to end the run.
void emit(const Json& event) {
    if (results == nullptr) return;
    const std::string text = event.dump(-1, ' ', false, Json::error_handler_t::replace);
    fputs(text.c_str(), results);
    fputc('\n', results);
    fflush(results);
}

// Rounded for reading; the digits past these say nothing a clock can vouch for.
double rounded(double value, double per_unit) { return std::round(value * per_unit) / per_unit; }

// Nearest-rank percentiles by selection rather than a full sort. Asked in
// rising order: each selection leaves the larger values to its right, and
// the next one looks only there.
class Percentiles {
public:
    explicit Percentiles(std::vector<uint32_t>& values) : values_(values), from_(values.begin()) {}
    uint32_t at(double fraction) {
        const auto rank = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(values_.size())));
        const std::size_t index = std::clamp<std::size_t>(rank, 1, values_.size()) - 1;
        const auto at = values_.begin() + static_cast<std::ptrdiff_t>(index);
        std::nth_element(from_, at, values_.end());
        from_ = at;
        return *at;
    }

private:
    std::vector<uint32_t>& values_;
    std::vector<uint32_t>::iterator from_;
};

// Records completed per interval: as many intervals of whole microseconds
// as records, at most 200, across the command: enough for a chart of it,
// and small beside per-record times.
void add_timeline(Json& event, const TransferTiming& t) {
    const auto intervals = static_cast<uint32_t>(std::min<std::size_t>(200, t.completed_at_us.size()));
    const uint32_t end = t.completed_at_us.empty() ? 0 : *std::max_element(t.completed_at_us.begin(),
                                                                            t.completed_at_us.end());
    const uint32_t width = intervals == 0 ? 1 : end / intervals + 1;
    std::vector<int64_t> completed(end / width + (t.completed_at_us.empty() ? 0 : 1), 0);
    for (uint32_t at : t.completed_at_us) ++completed[at / width];
    event["interval_us"] = width;
    event["completed"] = completed;
}

const char* verdict(int exit_status) {
    if (output_lost()) return "output lost";
    if (settled_stop_signal() != 0) return "stopped";
    switch (exit_status) {
        case 0: return "pass";
        case kResultCheckFailed: return "fail";
        case kResultSyntaxError: return "syntax error";
        case kResultExit: return "exit";
        default: return "fail";
    }
}

}  // namespace

bool results_open() {
    results = open_output_aside(results_file, "w");
    if (results == nullptr) {
        fprintf(stderr, "Error opening file '%s' \n", results_file);
        return false;
    }
    timing_wanted = true;
    return true;
}

bool results_enabled() { return results != nullptr; }

void results_run_start() {
    if (results == nullptr) return;
    const TestContext& c = test_context;
    clock_gettime(CLOCK_MONOTONIC, &run_start);
    const time_t now = time(nullptr);
    const char* text = ctime(&now);
    Json event;
    event["event"] = "start";
    event["tool"] = "tarnwick";
    event["version"] = TARNWICK_VERSION;
    event["script"] = c.input_file_given ? Json(c.batch_input_file) : Json(nullptr);
    event["output"] = c.input_file_given ? Json(c.batch_output_file) : Json(nullptr);
    event["device"] = c.special_file_given ? Json(c.special_file) : Json(nullptr);
    event["time"] = text != nullptr ? std::string(text, std::strcspn(text, "\n")) : "";  // as the banner shows it
    event["time_unix_s"] = static_cast<int64_t>(now);
    emit(event);
}

void results_check(const char* statement, std::string_view command, const CheckRecords& checks, bool pass) {
    if (results == nullptr) return;
    ++totals.checks;
    if (!pass) ++totals.checks_failed;
    const CommandOutcome& seen = checks.seen;
    Json list = Json::array();
    for (int32_t i = 0; i < checks.count; ++i) {
        const CheckRecord& c = checks.checks[i];
        list.push_back({{"field", c.field}, {"relation", c.relation}, {"expected", c.expected},
                        {"actual", c.actual}, {"pass", c.pass}});
    }
    std::string text(statement);
    while (!text.empty() && text.back() == ' ') text.pop_back();
    Json event;
    event["event"] = "check";
    event["line"] = test_context.line_number;
    event["command"] = std::string(command);
    event["statement"] = text;
    event["rc"] = seen.return_code;
    event["errno"] = seen.error_number;
    event["cc"] = seen.error_value;
    event["resid"] = seen.residual;
    event["data"] = seen.data;
    event["checks"] = list;
    event["pass"] = pass;
    emit(event);
}

void results_data_command(const CommandOutcome& outcome) {
    TransferTiming& t = last_timing;
    if (results == nullptr || t.command[0] == '\0') return;
    ++totals.data_commands;
    totals.records += t.records;
    Json event;
    event["event"] = "data";
    event["line"] = test_context.line_number;
    event["command"] = t.command;
    event["rc"] = outcome.return_code;
    event["errno"] = outcome.return_code < 0 ? outcome.error_number : 0;
    event["records"] = t.records;
    event["bytes"] = t.bytes;
    event["first_sector"] = t.first_sector;
    event["depth"] = t.depth;
    event["elapsed_s"] = rounded(t.elapsed_s, 1e6);
    const double seconds = t.elapsed_s > 0 ? t.elapsed_s : 0;
    event["records_per_s"] = seconds > 0 ? rounded(static_cast<double>(t.records) / seconds, 10) : 0.0;
    event["MB_per_s"] = seconds > 0 ? rounded(static_cast<double>(t.bytes) / seconds / 1e6, 1000) : 0.0;
    std::vector<uint32_t> lat(t.latency_us);
    if (lat.empty()) lat.push_back(0);
    double sum = 0;
    for (uint32_t v : lat) sum += v;
    event["lat_min_us"] = *std::min_element(lat.begin(), lat.end());
    event["lat_mean_us"] = rounded(sum / static_cast<double>(lat.size()), 10);
    Percentiles percentile(lat);
    event["lat_p50_us"] = percentile.at(0.5);
    event["lat_p99_us"] = percentile.at(0.99);
    event["lat_p99_9_us"] = percentile.at(0.999);
    event["lat_max_us"] = *std::max_element(lat.begin(), lat.end());
    // The longest time in which no record completed, from the first issue
    // on: what a path failover costs the application.
    uint32_t stall = 0;
    uint32_t stall_start = 0;
    uint32_t previous = 0;
    for (uint32_t at : t.completed_at_us) {
        if (at >= previous && at - previous > stall) {
            stall = at - previous;
            stall_start = previous;
        }
        previous = std::max(previous, at);
    }
    event["stall_us"] = stall;
    event["stall_start_us"] = stall_start;
    // A record that failed ends the command: it is the last to complete
    // (a verify mismatch fails the command with no error number).
    if (outcome.return_code < 0 && outcome.error_number != 0 && !t.completed_at_us.empty()) {
        event["failed_at_us"] = previous;
    }
    add_timeline(event, t);
    emit(event);
    t.command = "";
}

void results_run_end(int exit_status) {
    if (results == nullptr) return;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double elapsed = static_cast<double>(now.tv_sec - run_start.tv_sec) +
                           static_cast<double>(now.tv_nsec - run_start.tv_nsec) / 1e9;
    Json event;
    event["event"] = "end";
    event["verdict"] = verdict(exit_status);
    event["exit_status"] = exit_status & 0xff;
    event["failed_line"] = test_context.failed_line;
    event["checks"] = totals.checks;
    event["checks_failed"] = totals.checks_failed;
    event["data_commands"] = totals.data_commands;
    event["records"] = totals.records;
    event["bytes"] = static_cast<int64_t>(test_context.bytes_transferred);
    event["elapsed_s"] = rounded(elapsed, 1e6);
    if (stop_signal != 0) event["signal"] = static_cast<int>(stop_signal);
    emit(event);
}

bool results_close() {
    if (results == nullptr) return true;
    const bool kept = close_output(results);
    results = nullptr;
    return kept;
}

// Results a program reads (tarnwick -j FILE): one JSON object a line, one
// line an event, each flushed as it is written, so a run cut short still
// leaves every line written so far. Nothing here writes to the transcript.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "context/context.h"
#include "device/timing.h"
#include "script/script.h"

// The -j option's file name, kept as the other file options are.
extern char results_file[kFileNameSize];
extern int32_t results_file_given;

// Opens the file named by -j; false (told on standard error) when it
// cannot be opened. Sets timing_wanted.
bool results_open();
bool results_enabled();

// One check of a result clause: field keyword, relation as written, the
// value expected and the value seen.
struct CheckRecord {
    const char* field;
    char relation[3];
    int32_t expected;
    int32_t actual;
    bool pass;
};
inline constexpr int32_t kMaxCheckRecords = kMaxTokens / 3;

// What the latest analysis judged, for the check event: the outcome with
// the error value and residual as analysed, and each check.
struct CheckRecords {
    CommandOutcome seen;
    int32_t count;
    CheckRecord checks[kMaxCheckRecords];
};

void results_run_start();
// A statement with a result clause was judged; pass as analyze answered.
void results_check(const char* statement, std::string_view command, const CheckRecords& checks, bool pass);
// A data command ended (the timing is last_timing); its name is then cleared.
void results_data_command(const CommandOutcome& outcome);
// exit_status as the process returns it.
void results_run_end(int exit_status);
// Closes the file; false when something written to it was lost.
bool results_close();

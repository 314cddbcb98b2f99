// Files the tool writes: the batch transcript and the trace output files.
// A write, flush or close of one that fails is told on standard error with
// the file's name and the system's reason, and the process then ends with
// kExitOutputLost: a lost transcript must never read as a passed run.
#pragma once

#include <cstdio>

inline constexpr int kExitOutputLost = 2;

// Opens `name` as fopen would with mode "w", "w+" or "a+"; nullptr (errno
// set) when it cannot be opened.
FILE* open_output(const char* name, const char* mode);

// As open_output, on a descriptor from kAsideDescriptor up (where the
// limit allows), so that a file the run writes beside its transcript does
// not move the descriptor numbers the transcript shows.
inline constexpr int kAsideDescriptor = 256;
FILE* open_output_aside(const char* name, const char* mode);

// Flushes and closes a stream of open_output; false when anything written
// to it was lost (already told on standard error).
bool close_output(FILE* stream);

// True once any output file has lost data during this run.
bool output_lost();

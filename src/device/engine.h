// The I/O engine of the data commands: it moves a command's records between
// the device and memory, one at a time or many at once, and hands each back
// in record order. It knows records (a position, a size, a buffer), not
// statements, transcripts or patterns: the command says what each record
// is and what its completion means.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "device/access.h"

enum class Direction { read, write };

struct EngineRecord {
    int64_t index = 0;     // the command's record number, from 0
    int64_t sector = 0;    // where the record starts, for reports and timing
    int64_t offset = 0;    // byte offset on the device
    uint32_t size = 0;     // bytes to move
    // One record at a time, the transfer goes where the descriptor stands:
    // set when the descriptor must first be moved to offset (a record that
    // does not follow the previous one).
    bool position = false;
    // An offset that cannot be formed (a product past 64 bits): the errno
    // the record fails with, as its positioning, without any system call.
    int32_t refused = 0;
};

struct RecordResult {
    int32_t value = 0;          // bytes moved, or -1
    int32_t error_number = 0;   // the errno the call left
    bool position_failed = false;  // the positioning failed, not the transfer
};

// The command's side of a run.
class RecordSource {
public:
    virtual ~RecordSource() = default;
    // The next record: fills record (its index is set) and, for writes, the
    // first prepared_bytes of data. False when there is none.
    virtual bool next(EngineRecord& record, uint8_t* data) = 0;
    // The address the record's transfer goes through, asked just before it:
    // own, or another one the command was told to use.
    virtual void* transfer_address(void* own) { return own; }
    // A record done, in record order; the home buffer already holds it as
    // a single record in flight would have left it. False stops the run
    // (the record failed, or the command must end early): nothing more is
    // issued.
    virtual bool complete(const EngineRecord& record, const RecordResult& result) = 0;
};

struct EngineJob {
    const char* command = "";     // for the timing record
    FILE* stream = nullptr;       // the access layer's trace stream (one record at a time)
    int descriptor = -1;
    Direction direction = Direction::read;
    int depth = 1;                // records in flight at most, 1 to 256
    int64_t records = 0;          // the command's record count, an upper bound
    uint8_t* home = nullptr;      // the buffer of a single record in flight
    uint32_t record_bytes = 0;    // the largest record
    uint32_t prepared_bytes = 0;  // bytes of a written record next() fills; the rest is home's
};

// A record that was still in flight when the run stopped after a failed
// record, and how it ended.
struct Outstanding {
    EngineRecord record;
    RecordResult result;
};

// Runs the job's records: issued in record order, never two in flight that
// share a byte of the device (a record that would waits for the one in its
// way, and the records after it with it), completed in record order. With
// one in flight the transfers follow the descriptor's position (lseek where
// a record asks for it, then read or write), exactly as a plain sequential
// program makes them; with more, each names its offset (pread, pwrite) from
// a worker thread. After the first failure (a failed transfer, or
// complete() returning false) nothing more is issued and what is in flight
// runs to its end; the records issued after the one that stopped the run
// are returned, in record order.
std::vector<Outstanding> run_records(const EngineJob& job, RecordSource& source);

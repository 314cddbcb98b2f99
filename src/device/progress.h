// The status line of a long data command: on a terminal's standard error,
// one line rewritten in place (records done of total, bytes, current rate,
// time left) and erased when the command ends. Nothing of it reaches a pipe,
// a file, standard output or the transcript.
#pragma once

#include <cstdint>
#include <cstdio>

class TransferProgress {
public:
    // stream is where the command writes its own lines: when that is a
    // terminal too (the manual menu), they would tear the status line, so
    // it stays off.
    TransferProgress(FILE* stream, const char* command, int64_t total_records);
    ~TransferProgress();
    TransferProgress(const TransferProgress&) = delete;
    TransferProgress& operator=(const TransferProgress&) = delete;

    // Once per record moved; done counts the command's records so far. A
    // countdown keeps the clock out of all but every few thousandth record.
    void record(int64_t done) {
        if (--countdown_ == 0) poll(done);
    }

private:
    void poll(int64_t done);
    void draw(int64_t done, int64_t now_ns);

    int64_t countdown_;
    int64_t stride_ = 0;           // records between two looks at the clock
    const char* command_;
    int64_t total_;
    double start_bytes_ = 0;       // bytes_transferred when the command began
    int64_t start_ns_ = 0;
    int64_t polled_ns_ = 0;        // the last look at the clock
    int64_t drawn_ns_ = 0;         // the last redraw (start until the first)
    int64_t drawn_records_ = 0;
    double drawn_bytes_ = 0;
    int width_ = 80;
    bool shown_ = false;
};

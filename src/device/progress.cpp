#include "device/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <iterator>

#include "context/context.h"

namespace {

// The line lives inside the data loops, whose commands report the errno the
// system last left: nothing done for the screen may change it.
class KeepErrno {
public:
    KeepErrno() : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

private:
    int saved_;
};

constexpr int64_t kNanosecond = 1000000000;
constexpr int64_t kShowAfter = kNanosecond;       // a quick command never shows a line
constexpr int64_t kRedrawEvery = kNanosecond / 4;
// The clock is read about this often, whatever the record rate: every record
// of a slow device, every few thousand of a fast one.
constexpr int64_t kPollEvery = kNanosecond / 200;
constexpr int64_t kFirstStride = 64;
constexpr int64_t kLargestStride = int64_t{1} << 20;
constexpr int64_t kNever = INT64_MAX;

int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * kNanosecond + now.tv_nsec;
}

void format_bytes(char* out, std::size_t size, double bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    while (bytes >= 1024.0 && unit + 1 < std::size(kUnits)) {
        bytes /= 1024.0;
        ++unit;
    }
    snprintf(out, size, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
}

void format_time_left(char* out, std::size_t size, double seconds) {
    constexpr double kLongest = 100.0 * 3600.0;
    if (!(seconds >= 0.0) || seconds >= kLongest) {
        snprintf(out, size, "--:--");
        return;
    }
    const long s = std::lround(seconds);
    if (s < 3600) {
        snprintf(out, size, "%ld:%02ld", s / 60, s % 60);
    } else {
        snprintf(out, size, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    }
}

}  // namespace

TransferProgress::TransferProgress(FILE* stream, const char* command, int64_t total_records)
    : countdown_(kNever), command_(command), total_(total_records) {
    const KeepErrno keep;
    if (!stderr_is_terminal() || isatty(fileno(stream)) == 1 || total_records <= 1) return;
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1) width_ = size.ws_col;
    start_bytes_ = test_context.bytes_transferred;
    start_ns_ = polled_ns_ = drawn_ns_ = monotonic_ns();
    stride_ = countdown_ = kFirstStride;
}

TransferProgress::~TransferProgress() {
    const KeepErrno keep;
    if (shown_) fputs("\r\x1b[K", stderr);
}

void TransferProgress::poll(int64_t done) {
    const KeepErrno keep;
    const int64_t now = monotonic_ns();
    const int64_t since = now - polled_ns_;
    // Aim the next look at kPollEvery from now; grow at most twofold a time
    // so that one fast burst cannot blind the line for long.
    const int64_t aimed = since > 0 ? stride_ * kPollEvery / since : stride_ * 2;
    stride_ = std::clamp<int64_t>(aimed, 1, std::min(stride_ * 2, kLargestStride));
    countdown_ = stride_;
    polled_ns_ = now;
    if (now - start_ns_ >= kShowAfter && now - drawn_ns_ >= kRedrawEvery) draw(done, now);
}

void TransferProgress::draw(int64_t done, int64_t now_ns) {
    const double seconds = static_cast<double>(now_ns - drawn_ns_) / kNanosecond;
    const double bytes = test_context.bytes_transferred - start_bytes_;
    const double record_rate = static_cast<double>(done - drawn_records_) / seconds;
    char moved[32];
    char rate[32];
    char left[32];
    format_bytes(moved, sizeof moved, bytes);
    format_bytes(rate, sizeof rate, (bytes - drawn_bytes_) / seconds);
    format_time_left(left, sizeof left,
                     record_rate > 0.0 ? static_cast<double>(total_ - done) / record_rate : -1.0);
    char text[256];
    int length = snprintf(text, sizeof text, "%s %ld of %ld records, %s, %s/s, %s left", command_,
                          static_cast<long>(done), static_cast<long>(total_), moved, rate, left);
    // Never into the last column: a wrapped line could not be rewritten.
    length = std::clamp(length, 0, std::min(width_ - 1, static_cast<int>(sizeof text) - 1));
    char line[sizeof text + 8];
    line[0] = '\r';
    std::memcpy(line + 1, text, static_cast<std::size_t>(length));
    std::memcpy(line + 1 + length, "\x1b[K", 3);
    fwrite(line, 1, static_cast<std::size_t>(length) + 4, stderr);
    shown_ = true;
    drawn_ns_ = now_ns;
    drawn_records_ = done;
    drawn_bytes_ = bytes;
}

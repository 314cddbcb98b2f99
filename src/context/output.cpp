#include "context/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "context/context.h"

namespace {

bool any_lost = false;

struct OutputFile {
    int descriptor;
    int failure;  // errno of the first failed write, 0 while none failed
    char name[256];
};

void tell_failure(OutputFile& file, int number) {
    if (file.failure != 0) return;
    file.failure = number;
    any_lost = true;
    fprintf(stderr, "tarnwick: cannot write file '%s': %s\n", file.name, strerror(number));
}

// Once a write has failed every later one fails too: the file is cut at
// the first loss rather than left with a hole that reads as complete. A
// write to a pipe or FIFO whose reader takes nothing more blocks; a stop
// signal ends that wait as a failed write, since nothing else would.
ssize_t write_output(void* cookie, const char* buffer, size_t size) {
    auto* file = static_cast<OutputFile*>(cookie);
    size_t done = 0;
    while (file->failure == 0 && done < size) {
        ssize_t n = write(file->descriptor, buffer + done, size - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR && !stop_requested()) {
            continue;
        } else {
            tell_failure(*file, n < 0 ? errno : EIO);
        }
    }
    if (file->failure == 0) return static_cast<ssize_t>(size);
    errno = file->failure;
    return -1;
}

int close_file(void* cookie) {
    auto* file = static_cast<OutputFile*>(cookie);
    if (close(file->descriptor) != 0) tell_failure(*file, errno);
    int result = file->failure == 0 ? 0 : -1;
    delete file;
    return result;
}

// Written only, never read back nor positioned: a transcript or trace file
// may as well be a pipe, a FIFO, a socket or a terminal. Opened for
// reading too, a pipe would count the tool among its readers, and a reader
// going away would never show as EPIPE.
int open_flags(const char* mode) {
    if (mode[0] == 'a') return O_WRONLY | O_CREAT | O_APPEND;
    return O_WRONLY | O_CREAT | O_TRUNC;
}

FILE* wrap_output(int descriptor, const char* name, const char* mode) {
    auto* file = new OutputFile{descriptor, 0, {}};
    snprintf(file->name, sizeof file->name, "%s", name);
    FILE* stream = fopencookie(file, mode[0] == 'a' ? "a" : "w", {nullptr, write_output, nullptr, close_file});
    if (stream == nullptr) {
        int saved = errno;
        close(descriptor);
        delete file;
        errno = saved;
    }
    return stream;
}

}  // namespace

FILE* open_output(const char* name, const char* mode) {
    // Commands run by a system statement have no business with these files.
    int descriptor = open(name, open_flags(mode) | O_CLOEXEC, 0666);
    if (descriptor == -1) return nullptr;
    return wrap_output(descriptor, name, mode);
}

FILE* open_output_aside(const char* name, const char* mode) {
    int descriptor = open(name, open_flags(mode) | O_CLOEXEC, 0666);
    if (descriptor == -1) return nullptr;
    const int aside = fcntl(descriptor, F_DUPFD_CLOEXEC, kAsideDescriptor);
    if (aside != -1) {
        close(descriptor);
        descriptor = aside;
    }
    return wrap_output(descriptor, name, mode);
}

bool close_output(FILE* stream) {
    bool flushed = fflush(stream) == 0;
    bool closed = fclose(stream) == 0;
    return flushed && closed;
}

bool output_lost() { return any_lost; }

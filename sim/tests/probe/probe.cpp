// Drives a device with raw calls named on the command line and prints one
// line per call, so tests can run it under the preload library:
//   open PATH FLAGS | close | read N | write N BYTE | seek OFFSET [WHENCE]
//   ioctl CODE [INT@4 [INT@8 [INT@12]]] | bad-read | bad-write | bad-ioctl CODE
//   system COMMAND | dup | fcntl-dup | dup2 PATH | dup3 PATH | close-range
// The dup forms go on with the new descriptor; dup2 and dup3 put PATH,
// opened read-only, on the current descriptor's number.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// An address no mapping covers; made at run time so the compiler does not
// reject the deliberate misuse.
void* bad_address() { return reinterpret_cast<void*>(std::strtoul("0x10", nullptr, 16)); }

void report(const char* what, long rc) {
    if (rc < 0) {
        std::printf("%s -1 %s\n", what, strerrorname_np(errno));
    } else {
        std::printf("%s %ld\n", what, rc);
    }
}

}  // namespace

int main(int argc, char** argv) {
    int fd = -1;
    alignas(4096) static unsigned char buffer[1 << 18];  // fit for direct transfers
    for (int i = 1; i < argc; ++i) {
        std::string op = argv[i];
        auto numeric = [&] {
            return i + 1 < argc && (argv[i + 1][0] == '-' || (argv[i + 1][0] >= '0' && argv[i + 1][0] <= '9'));
        };
        auto arg = [&](long fallback) { return numeric() ? std::strtol(argv[++i], nullptr, 0) : fallback; };
        errno = 0;
        if (op == "open" && i + 2 < argc) {
            const char* path = argv[++i];
            fd = open(path, static_cast<int>(std::strtol(argv[++i], nullptr, 0)), 0);
            report("open", fd < 0 ? -1 : 0);
        } else if (op == "close") {
            report("close", close(fd));
        } else if (op == "read") {
            long n = arg(512);
            std::memset(buffer, 0xee, sizeof buffer);
            long rc = read(fd, buffer, static_cast<size_t>(n));
            report("read", rc);
            if (rc > 0) std::printf("data %02x %02x\n", buffer[0], buffer[rc - 1]);
        } else if (op == "write") {
            long n = arg(512);
            std::memset(buffer, static_cast<int>(arg(0x5a)), sizeof buffer);
            report("write", write(fd, buffer, static_cast<size_t>(n)));
        } else if (op == "seek") {
            long offset = arg(0);
            int whence = i + 1 < argc && std::strcmp(argv[i + 1], "end") == 0 ? (++i, SEEK_END) : SEEK_SET;
            report("seek", lseek(fd, offset, whence));
        } else if (op == "ioctl") {
            long code = arg(0);
            int32_t record[512] = {};
            for (int k = 1; k < 4 && numeric(); ++k)
                record[k] = static_cast<int32_t>(std::strtol(argv[++i], nullptr, 0));
            report("ioctl", ioctl(fd, static_cast<unsigned long>(static_cast<long>(static_cast<int32_t>(code))), record));
            std::printf("record %d %d %d %d\n", record[0], record[1], record[2], record[3]);
        } else if (op == "bad-read") {
            report("read", read(fd, bad_address(), 512));
        } else if (op == "bad-write") {
            report("write", write(fd, bad_address(), 512));
        } else if (op == "bad-ioctl") {
            report("ioctl", ioctl(fd, static_cast<unsigned long>(arg(0)), bad_address()));
        } else if (op == "dup" || op == "fcntl-dup") {
            fd = op == "dup" ? dup(fd) : fcntl(fd, F_DUPFD, 10);
            report(op.c_str(), fd < 0 ? -1 : 0);
        } else if ((op == "dup2" || op == "dup3") && i + 1 < argc) {
            int other = open(argv[++i], O_RDONLY);
            int rc = op == "dup2" ? dup2(other, fd) : dup3(other, fd, O_CLOEXEC);
            report(op.c_str(), rc < 0 ? -1 : 0);
            close(other);
        } else if (op == "close-range") {
            report("close-range", close_range(static_cast<unsigned>(fd), static_cast<unsigned>(fd), 0));
        } else if (op == "system" && i + 1 < argc) {
            std::fflush(stdout);
            report("system", std::system(argv[++i]));
        } else {
            std::fprintf(stderr, "probe: bad operation %s\n", op.c_str());
            return 2;
        }
        std::fflush(stdout);
    }
    return 0;
}

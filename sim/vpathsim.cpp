// Control program of the simulated driver: state set-up, fault injection,
// and running a program with the driver interposed.
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "driver.h"

namespace {

const char kUsage[] =
    "usage: vpathsim [--state DIR] COMMAND\n"
    "  init [--config FILE]          fresh driver state (old state and disk contents dropped)\n"
    "  show                          topology, path and adapter states, faults\n"
    "  fail-path DEV PATH [WHEN]     path stops functioning (state Dead)\n"
    "  restore-path DEV PATH [WHEN]  path works again, its data faults cleared\n"
    "  fail-adapter ADAPTER [WHEN]   every path over the adapter stops functioning\n"
    "  restore-adapter ADAPTER [WHEN]\n"
    "  fail-device DEV [WHEN]        every path of the device stops functioning\n"
    "  restore-device DEV [WHEN]     every path of the device works again\n"
    "  flaky-path DEV PATH every K [WHEN]\n"
    "                                every K-th try on the path fails and is retried\n"
    "  drop-writes DEV PATH [WHEN]   writes through the path report success, store nothing\n"
    "  corrupt-reads DEV PATH [byte B] [WHEN]\n"
    "                                reads through the path get byte B (default 0) flipped\n"
    "  lose-in-flight DEV PATH [WHEN]\n"
    "                                path fails as with fail-path; writes in flight through it\n"
    "                                report success and store nothing\n"
    "  inject-eio DEV SECTOR         reads and writes covering the sector fail with EIO\n"
    "  latency DEV MICROSECONDS      service time of every transfer (0: none)\n"
    "  failover-delay DEV MILLISECONDS\n"
    "                                wait before a request of a failed path is retried\n"
    "  restore                       clear every injected fault, pending ones included\n"
    "  run [--state DIR] [--config FILE] [--fresh] [--keep] -- PROGRAM [ARG...]\n"
    "                                run PROGRAM with the simulated driver; without --state\n"
    "                                a fresh temporary state is used and removed afterwards\n"
    "WHEN is 'after N [transfers|sectors]': the fault strikes once N more transfers\n"
    "(or sectors) of the device, of every device for an adapter, are done (with a\n"
    "latency set: issued).\n"
    "The state directory defaults to $VPATHSIM_STATE, else /tmp/vpathsim-UID;\n"
    "$VPATHSIM_CONFIG names the topology file when --config is not given.\n";

int usage() {
    std::fputs(kUsage, stderr);
    return 2;
}

bool number(const char* text, long long low, long long high, long long* out) {
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < low || value > high) return false;
    *out = value;
    return true;
}

std::string self_path() {
    char buffer[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return "vpathsim";
    buffer[n] = '\0';
    return buffer;
}

// $VPATHSIM_LIB, else the library beside the program (a build tree), else
// where an installation puts it relative to the program (bin/../lib). Empty,
// with the reason told, when there is none: the program would run without
// the simulator and meet no /dev/vpathN at all.
std::string preload_library() {
    const char* env = getenv("VPATHSIM_LIB");
    if (env != nullptr && *env != '\0') {
        if (access(env, R_OK) == 0) return env;
        std::fprintf(stderr, "vpathsim: VPATHSIM_LIB names %s: %s\n", env, std::strerror(errno));
        return "";
    }
    std::filesystem::path bin = std::filesystem::path(self_path()).parent_path();
    std::filesystem::path places[] = {bin / "libvpathsim_preload.so",
                                      (bin / VPATHSIM_LIB_FROM_BIN / "libvpathsim_preload.so").lexically_normal()};
    for (const auto& place : places)
        if (access(place.c_str(), R_OK) == 0) return place.string();
    std::fprintf(stderr,
                 "vpathsim: the simulated driver library libvpathsim_preload.so is neither in %s nor in %s;"
                 " set VPATHSIM_LIB to its file\n",
                 places[0].parent_path().c_str(), places[1].parent_path().c_str());
    return "";
}

bool attach(vpathsim::Sim& sim, const std::string& dir, const std::string& config) {
    std::string error;
    if (sim.attach(dir, config, &error)) return true;
    std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
    return false;
}

bool reset(vpathsim::Sim& sim, const std::string& dir, const std::string& config) {
    if (!attach(sim, dir, config)) return false;
    vpathsim::Topology topology = vpathsim::default_topology();
    std::string error;
    if (!config.empty()) {
        // attach() has already read and checked the file; re-read it so that
        // a reset of existing state picks up an edited topology.
        FILE* in = std::fopen(config.c_str(), "r");
        std::string text;
        char chunk[4096];
        for (size_t n; in != nullptr && (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;) text.append(chunk, n);
        if (in != nullptr) std::fclose(in);
        if (!vpathsim::parse_config(text, &topology, &error)) {
            std::fprintf(stderr, "vpathsim: %s: %s\n", config.c_str(), error.c_str());
            return false;
        }
    }
    if (sim.reset(topology, &error)) return true;
    std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
    return false;
}

// The topology file for state that is created or started over.
std::string env_config() {
    const char* env = getenv("VPATHSIM_CONFIG");
    return env != nullptr ? env : "";
}

// The program run under the driver; 0 outside run and in the child.
volatile sig_atomic_t running_child = 0;
volatile sig_atomic_t forwarded_signal = 0;

// Passed on, so the program ends its own way and run still removes the
// temporary state after it; nothing is left running or lying about.
void forward_signal(int number) {
    forwarded_signal = number;
    if (running_child > 0) kill(running_child, number);
}

constexpr int kForwardedSignals[] = {SIGINT, SIGTERM, SIGHUP};

int run(std::string dir, bool dir_given, int argc, char** argv) {
    std::string config = env_config();
    bool fresh = false, keep = false;
    int i = 0;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--config") == 0 && i + 1 < argc) {
            config = argv[++i];
        } else if (std::strcmp(argv[i], "--state") == 0 && i + 1 < argc) {
            dir = argv[++i];
            dir_given = true;
        } else if (std::strcmp(argv[i], "--fresh") == 0) {
            fresh = true;
        } else if (std::strcmp(argv[i], "--keep") == 0) {
            keep = true;
        } else {
            return usage();
        }
    }
    if (i + 1 >= argc) return usage();
    char** program = argv + i + 1;
    if (!dir_given) {
        char pattern[] = "/tmp/vpathsim-run.XXXXXX";
        if (mkdtemp(pattern) == nullptr) return std::perror("vpathsim: mkdtemp"), 1;
        dir = pattern;
        fresh = true;
    }
    std::string preload = preload_library();
    if (preload.empty()) return 1;
    {
        vpathsim::Sim sim;
        if (!(fresh ? reset(sim, dir, config) : attach(sim, dir, config))) {
            std::error_code ignored;
            if (!dir_given) std::filesystem::remove_all(dir, ignored);
            return 1;
        }
    }
    const char* old = getenv("LD_PRELOAD");
    if (old != nullptr && *old != '\0') preload += ":" + std::string(old);
    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv("VPATHSIM_STATE", dir.c_str(), 1);
    setenv("VPATHSIM", self_path().c_str(), 0);
    // So that a script's `system vpathsim fail-path ...` finds this program.
    std::string path = std::filesystem::path(self_path()).parent_path().string();
    const char* old_path = getenv("PATH");
    if (old_path != nullptr && *old_path != '\0') path += ":" + std::string(old_path);
    setenv("PATH", path.c_str(), 1);
    // Blocked across fork, so that no signal reaches a handler before the
    // child's number is known; the child takes back the old mask to exec.
    sigset_t forwarded, previous;
    sigemptyset(&forwarded);
    for (int number : kForwardedSignals) sigaddset(&forwarded, number);
    sigprocmask(SIG_BLOCK, &forwarded, &previous);
    for (int number : kForwardedSignals) {
        struct sigaction action = {}, old_action = {};
        sigaction(number, nullptr, &old_action);
        if (old_action.sa_handler == SIG_IGN) continue;  // as under nohup: the child ignores it too
        action.sa_handler = forward_signal;
        sigemptyset(&action.sa_mask);
        sigaction(number, &action, nullptr);
    }
    pid_t child = fork();
    if (child < 0) return std::perror("vpathsim: fork"), 1;
    if (child == 0) {
        sigprocmask(SIG_SETMASK, &previous, nullptr);
        execvp(program[0], program);
        std::fprintf(stderr, "vpathsim: %s: %s\n", program[0], std::strerror(errno));
        _exit(127);
    }
    running_child = child;
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    running_child = 0;
    if (!dir_given) {
        if (keep) {
            std::fprintf(stderr, "vpathsim: state kept in %s\n", dir.c_str());
        } else {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        }
    }
    if (forwarded_signal != 0) return 128 + forwarded_signal;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct FaultCommand {
    const char* name;
    vpathsim::FaultKind kind;
    int numbers;  // DEV PATH, or DEV, or ADAPTER
};

constexpr FaultCommand kFaultCommands[] = {
    {"fail-path", vpathsim::kFaultFailPath, 2},       {"restore-path", vpathsim::kFaultRestorePath, 2},
    {"fail-adapter", vpathsim::kFaultFailAdapter, 1}, {"restore-adapter", vpathsim::kFaultRestoreAdapter, 1},
    {"fail-device", vpathsim::kFaultFailDevice, 1},   {"restore-device", vpathsim::kFaultRestoreDevice, 1},
    {"flaky-path", vpathsim::kFaultFlakyPath, 2},     {"drop-writes", vpathsim::kFaultDropWrites, 2},
    {"corrupt-reads", vpathsim::kFaultCorruptReads, 2}, {"lose-in-flight", vpathsim::kFaultLoseInFlight, 2},
};

// A count after a keyword ("after 5000", "every 3", "byte 100"): out of range
// or not a number is bad input (status 1), told with the keyword.
bool count(const char* keyword, const char* text, long long low, long long* out) {
    if (number(text, low, 4294967295LL, out)) return true;
    std::fprintf(stderr, "vpathsim: %s: expected a number from %lld to 4294967295, not '%s'\n", keyword, low, text);
    return false;
}

// The fault commands: -1 when command is none of them, else the exit status.
int fault_command(vpathsim::Sim& sim, const std::string& command, int argc, char** argv) {
    const FaultCommand* found = nullptr;
    for (const auto& candidate : kFaultCommands)
        if (command == candidate.name) found = &candidate;
    if (found == nullptr) return -1;
    vpathsim::FaultRequest request;
    request.kind = found->kind;
    long long values[2] = {0, 0};
    if (argc < found->numbers) return usage();
    for (int i = 0; i < found->numbers; ++i)
        if (!number(argv[i], 0, INT_MAX, &values[i])) return usage();
    bool adapter = found->kind == vpathsim::kFaultFailAdapter || found->kind == vpathsim::kFaultRestoreAdapter;
    request.device = adapter ? -1 : static_cast<int>(values[0]);
    request.target = adapter ? static_cast<int>(values[0]) : static_cast<int>(values[1]);
    bool every = false;
    long long value = 0;
    for (int i = found->numbers; i < argc; i += 2) {
        std::string word = argv[i];
        if (i + 1 >= argc) return usage();
        if (word == "after") {
            if (!count("after", argv[i + 1], 1, &value)) return 1;
            request.after = static_cast<uint64_t>(value);
            if (i + 2 < argc) {
                std::string unit = argv[i + 2];
                if (unit == "transfers" || unit == "transfer" || unit == "sectors" || unit == "sector") {
                    request.in_sectors = unit[0] == 's';
                    ++i;
                }
            }
        } else if (word == "every" && found->kind == vpathsim::kFaultFlakyPath) {
            if (!count("every", argv[i + 1], 1, &value)) return 1;
            request.argument = static_cast<uint32_t>(value);
            every = true;
        } else if (word == "byte" && found->kind == vpathsim::kFaultCorruptReads) {
            if (!count("byte", argv[i + 1], 0, &value)) return 1;
            request.argument = static_cast<uint32_t>(value);
        } else {
            return usage();
        }
    }
    if (found->kind == vpathsim::kFaultFlakyPath && !every) return usage();
    std::string error;
    if (sim.arm(request, &error)) return 0;
    std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = vpathsim::default_state_dir();
    bool dir_given = false;
    int i = 1;
    if (i + 1 < argc && std::strcmp(argv[i], "--state") == 0) {
        dir = argv[i + 1];
        dir_given = true;
        i += 2;
    }
    if (i >= argc) return usage();
    std::string command = argv[i++];
    int rest = argc - i;
    char** args = argv + i;
    if (command == "run") return run(dir, dir_given, rest, args);
    if (command == "help" || command == "--help") return std::fputs(kUsage, stdout), 0;

    vpathsim::Sim sim;
    long long a = 0, b = 0;  // inject-eio
    if (command == "init") {
        std::string config = env_config();
        if (rest == 2 && std::strcmp(args[0], "--config") == 0) {
            config = args[1];
        } else if (rest != 0) {
            return usage();
        }
        return reset(sim, dir, config) ? 0 : 1;
    }
    if (!attach(sim, dir, env_config())) return 1;
    if (command == "show" && rest == 0) {
        sim.show(stdout);
        return 0;
    }
    if (command == "restore" && rest == 0) {
        sim.restore();
        return 0;
    }
    if (int status = fault_command(sim, command, rest, args); status >= 0) return status;
    if ((command == "latency" || command == "failover-delay") && rest == 2) {
        if (!number(args[0], 0, INT_MAX, &a)) return usage();
        long long high = command == "latency" ? vpathsim::kMaxLatencyUs : vpathsim::kMaxFailoverDelayMs;
        if (!number(args[1], 0, high, &b)) {
            std::fprintf(stderr, "vpathsim: %s: expected a number from 0 to %lld, not '%s'\n", command.c_str(), high,
                         args[1]);
            return 1;
        }
        std::string error;
        if (command == "latency" ? sim.set_latency(static_cast<int>(a), b, &error)
                                 : sim.set_failover_delay(static_cast<int>(a), b, &error))
            return 0;
        std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
        return 1;
    }
    if (command == "inject-eio" && rest == 2 && number(args[0], 0, INT_MAX, &a) && number(args[1], 0, LLONG_MAX, &b)) {
        if (sim.inject_eio(static_cast<int>(a), static_cast<uint64_t>(b))) return 0;
        std::fprintf(stderr, "vpathsim: cannot inject sector %lld on vpath%lld\n", b, a);
        return 1;
    }
    return usage();
}

// Control program of the simulated driver: state set-up, fault injection,
// and running a program with the driver interposed.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
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

// A command line that is wrong: what is wrong, in a line, and where to look.
int usage_error(const std::string& what) {
    std::fprintf(stderr, "vpathsim: %s; see vpathsim --help\n", what.c_str());
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
    vpathsim::Topology topology = vpathsim::default_topology();
    std::string error;
    // The topology first: a file that is no topology leaves the state as it was.
    if (!config.empty() && !vpathsim::read_config(config, &topology, &error)) {
        std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
        return false;
    }
    if (sim.attach(dir, config, &error, true) && sim.reset(topology, &error)) return true;
    std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
    return false;
}

// The topology file for state that is created or started over.
std::string env_config() {
    const char* env = getenv("VPATHSIM_CONFIG");
    return env != nullptr ? env : "";
}

// The process group of the program run under the driver; 0 outside run.
volatile sig_atomic_t running_group = 0;
volatile sig_atomic_t forwarded_signal = 0;

// Passed on to the program's whole group, so it ends its own way and run
// still removes the temporary state after it; nothing is left running or
// lying about.
void forward_signal(int number) {
    const int saved = errno;
    forwarded_signal = number;
    // A stopped program takes the signal only once it is continued;
    // continued first, as a SIGCONT coming late would reach a program
    // already ending (and cancel the stop a leak checker attaching waits for).
    if (running_group > 0 && kill(-running_group, SIGCONT) == 0) kill(-running_group, number);
    errno = saved;
}

// Every catchable signal whose default ends the process.
constexpr int kForwardedSignals[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE,
                                     SIGALRM, SIGVTALRM, SIGPROF, SIGPOLL, SIGPWR,  SIGSTKFLT};

constexpr char kRunPrefix[] = "/tmp/vpathsim-run.";

// A temporary state holds its owner's lock on DIR/owner for as long as the
// owner lives: a state whose lock can be taken was left by a run that was
// killed outright, and the next run removes it. The file is locked before
// it gets its name, so no sweep ever finds it unlocked while its run lives.
int take_ownership(const std::string& dir) {
    int fd = open((dir + "/owner.new").c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0 && (flock(fd, LOCK_EX) != 0 || rename((dir + "/owner.new").c_str(), (dir + "/owner").c_str()) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

void sweep_abandoned_states() {
    std::error_code error;
    std::filesystem::path prefix(kRunPrefix);
    for (const auto& entry : std::filesystem::directory_iterator(prefix.parent_path(), error)) {
        std::string name = entry.path().string();
        struct stat info {};
        if (name.rfind(kRunPrefix, 0) != 0 || lstat(name.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
            info.st_uid != getuid())
            continue;
        int fd = open((name + "/owner").c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) continue;
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) std::filesystem::remove_all(name, error);
        close(fd);
    }
}

// At a terminal the program gets the foreground, as a shell gives it.
void give_terminal(pid_t group) {
    sigset_t hold, previous;
    sigemptyset(&hold);
    sigaddset(&hold, SIGTTOU);
    sigprocmask(SIG_BLOCK, &hold, &previous);
    tcsetpgrp(STDIN_FILENO, group);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
}

// Starts program in a process group of its own; it ends with SIGTERM when
// run itself is killed outright, so that it never outlives run.
pid_t start(char** program, bool terminal, const sigset_t& mask) {
    const pid_t parent = getpid();
    pid_t child = fork();
    if (child != 0) {
        if (child > 0) setpgid(child, child);
        return child;
    }
    setpgid(0, 0);
    if (terminal) give_terminal(getpgrp());
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    for (int number : kForwardedSignals) {
        struct sigaction current = {};
        if (sigaction(number, nullptr, &current) == 0 && current.sa_handler != SIG_IGN) signal(number, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    execvp(program[0], program);
    std::fprintf(stderr, "vpathsim: %s: %s\n", program[0], std::strerror(errno));
    _exit(127);
}

int run(std::string dir, bool dir_given, int argc, char** argv) {
    std::string config = env_config();
    bool fresh = false, keep = false;
    int i = 0;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if ((std::strcmp(argv[i], "--config") == 0 || std::strcmp(argv[i], "--state") == 0) && i + 1 >= argc)
            return usage_error(std::string("run: ") + argv[i] + " needs a value");
        if (std::strcmp(argv[i], "--config") == 0) {
            config = argv[++i];
        } else if (std::strcmp(argv[i], "--state") == 0) {
            dir = argv[++i];
            dir_given = true;
        } else if (std::strcmp(argv[i], "--fresh") == 0) {
            fresh = true;
        } else if (std::strcmp(argv[i], "--keep") == 0) {
            keep = true;
        } else {
            return usage_error(std::string("run: unknown option '") + argv[i] + "'");
        }
    }
    if (i >= argc) return usage_error("run: '--' and the program to run are missing");
    if (i + 1 >= argc) return usage_error("run: the program to run is missing after '--'");
    char** program = argv + i + 1;
    // Held from here on, so that a signal can neither end run between
    // creating the temporary state and removing it, nor come before the
    // program's group is known; they are taken in while run waits.
    sigset_t forwarded, previous;
    sigemptyset(&forwarded);
    for (int number : kForwardedSignals) sigaddset(&forwarded, number);
    sigprocmask(SIG_BLOCK, &forwarded, &previous);
    for (int number : kForwardedSignals) {
        struct sigaction action = {}, old_action = {};
        sigaction(number, nullptr, &old_action);
        if (old_action.sa_handler == SIG_IGN) continue;  // as under nohup: the program ignores it too
        action.sa_handler = forward_signal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(number, &action, nullptr);
    }
    int owner = -1;
    auto remove_state = [&] {
        if (dir_given) return;
        std::error_code ignored;
        if (keep) {
            std::filesystem::remove(dir + "/owner", ignored);
            std::fprintf(stderr, "vpathsim: state kept in %s\n", dir.c_str());
        } else {
            std::filesystem::remove_all(dir, ignored);
        }
        if (owner >= 0) close(owner);
    };
    if (!dir_given) {
        sweep_abandoned_states();
        std::string pattern = std::string(kRunPrefix) + "XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) return std::perror("vpathsim: mkdtemp"), 1;
        dir = pattern;
        owner = take_ownership(dir);
        fresh = true;
    }
    std::string preload = preload_library();
    bool ready = !preload.empty();
    if (ready) {
        vpathsim::Sim sim;
        ready = fresh ? reset(sim, dir, config) : attach(sim, dir, config);
    }
    if (!ready) {
        keep = false;
        remove_state();
        return 1;
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
    const bool terminal = isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) == getpgrp();
    pid_t child = start(program, terminal, previous);
    if (child < 0) {
        std::perror("vpathsim: fork");
        remove_state();
        return 1;
    }
    if (terminal) give_terminal(child);
    running_group = child;
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    int status = 0;
    for (;;) {
        const pid_t waited = waitpid(child, &status, terminal ? WUNTRACED : 0);
        if (waited < 0 && errno == EINTR) continue;
        if (waited != child || !WIFSTOPPED(status)) break;
        // Ctrl-Z stopped the program, which has the terminal: run stops
        // with it, as one job of the shell that started run, which then
        // gets the terminal back; fg continues run, and run the program.
        give_terminal(getpgrp());
        kill(0, SIGTSTP);
        if (tcgetpgrp(STDIN_FILENO) == getpgrp()) give_terminal(child);
        kill(-child, SIGCONT);
    }
    sigprocmask(SIG_BLOCK, &forwarded, nullptr);
    running_group = 0;
    if (terminal) give_terminal(getpgrp());
    remove_state();
    if (forwarded_signal != 0) return 128 + forwarded_signal;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct FaultCommand {
    const char* name;
    vpathsim::FaultKind kind;
    const char* numbers[2];  // DEV PATH, or DEV, or ADAPTER
    const char* synopsis;
};

constexpr FaultCommand kFaultCommands[] = {
    {"fail-path", vpathsim::kFaultFailPath, {"DEV", "PATH"}, "fail-path DEV PATH [WHEN]"},
    {"restore-path", vpathsim::kFaultRestorePath, {"DEV", "PATH"}, "restore-path DEV PATH [WHEN]"},
    {"fail-adapter", vpathsim::kFaultFailAdapter, {"ADAPTER"}, "fail-adapter ADAPTER [WHEN]"},
    {"restore-adapter", vpathsim::kFaultRestoreAdapter, {"ADAPTER"}, "restore-adapter ADAPTER [WHEN]"},
    {"fail-device", vpathsim::kFaultFailDevice, {"DEV"}, "fail-device DEV [WHEN]"},
    {"restore-device", vpathsim::kFaultRestoreDevice, {"DEV"}, "restore-device DEV [WHEN]"},
    {"flaky-path", vpathsim::kFaultFlakyPath, {"DEV", "PATH"}, "flaky-path DEV PATH every K [WHEN]"},
    {"drop-writes", vpathsim::kFaultDropWrites, {"DEV", "PATH"}, "drop-writes DEV PATH [WHEN]"},
    {"corrupt-reads", vpathsim::kFaultCorruptReads, {"DEV", "PATH"}, "corrupt-reads DEV PATH [byte B] [WHEN]"},
    {"lose-in-flight", vpathsim::kFaultLoseInFlight, {"DEV", "PATH"}, "lose-in-flight DEV PATH [WHEN]"},
};

// A count after a keyword ("after 5000", "every 3", "byte 100"): out of range
// or not a number is bad input (status 1), told with the keyword.
bool count(const char* keyword, const char* text, long long low, long long* out) {
    if (number(text, low, 4294967295LL, out)) return true;
    std::fprintf(stderr, "vpathsim: %s: expected a number from %lld to 4294967295, not '%s'\n", keyword, low, text);
    return false;
}

const FaultCommand* fault_command(const std::string& command) {
    for (const auto& candidate : kFaultCommands)
        if (command == candidate.name) return &candidate;
    return nullptr;
}

// The arguments of a fault command: 0 with the request filled in, else the
// exit status of the error told.
int fault_request(const FaultCommand* found, int argc, char** argv, vpathsim::FaultRequest& request) {
    auto wrong = [&](const std::string& what) {
        return usage_error(std::string(found->name) + ": " + what + " (" + found->synopsis + ")");
    };
    request.kind = found->kind;
    long long values[2] = {0, 0};
    const int numbers = found->numbers[1] != nullptr ? 2 : 1;
    for (int i = 0; i < numbers; ++i) {
        if (i >= argc) return wrong(std::string(found->numbers[i]) + " is missing");
        if (!number(argv[i], 0, INT_MAX, &values[i]))
            return wrong(std::string(found->numbers[i]) + " must be a number from 0 to " + std::to_string(INT_MAX) +
                         ", not '" + argv[i] + "'");
    }
    bool adapter = found->kind == vpathsim::kFaultFailAdapter || found->kind == vpathsim::kFaultRestoreAdapter;
    request.device = adapter ? -1 : static_cast<int>(values[0]);
    request.target = adapter ? static_cast<int>(values[0]) : static_cast<int>(values[1]);
    bool every = false;
    long long value = 0;
    for (int i = numbers; i < argc; i += 2) {
        std::string word = argv[i];
        bool known = word == "after" || (word == "every" && found->kind == vpathsim::kFaultFlakyPath) ||
                     (word == "byte" && found->kind == vpathsim::kFaultCorruptReads);
        if (!known) return wrong("unexpected '" + word + "'");
        if (i + 1 >= argc) return wrong("a number is missing after '" + word + "'");
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
        } else if (word == "every") {
            if (!count("every", argv[i + 1], 1, &value)) return 1;
            request.argument = static_cast<uint32_t>(value);
            every = true;
        } else {
            if (!count("byte", argv[i + 1], 0, &value)) return 1;
            request.argument = static_cast<uint32_t>(value);
        }
    }
    if (found->kind == vpathsim::kFaultFlakyPath && !every) return wrong("'every K' is missing");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = vpathsim::default_state_dir();
    bool dir_given = false;
    int i = 1;
    if (i < argc && std::strcmp(argv[i], "--state") == 0) {
        if (i + 1 >= argc) return usage_error("--state needs a directory");
        dir = argv[i + 1];
        dir_given = true;
        i += 2;
    }
    if (i >= argc) return usage_error("a command is missing");
    std::string command = argv[i++];
    int rest = argc - i;
    char** args = argv + i;
    if (command == "run") return run(dir, dir_given, rest, args);
    if (command == "help" || command == "--help") return std::fputs(kUsage, stdout), 0;

    vpathsim::Sim sim;
    if (command == "init") {
        std::string config = env_config();
        if (rest >= 1 && std::strcmp(args[0], "--config") == 0) {
            if (rest == 1) return usage_error("init: --config needs a file");
            config = args[1];
            if (rest > 2) return usage_error(std::string("init: unexpected '") + args[2] + "'");
        } else if (rest != 0) {
            return usage_error(std::string("init: unexpected '") + args[0] + "'");
        }
        return reset(sim, dir, config) ? 0 : 1;
    }
    const bool simple = command == "show" || command == "restore";
    const FaultCommand* fault = fault_command(command);
    // The commands of a device and one more number.
    const char* second = command == "inject-eio"       ? "SECTOR"
                         : command == "latency"        ? "MICROSECONDS"
                         : command == "failover-delay" ? "MILLISECONDS"
                                                       : nullptr;
    if (!simple && fault == nullptr && second == nullptr) return usage_error("unknown command '" + command + "'");
    vpathsim::FaultRequest request;
    if (fault != nullptr) {
        if (int status = fault_request(fault, rest, args, request); status != 0) return status;
    }
    if (simple && rest != 0) return usage_error(command + ": unexpected '" + args[0] + "'");
    long long device = 0, value = 0;  // inject-eio, latency, failover-delay
    if (second != nullptr) {
        const std::string synopsis = " (" + command + " DEV " + second + ")";
        if (rest < 2) return usage_error(command + ": " + (rest == 0 ? "DEV" : second) + " is missing" + synopsis);
        if (rest > 2) return usage_error(command + ": unexpected '" + args[2] + "'" + synopsis);
        if (!number(args[0], 0, INT_MAX, &device))
            return usage_error(command + ": DEV must be a number from 0 to " + std::to_string(INT_MAX) + ", not '" +
                               args[0] + "'" + synopsis);
        if (!number(args[1], 0, LLONG_MAX, &value))
            return usage_error(command + ": " + second + " must be a number, not '" + args[1] + "'" + synopsis);
    }
    if (!attach(sim, dir, env_config())) return 1;
    if (command == "show") {
        sim.show(stdout);
        return 0;
    }
    if (command == "restore") {
        sim.restore();
        return 0;
    }
    if (command == "inject-eio") {
        if (sim.inject_eio(static_cast<int>(device), static_cast<uint64_t>(value))) return 0;
        std::fprintf(stderr, "vpathsim: cannot inject sector %lld on vpath%lld\n", value, device);
        return 1;
    }
    if (command == "latency" || command == "failover-delay") {
        std::string error;
        if (command == "latency" ? sim.set_latency(static_cast<int>(device), value, &error)
                                 : sim.set_failover_delay(static_cast<int>(device), value, &error))
            return 0;
        std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
        return 1;
    }
    std::string error;
    if (sim.arm(request, &error)) return 0;
    std::fprintf(stderr, "vpathsim: %s\n", error.c_str());
    return 1;
}

// The run: a case's script in its scratch folder, with its streams, under
// a supervising process that outlives the checker only to end the run and
// remove its folder.
#include <fcntl.h>
#include <signal.h>
#include <dirent.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "check/check.h"

namespace fs = std::filesystem;

namespace check {

namespace {

// Every signal whose default action ends a program and that a program can
// catch: each is passed on to the run, which ends before the checker does.
constexpr int kEndingSignals[] = {SIGHUP,  SIGINT,  SIGQUIT,   SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM,
                                  SIGSTKFLT, SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF, SIGIO,   SIGPWR};

volatile sig_atomic_t g_signal = 0;
volatile sig_atomic_t g_case_group = 0;
bool g_ignored[NSIG] = {};  // ignored when the checker started (nohup): the run ignores them too

void on_signal(int number) {
    if (g_signal == 0) g_signal = number;
    pid_t group = g_case_group;
    if (group > 0) kill(-group, number);
}

void wake(int) {}

sigset_t ending_set() {
    sigset_t set;
    sigemptyset(&set);
    for (int n : kEndingSignals) sigaddset(&set, n);
    return set;
}

long long now_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

bool read_all(int fd, void* data, size_t size) {
    auto* p = static_cast<char*>(data);
    while (size > 0) {
        ssize_t n = read(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Whether the group's leader has ended. It is left unreaped, so that its
// process and group id cannot be given to another program while the rest
// of the group is still being ended.
bool leader_ended(pid_t leader, bool block) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(leader), &info, WEXITED | WNOWAIT | (block ? 0 : WNOHANG)) == 0 &&
           info.si_pid == leader;
}

// Ends the run's process group: asked first, so that a simulator under it
// removes what it made, then told, whatever is left after `grace_ms`.
void end_group(pid_t leader, long long grace_ms) {
    kill(-leader, SIGTERM);
    long long until = now_ms() + grace_ms;
    while (!leader_ended(leader, false) && now_ms() < until) usleep(10000);
    kill(-leader, SIGKILL);
}

struct Launch {
    std::vector<std::string> args;
    std::vector<std::pair<std::string, std::string>> env;
    std::string in, out, err, dir;
};

[[noreturn]] void exec_case(Launch& l, const sigset_t& mask) {
    setpgid(0, 0);
    // The supervisor ends the run when the checker is gone; should the
    // supervisor itself be killed outright, the run goes with it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int n : kEndingSignals) signal(n, g_ignored[n] ? SIG_IGN : SIG_DFL);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    int in = open(l.in.c_str(), O_RDONLY);
    int out = open(l.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(l.err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0 || chdir(l.dir.c_str()) != 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    // Only the three streams are inherited, so the descriptor numbers a
    // run prints depend on the run alone, not on who started the checker.
    close_range(3, ~0U, 0);
    for (auto& [name, value] : l.env) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> argv;
    argv.reserve(l.args.size() + 1);
    for (std::string& a : l.args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

// The supervisor: starts the run in a process group of its own, reports
// the group and then the run's wait status on `report`. Should the checker
// die, even by SIGKILL, it ends the run and removes the scratch folder.
[[noreturn]] void supervise(Launch& l, const sigset_t& mask, pid_t checker, int report, const std::string& top) {
    struct sigaction action = {};
    action.sa_handler = wake;  // only to interrupt the wait; nothing ends the supervisor but the run's end
    sigemptyset(&action.sa_mask);
    for (int n : kEndingSignals) sigaction(n, &action, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    pid_t run = fork();
    if (run == 0) exec_case(l, mask);
    if (run < 0) _exit(kTrouble);
    setpgid(run, run);
    if (write(report, &run, sizeof run) != sizeof run) {}
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    for (;;) {
        if (getppid() != checker) {
            end_group(run, 5000);
            std::error_code ignored;
            fs::remove_all(top, ignored);
            _exit(kTrouble);
        }
        if (leader_ended(run, true)) break;
        if (errno != EINTR) _exit(kTrouble);
    }
    // Whatever the run left behind in its process group must not outlive it.
    kill(-run, SIGKILL);
    int status = 0;
    while (waitpid(run, &status, 0) < 0 && errno == EINTR) {}
    if (write(report, &status, sizeof status) != sizeof status) {}
    _exit(0);
}

std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char ch : s) q += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return q + "'";
}

}  // namespace

void handle_ending_signals() {
    struct sigaction action = {};
    action.sa_handler = on_signal;  // no SA_RESTART: a wait ends and the flag is seen
    sigemptyset(&action.sa_mask);
    for (int n : kEndingSignals) {
        struct sigaction old = {};
        sigaction(n, nullptr, &old);
        g_ignored[n] = old.sa_handler == SIG_IGN;
        if (!g_ignored[n]) sigaction(n, &action, nullptr);
    }
}

int caught_signal() { return g_signal; }

std::string temporary_directory() {
    const char* tmp = getenv("TMPDIR");
    return tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
}

// A scratch folder holds a "lock" file locked while its checker or the
// supervisor lives. One whose lock nobody holds (both killed outright) is
// removed by the next checker; a folder kept with --keep has no lock.
void sweep_stale_scratch() {
    std::string tmp = temporary_directory();
    DIR* dir = opendir(tmp.c_str());
    if (dir == nullptr) return;
    time_t now = time(nullptr);
    while (dirent* e = readdir(dir)) {
        if (std::strncmp(e->d_name, "tarnwick-check.", 15) != 0) continue;
        std::string top = tmp + "/" + e->d_name, lock = top + "/lock";
        struct stat info {};
        // A folder just made may not be locked yet.
        if (lstat(lock.c_str(), &info) != 0 || info.st_uid != geteuid() || now - info.st_mtime < 10) continue;
        int fd = open(lock.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) continue;
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            std::error_code ignored;
            fs::remove_all(top, ignored);
        }
        close(fd);
    }
    closedir(dir);
}

bool make_scratch(const Options& o, Scratch* s, std::string* error) {
    std::string pattern = temporary_directory() + "/tarnwick-check.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        *error = "scratch folder " + pattern + ": " + std::strerror(errno);
        return false;
    }
    std::error_code ec;
    // The run sees its folder by its real name ($PWD), and so does the mask.
    s->top = fs::canonical(pattern, ec).string();
    if (ec) s->top = pattern;
    // Held by this process and the supervisor it forks, never by the run.
    s->lock = open((s->top + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (s->lock < 0 || flock(s->lock, LOCK_EX) != 0) {
        *error = "scratch folder " + s->top + ": " + std::strerror(errno);
        remove_scratch(*s);
        return false;
    }
    s->run = s->top + "/run";
    s->sim = s->top + "/sim";
    s->bin = s->top + "/bin";
    if (mkdir(s->run.c_str(), 0755) != 0 || mkdir(s->bin.c_str(), 0755) != 0) {
        *error = "scratch folder " + s->top + ": " + std::strerror(errno);
        remove_scratch(*s);
        return false;
    }
    // The run finds exactly the programs under test by their plain names,
    // whatever they are called; one that is missing says so when run.
    for (const Program* p : {&o.tarnwick, &o.vpathsim, &o.plot}) {
        std::string link = s->bin + "/" + p->name;
        bool ok = !p->path.empty()
                      ? symlink(p->path.c_str(), link.c_str()) == 0
                      : write_file(link, "#!/bin/sh\necho " + p->name + " >> " + quoted(s->top + "/missing") +
                                             "\necho \"tarnwick-check: no " + p->name + " to run\" >&2\nexit 127\n") &&
                            chmod(link.c_str(), 0755) == 0;
        if (!ok) {
            *error = link + ": " + std::strerror(errno);
            remove_scratch(*s);
            return false;
        }
    }
    if (symlink(self_path().c_str(), (s->bin + "/tarnwick-check").c_str()) != 0) {
        *error = s->bin + "/tarnwick-check: " + std::strerror(errno);
        remove_scratch(*s);
        return false;
    }
    return true;
}

void remove_scratch(const Scratch& s) {
    std::error_code ignored;
    fs::remove_all(s.top, ignored);
    if (s.lock >= 0) close(s.lock);
}

void keep_scratch(const Scratch& s) {
    unlink((s.top + "/lock").c_str());
    if (s.lock >= 0) close(s.lock);
}

Masks masks_of(const Scratch& s) { return {{s.run, "<scratch>"}, {s.sim, "<simstate>"}}; }

bool run_case(const Case& c, const Options& o, const Scratch& s, RunResult* r, std::string* error) {
    const Section* run = c.find("run");
    std::string input;
    for (const Section& f : c.sections) {
        if (f.keyword == "stdin") input = decode(f.body);
        if (f.keyword != "file") continue;
        fs::path path = fs::path(s.run) / f.argument;
        std::error_code ec;
        fs::create_directories(path.parent_path(), ec);
        if (ec || !write_file(path.string(), decode(f.body))) {
            *error = std::to_string(f.line) + ": --- file " + f.argument + ": " +
                     (ec ? ec.message() : std::string(std::strerror(errno)));
            return false;
        }
    }
    bool sim = false;
    std::string config;
    for (size_t at = 0; at < run->argument.size();) {
        size_t end = run->argument.find(' ', at);
        if (end == std::string::npos) end = run->argument.size();
        std::string word = run->argument.substr(at, end - at);
        if (word == "sim") sim = true;
        if (word.compare(0, 7, "config=") == 0) config = word.substr(7);
        at = end + 1;
    }
    std::string where = std::to_string(run->line) + ": --- run " + run->argument + ": ";
    if (!config.empty() && access((s.run + "/" + config).c_str(), R_OK) != 0) {
        *error = where + "no file " + config + " to read (the case has no --- file " + config + ")";
        return false;
    }
    if (sim && o.vpathsim.path.empty()) {
        *error = where + "no vpathsim to run (looked for " + o.vpathsim.looked + "); name it with --vpathsim PATH or $" +
                 o.vpathsim.variable;
        return false;
    }
    Launch l;
    l.in = s.top + "/stdin";
    l.out = s.top + "/stdout";
    l.err = s.top + "/stderr";
    l.dir = s.run;
    if (!write_file(l.in, input)) {
        *error = std::string("cannot write standard input: ") + std::strerror(errno);
        return false;
    }
    if (sim) {
        // The simulator's state lies in the checker's folder, so it goes
        // with the folder whatever ends the run.
        l.args = {o.vpathsim.path, "run", "--state", s.sim, "--fresh"};
        if (!config.empty()) l.args.insert(l.args.end(), {"--config", config});
        l.args.push_back("--");
    }
    l.args.insert(l.args.end(), {"/bin/sh", "-c", decode(run->body)});
    std::string path = s.bin;
    if (const char* old = getenv("PATH")) path += std::string(":") + old;
    l.env = {{"PATH", path}, {"LC_ALL", "C"}};
    for (const Program* p : {&o.tarnwick, &o.vpathsim, &o.plot}) l.env.emplace_back(p->variable, s.bin + "/" + p->name);

    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    std::fflush(nullptr);
    sigset_t ending = ending_set(), previous;
    sigprocmask(SIG_BLOCK, &ending, &previous);
    pid_t checker = getpid();
    pid_t supervisor = fork();
    if (supervisor == 0) {
        close(report[0]);
        supervise(l, previous, checker, report[1], s.top);
    }
    close(report[1]);
    if (supervisor < 0) {
        sigprocmask(SIG_SETMASK, &previous, nullptr);
        close(report[0]);
        *error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    pid_t group = 0;
    if (read_all(report[0], &group, sizeof group)) g_case_group = group;
    // A signal that came while the group was not yet known is passed on now.
    if (g_signal != 0 && group > 0) kill(-group, g_signal);
    sigprocmask(SIG_SETMASK, &previous, nullptr);

    long long deadline = now_ms() + o.timeout_seconds * 1000LL, kill_at = 0;
    int supervisor_status = 0;
    for (;;) {
        pid_t done = waitpid(supervisor, &supervisor_status, WNOHANG);
        if (done == supervisor || (done < 0 && errno != EINTR)) break;
        long long t = now_ms();
        if (!r->timed_out && g_signal == 0 && t > deadline && group > 0) {
            r->timed_out = true;
            kill(-group, SIGTERM);
            kill_at = t + 5000;
        }
        if (g_signal != 0 && kill_at == 0) kill_at = t + 5000;
        if (kill_at != 0 && t > kill_at && group > 0) {
            kill(-group, SIGKILL);
            kill_at = LLONG_MAX;
        }
        usleep(5000);
    }
    g_case_group = 0;
    int status = 0;
    if (!read_all(report[0], &status, sizeof status)) status = SIGKILL;  // as if killed
    close(report[0]);
    if (group <= 0) {
        *error = "the run could not be started";
        return false;
    }
    r->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    read_file(l.out, &r->out);
    read_file(l.err, &r->err);
    std::string missing;
    if (read_file(s.top + "/missing", &missing)) {
        for (size_t at = 0; at < missing.size();) {
            size_t end = missing.find('\n', at);
            std::string name = missing.substr(at, end - at);
            bool seen = false;
            for (const std::string& m : r->missing) seen |= m == name;
            if (!seen) r->missing.push_back(name);
            at = end == std::string::npos ? missing.size() : end + 1;
        }
    }
    return true;
}

}  // namespace check

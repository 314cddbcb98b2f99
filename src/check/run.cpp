// The run: a case's script in its scratch folder, with its streams.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;
#include <ctime>

#include "check/check.h"

namespace check {

std::string self_directory() {
    char buffer[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return ".";
    buffer[n] = '\0';
    return fs::path(buffer).parent_path().string();
}

// Runs the case's script in `scratch` and collects its streams and status.
bool run_case(const Case& c, const Options& o, const std::string& scratch, RunResult* r, std::string* error) {
    const Section* run = nullptr;
    std::string input;
    for (const Section& s : c.sections) {
        if (s.keyword == "run") run = &s;
        if (s.keyword == "stdin") input = decode(s.body);
        if (s.keyword == "file" && !write_file(scratch + "/" + s.argument, decode(s.body))) {
            *error = "cannot write " + s.argument + ": " + std::strerror(errno);
            return false;
        }
    }
    if (run == nullptr) {
        *error = "no --- run section";
        return false;
    }
    bool sim = false;
    std::string config;
    for (size_t at = 0; at < run->argument.size();) {
        size_t end = run->argument.find(' ', at);
        if (end == std::string::npos) end = run->argument.size();
        std::string word = run->argument.substr(at, end - at);
        if (word == "sim") {
            sim = true;
        } else if (word.compare(0, 7, "config=") == 0) {
            config = word.substr(7);
        } else if (!word.empty()) {
            *error = "unknown run option " + word;
            return false;
        }
        at = end + 1;
    }
    std::string in_path = scratch + "/.stdin", out_path = scratch + "/.stdout", err_path = scratch + "/.stderr";
    if (!write_file(in_path, input)) {
        *error = std::string("cannot write standard input: ") + std::strerror(errno);
        return false;
    }
    std::string script = decode(run->body);
    std::vector<std::string> args;
    if (sim) {
        args = {o.vpathsim, "run"};
        if (!config.empty()) args.insert(args.end(), {"--config", config});
        args.push_back("--");
    }
    args.insert(args.end(), {"/bin/sh", "-c", script});
    std::string path = fs::path(o.tarnwick).parent_path().string() + ":" +
                       fs::path(o.vpathsim).parent_path().string() + ":" + self_directory();
    if (const char* old = getenv("PATH")) path += std::string(":") + old;

    std::fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        *error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0) {
        setpgid(0, 0);
        int in = open(in_path.c_str(), O_RDONLY);
        int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || chdir(scratch.c_str()) != 0) _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        // Only the three streams are inherited, so the descriptor numbers a
        // run prints depend on the run alone, not on who started the checker.
        close_range(3, ~0U, 0);
        setenv("PATH", path.c_str(), 1);
        setenv("LC_ALL", "C", 1);
        std::vector<char*> argv;
        argv.reserve(args.size() + 1);
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    time_t deadline = time(nullptr) + o.timeout_seconds;
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        if (done < 0 && errno != EINTR) {
            *error = std::string("waitpid: ") + std::strerror(errno);
            return false;
        }
        if (time(nullptr) > deadline) {
            kill(-pid, SIGKILL);
            waitpid(pid, &status, 0);
            r->timed_out = true;
            break;
        }
        usleep(5000);
    }
    // Whatever the run left behind in its process group must not outlive it.
    kill(-pid, SIGKILL);
    r->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    read_file(out_path, &r->out);
    read_file(err_path, &r->err);
    return true;
}
}  // namespace check

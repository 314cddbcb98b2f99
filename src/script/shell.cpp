// The commands of a system statement: /bin/sh -c in a process group of its
// own, so that a stop signal reaches every process the command started and
// the run then stops as it would at any other moment.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "context/context.h"
#include "script/script.h"

namespace {

// Hands the terminal's foreground to group (from the background too, so
// SIGTTOU, which would stop the caller, is held back meanwhile).
void give_terminal(pid_t group) {
    sigset_t hold;
    sigset_t previous;
    sigemptyset(&hold);
    sigaddset(&hold, SIGTTOU);
    sigprocmask(SIG_BLOCK, &hold, &previous);
    tcsetpgrp(STDIN_FILENO, group);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
}

[[noreturn]] void start_shell(const char* command, pid_t parent, bool terminal, const sigset_t& mask) {
    setpgid(0, 0);
    if (terminal) give_terminal(getpgrp());
    // Never outlives a parent killed outright (SIGKILL gives it no chance
    // to pass anything on); a parent gone before this line counts as well.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    // A stop signal the parent passes on before the exec must end the child,
    // not its copy of the parent's handler (exec would forget it was sent).
    for (const StopSignal& stop : kStopSignals) {
        struct sigaction current = {};
        if (sigaction(stop.number, nullptr, &current) == 0 && current.sa_handler != SIG_IGN)
            signal(stop.number, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

// Ctrl-Z stopped the command, which has the terminal. The run stops with
// it, as a shell's job does, so that the shell that started the tool gets
// the terminal back; on fg that shell continues the tool, which hands the
// terminal on and continues the command. (Where no shell can continue the
// tool, the stop is discarded and the command goes on at once.)
void stop_with_command(pid_t group) {
    give_terminal(getpgrp());
    kill(0, SIGTSTP);
    if (tcgetpgrp(STDIN_FILENO) == getpgrp()) give_terminal(group);
    kill(-group, SIGCONT);
}

}  // namespace

int run_shell_command(const char* command) {
    // The next command's result clause may judge the errno that the last
    // one left: asking the terminal here must not change it.
    const int entry_errno = errno;
    // Held across the fork, so that no stop signal comes between the child's
    // start and the moment its group is known to the handler.
    sigset_t hold;
    sigset_t previous;
    sigemptyset(&hold);
    for (const StopSignal& stop : kStopSignals) sigaddset(&hold, stop.number);
    sigprocmask(SIG_BLOCK, &hold, &previous);
    // At a terminal the command gets the foreground, as a shell gives it,
    // so that it may read the keyboard and Ctrl-C reaches it directly.
    const bool terminal = isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) == getpgrp();
    errno = entry_errno;
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) start_shell(command, parent, terminal, previous);
    if (child < 0) {
        const int saved = errno;
        sigprocmask(SIG_SETMASK, &previous, nullptr);
        errno = saved;
        return -1;
    }
    setpgid(child, child);
    if (terminal) give_terminal(child);
    shell_group = child;
    // A stop asked for before the statement began ends the command at once.
    if (stop_requested()) kill(-child, stop_signal);
    sigprocmask(SIG_SETMASK, &previous, nullptr);

    int status = 0;
    pid_t waited = -1;
    for (;;) {
        waited = waitpid(child, &status, terminal ? WUNTRACED : 0);
        if (waited < 0 && errno == EINTR) continue;
        if (waited != child || !WIFSTOPPED(status)) break;
        stop_with_command(child);
    }
    const int saved = waited == child ? entry_errno : errno;
    shell_group = 0;
    if (terminal) {
        give_terminal(getpgrp());
        // Ctrl-C or Ctrl-\ at the keyboard went to the command alone; the
        // tester meant the run.
        if (waited == child && WIFSIGNALED(status) && (WTERMSIG(status) == SIGINT || WTERMSIG(status) == SIGQUIT) &&
            !stop_requested()) {
            stop_signal = WTERMSIG(status);
        }
    }
    errno = saved;
    return waited == child ? status : -1;
}

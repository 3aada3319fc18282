// mount_internal: what the mount engine's sources share; never installed.
#ifndef MOUNT_MOUNT_INTERNAL_H
#define MOUNT_MOUNT_INTERNAL_H

#include "lib/kt_internal.h"
#include "lib/proc.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace mount_engine {

// Every error line of the engine is preceded by where it was raised: this source tag (the name
// the appliance's log readers know), the function and the line.
constexpr char source_tag[] = "mount_thread";

struct free_process {
    void operator()(ktprocess *proc) const { proc_free_ktprocess(proc); }
};
// A started outside program, freed (not waited for) when it goes.
using process = std::unique_ptr<ktprocess, free_process>;

// Held while the engine starts an outside program and waits for it: meanwhile no other thread
// reaps children (see mount_reap_child). Taken before the child exists.
class waited_child {
  public:
    waited_child();
    ~waited_child();
    waited_child(const waited_child &) = delete;
    waited_child &operator=(const waited_child &) = delete;
};

// Runs a command line through the shell. What the appliance's scripts do, and whether they
// manage, is theirs to care about: the result is not looked at.
// system() hands the calling thread's signal mask to the shell: the mount thread's blocked
// Ctrl-C is let through meanwhile (system itself ignores it until the shell is done).
inline void run_shell(const char *command) {
    waited_child child;
    sigset_t interrupt, old;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_UNBLOCK, &interrupt, &old);
    (void)!std::system(command);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// Runs an outside script: `line` through the shell, or, hardened, the same words `argv`
// (null-terminated, argv[0] looked up in PATH) without one, so that nothing in a volume label
// or a USB string can become shell syntax. Waits for that child alone; the result is not looked
// at, as with run_shell.
inline void run_script(const char *line, const char *const argv[]) {
    if constexpr (!kt::hardened) {
        run_shell(line);
        return;
    }
    waited_child child;
    const pid_t pid = fork();
    if (pid == 0) {
        kt::unblock_signals();
        execvp(argv[0], const_cast<char *const *>(argv));
        _exit(127);
    }
    while (pid > 0 && waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// The line before an error: the place it was raised, `function` at `line`.
inline void log_place(const char *function, int line) {
    syslog(LOG_ERR, "%s:%s(%d)", source_tag, function, line);
}

} // namespace mount_engine

#endif

// mount_internal: what the mount engine's sources share; never installed.
#ifndef MOUNT_MOUNT_INTERNAL_H
#define MOUNT_MOUNT_INTERNAL_H

#include "lib/proc.h"

#include <csignal>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <syslog.h>

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

// The line before an error: the place it was raised, `function` at `line`.
inline void log_place(const char *function, int line) {
    syslog(LOG_ERR, "%s:%s(%d)", source_tag, function, line);
}

} // namespace mount_engine

#endif

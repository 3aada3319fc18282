// Test helper: a child process that takes something (a lock, a pid file) and holds on to it.
#ifndef HOTPLUGD_TESTS_HOLDER_H
#define HOTPLUGD_TESTS_HOLDER_H

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace kt_test {

// Kills a holder and reaps it, which lets go of whatever it held. A failed start's -1 is
// ignored: kill(-1) would end every process there is.
inline void stop_holder(pid_t pid) {
    if (pid > 0 && kill(pid, SIGKILL) == 0)
        waitpid(pid, nullptr, 0);
}

// Forks a child that calls `take` and, if it returns true, waits to be killed. The child's pid
// once it holds, or -1 when `take` failed (the child is then gone).
template <typename Take> pid_t start_holder(Take take) {
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        char ok = take() ? '1' : '0';
        (void)!write(ready[1], &ok, 1);
        pause();
        _exit(0);
    }
    close(ready[1]);
    char ok = 0;
    if (pid > 0 && (read(ready[0], &ok, 1) != 1 || ok != '1')) {
        stop_holder(pid);
        pid = -1;
    }
    close(ready[0]);
    return pid;
}

} // namespace kt_test

#endif

// Tests of daemonizing and the pid file, run in the sandbox where /var/run is a private tmpfs.
#include "lib/ktdaemon.h"
#include "tests/helpers/holder.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *pid_path = "/var/run/hotplugd.pid";

using kt_test::read_file;

struct PidFileTest : ::testing::Test {
    void SetUp() override {
        if (!kt_test::in_sandbox())
            GTEST_SKIP() << "needs tests/sandbox/run: it writes /var/run/hotplugd.pid";
        unlink(pid_path);
    }
};

// A child holding the pid file, as a running instance does.
pid_t start_holder() {
    return kt_test::start_holder([] { return kt_create_pid_file("hotplugd") >= 0; });
}

TEST_F(PidFileTest, SecondInstanceFailsAndLeavesFirstPid) {
    pid_t holder = start_holder();
    ASSERT_GT(holder, 0);
    EXPECT_EQ(read_file(pid_path), std::to_string(holder) + "\n");

    EXPECT_EQ(kt_create_pid_file("hotplugd"), -1);
    EXPECT_EQ(read_file(pid_path), std::to_string(holder) + "\n")
        << "the lock is taken before truncating";

    kt_test::stop_holder(holder);

    // The stale file of the dead instance is taken over and rewritten.
    int fd = kt_create_pid_file("hotplugd");
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_file(pid_path), std::to_string(getpid()) + "\n");
    EXPECT_EQ(flock(open(pid_path, O_RDONLY), LOCK_EX | LOCK_NB), -1) << "still locked";
    EXPECT_EQ(errno, EWOULDBLOCK);
    close(fd);
}

TEST_F(PidFileTest, LongerStalePidIsTruncated) {
    {
        std::ofstream stale(pid_path);
        stale << "1234567890123\nrubbish\n";
    }
    int fd = kt_create_pid_file("hotplugd");
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_file(pid_path), std::to_string(getpid()) + "\n");
    close(fd);
}

TEST_F(PidFileTest, ModeIsDecimal644LessUmask) {
    for (mode_t mask : {0000, 0022, 0004, 0200}) {
        unlink(pid_path);
        mode_t old = umask(mask);
        int fd = kt_create_pid_file("hotplugd");
        umask(old);
        ASSERT_GE(fd, 0);
        struct stat st {};
        ASSERT_EQ(stat(pid_path, &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 01204u & ~mask) << "umask " << std::oct << mask;
        close(fd);
    }
}

TEST_F(PidFileTest, UnwritableDirectoryOrNullNameFails) {
    EXPECT_EQ(kt_create_pid_file(nullptr), -1);
    EXPECT_EQ(kt_create_pid_file("no/such/dir"), -1);
}

// What the detached process reports about itself through a pipe.
struct Report {
    pid_t pid, sid;
    mode_t umask;
    int fd_closed[3];
    char cwd[64];
};

TEST(Daemonize, DetachesAsNonLeaderInRootWithZeroUmask) {
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t caller = fork();
    ASSERT_GE(caller, 0);
    if (caller == 0) {
        close(pipefd[0]);
        umask(0077);
        // Keep the report channel clear of 0-2, which kt_daemonize closes.
        int out = fcntl(pipefd[1], F_DUPFD, 10);
        if (kt_daemonize("hotplugd") != 0)
            _exit(3);
        Report r{};
        r.pid = getpid();
        r.sid = getsid(0);
        r.umask = umask(0);
        for (int fd = 0; fd < 3; ++fd)
            r.fd_closed[fd] = fcntl(fd, F_GETFD) == -1 && errno == EBADF;
        if (getcwd(r.cwd, sizeof r.cwd) == nullptr)
            r.cwd[0] = 0;
        (void)!write(out, &r, sizeof r);
        _exit(0);
    }
    close(pipefd[1]);

    // The caller's parent sees status 0 at once, while the daemon lives on.
    int status = -1;
    ASSERT_EQ(waitpid(caller, &status, 0), caller);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);

    Report r{};
    ASSERT_EQ(read(pipefd[0], &r, sizeof r), static_cast<ssize_t>(sizeof r));
    close(pipefd[0]);
    EXPECT_NE(r.pid, caller);
    EXPECT_NE(r.sid, r.pid) << "the second fork leaves no session leader";
    EXPECT_NE(r.sid, getsid(0)) << "a session of its own";
    EXPECT_EQ(r.umask, 0u);
    EXPECT_STREQ(r.cwd, "/");
    EXPECT_TRUE(r.fd_closed[0] && r.fd_closed[1] && r.fd_closed[2]);
}

} // namespace

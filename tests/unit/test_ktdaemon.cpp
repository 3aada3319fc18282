// Tests of daemonizing and the pid file, run in the sandbox where /var/run is a private tmpfs.
#include "lib/ktdaemon.h"
#include "tests/helpers/holder.h"
#include "tests/helpers/scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace {

constexpr const char *pid_path = "/var/run/hotplugd.pid";

TEST(PidFile, ModeLockAndContent) {
    if (!kt_test::in_sandbox())
        GTEST_SKIP() << "needs scripts/sandbox/run: it writes /var/run/hotplugd.pid";
    // Mode decimal 644 (octal 1204) less the umask. A daemon's free descriptor 0 is a fine result.
    close(0);
    mode_t old = umask(0204);
    int fd = kt_create_pid_file("hotplugd");
    umask(old);
    struct stat st {};
    EXPECT_EQ(fd >= 0 && fstat(fd, &st) == 0 && close(fd) == 0 ? st.st_mode & 07777 : 0, 01000u);
    // A stale, longer file is rewritten; a running instance's lock is taken before truncating.
    ASSERT_TRUE(kt_test::write_file(pid_path, "1234567890123\nrubbish\n"));
    pid_t holder = kt_test::start_holder([] { return kt_create_pid_file("hotplugd") >= 0; });
    EXPECT_EQ(kt_create_pid_file("hotplugd"), -1);
    EXPECT_EQ(kt_test::read_file(pid_path), std::to_string(holder) + "\n");
    kt_test::stop_holder(holder);
    EXPECT_TRUE(kt_create_pid_file(nullptr) == -1 && kt_create_pid_file("no/such/dir") == -1);
}

TEST(Daemonize, DetachesWithZeroUmaskNoStandardStreamsAndHangupIgnored) {
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    pid_t caller = fork();
    if (caller == 0) {
        // The report goes out above descriptors 0 to 2, which kt_daemonize closes.
        int out = fcntl(report[1], F_DUPFD, 10);
        umask(0077);
        int result = kt_daemonize("hotplugd");
        raise(SIGHUP); // ignored, or there is no report
        const std::string text =
            std::to_string(result) + ", umask " + std::to_string(umask(0)) +
            (fcntl(0, F_GETFD) + fcntl(1, F_GETFD) + fcntl(2, F_GETFD) == -3 ? ", closed" : "");
        (void)!write(out, text.data(), text.size());
        _exit(0);
    }
    close(report[1]);
    waitpid(caller, nullptr, 0);
    EXPECT_EQ(kt_test::read_file("/dev/fd/" + std::to_string(report[0])), "0, umask 0, closed");
    close(report[0]);
}

} // namespace

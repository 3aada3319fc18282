// Test helper: runs code in a child whose syslog messages reach a private /dev/log socket.
#ifndef HOTPLUGD_TESTS_SYSLOG_CATCHER_H
#define HOTPLUGD_TESTS_SYSLOG_CATCHER_H

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kt_test {

struct caught_syslog {
    std::string error; // empty when the child could set up and run the code
    int result = 0;    // what the code returned
    // Each datagram as syslog sent it: "<PRI>TIMESTAMP hotplug[PID]: text".
    std::vector<std::string> messages;
};

// The text of a caught message, after its "ident[pid]: " header.
inline std::string syslog_text(const std::string &message) {
    size_t at = message.find("]: ");
    return at == std::string::npos ? message : message.substr(at + 3);
}

namespace detail {

inline void put_text(std::string *out, const std::string &text) {
    uint32_t size = static_cast<uint32_t>(text.size());
    out->append(reinterpret_cast<const char *>(&size), sizeof size);
    out->append(text);
}

inline bool take_text(const std::string &in, size_t *at, std::string *text) {
    uint32_t size = 0;
    if (in.size() - *at < sizeof size)
        return false;
    std::memcpy(&size, in.data() + *at, sizeof size);
    *at += sizeof size;
    if (in.size() - *at < size)
        return false;
    *text = in.substr(*at, size);
    *at += size;
    return true;
}

// In a fresh mount namespace: a tmpfs over /dev, /dev/null and the `keep` entries of the old
// /dev bound again at their names, and a datagram socket at /dev/log. The socket, or -1 with
// `error` set.
inline int private_dev_log(std::vector<std::string> keep, std::string *error) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
        return *error = "no mount namespace", -1;
    // Programs such as tar open /dev/null in place of closed standard descriptors.
    keep.push_back("/dev/null");
    std::vector<int> kept;
    for (const std::string &path : keep)
        kept.push_back(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0)
        return *error = "cannot mount a tmpfs on /dev", -1;
    for (size_t i = 0; i < keep.size(); ++i) {
        std::string from = "/proc/self/fd/" + std::to_string(kept[i]);
        int made = open(keep[i].c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (kept[i] < 0 || made < 0 || close(made) != 0 ||
            mount(from.c_str(), keep[i].c_str(), nullptr, MS_BIND, nullptr) != 0)
            return *error = "cannot keep " + keep[i], -1;
        close(kept[i]);
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "/dev/log");
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0 || bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return *error = "cannot bind /dev/log", -1;
    return sock;
}

// Sent to /dev/log after the code, so the drain knows it has every message.
constexpr std::string_view end_mark = "end of the caught messages"; // syslog sends "<PRI>..."

inline void send_end_mark() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "/dev/log");
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(sock, end_mark.data(), end_mark.size(), 0, reinterpret_cast<sockaddr *>(&addr),
           sizeof addr);
    close(sock);
}

} // namespace detail

// Runs `code` (returning int) in a forked child where syslog, opened with the daemon's ident
// "hotplug", LOG_PID and LOG_DAEMON, writes to a socket of the child's own (see
// private_dev_log; `keep` names further device files the code needs, e.g. "/dev/kteeprom").
// Files the code changes are seen by the caller; its memory is not, unless it is shared.
template <typename Code>
caught_syslog catch_syslog(Code code, const std::vector<std::string> &keep = {}) {
    caught_syslog caught;
    int report[2];
    if (pipe(report) != 0)
        return caught.error = "pipe failed", caught;
    pid_t child = fork();
    if (child < 0)
        return caught.error = "fork failed", caught;
    if (child == 0) {
        close(report[0]);
        std::string error, out;
        int result = 0;
        int sock = detail::private_dev_log(keep, &error);
        std::string messages;
        if (sock >= 0) {
            // A datagram socket queues only a few messages: they are taken as they come.
            std::thread drain([&] {
                char message[2048];
                for (ssize_t n; (n = recv(sock, message, sizeof message, 0)) > 0;) {
                    if (std::string_view(message, static_cast<size_t>(n)) == detail::end_mark)
                        break;
                    detail::put_text(&messages, std::string(message, static_cast<size_t>(n)));
                }
            });
            openlog("hotplug", LOG_PID, LOG_DAEMON);
            result = code();
            closelog();
            detail::send_end_mark();
            drain.join();
        }
        out.append(reinterpret_cast<const char *>(&result), sizeof result);
        detail::put_text(&out, error);
        out += messages;
        (void)!write(report[1], out.data(), out.size());
        _exit(0);
    }
    close(report[1]);
    std::string in;
    char buf[4096];
    for (ssize_t n; (n = read(report[0], buf, sizeof buf)) > 0;)
        in.append(buf, static_cast<size_t>(n));
    close(report[0]);
    waitpid(child, nullptr, 0);
    size_t at = sizeof caught.result;
    if (in.size() < at || !detail::take_text(in, &at, &caught.error))
        return caught.error = "the child died", caught;
    std::memcpy(&caught.result, in.data(), sizeof caught.result);
    for (std::string message; detail::take_text(in, &at, &message);)
        caught.messages.push_back(message);
    return caught;
}

} // namespace kt_test

#endif

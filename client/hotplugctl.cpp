// hotplugctl: asks hotplugd about its disks, has it mount and unmount them, sends it hotplug
// events.
#include "client/reply.h"
#include "client/uevent.h"
#include "daemon/receive.h"
#include "lib/kt_internal.h"
#include "lib/ktipc.h"
#include "mount/unmount.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

extern char **environ;

namespace {

using std::string_view;

// Exit statuses, one for each way a request can end.
enum status : int {
    done = 0,
    refused = 1, // the daemon answered "refused or failed", or the request could not be sent
    usage = 2,
    not_running = 3,
    no_reply = 4,
    no_such = 5
};

constexpr char server[] = KTIPC_DIR "/ipc-hotplugd.sock";
// A guarded unmount syncs, waits a second and runs the platform's scripts and the event
// program (up to 15 s), possibly twice with a re-mount: a minute covers it.
constexpr int default_timeout_s = 60;
// The longest reply is a disk's information; a datagram beyond this is no reply of hotplugd's.
constexpr size_t reply_size = 2048;
constexpr size_t max_words = 3;
constexpr size_t max_event_options = 32;

struct event_option {
    string_view key;
    const char *value;
};

struct options {
    bool json = false;
    bool scan = false; // listen: announce what is present first
    int timeout_s = default_timeout_s;
    const char *sysfs = "/sys";
    const char *words[max_words] = {};          // the subcommand and its arguments
    size_t word_count = 0;                      // all of them, also those beyond max_words
    event_option event[max_event_options] = {}; // --major ... of add and remove
    size_t event_count = 0;
};

__attribute__((format(printf, 1, 2))) int complain(const char *format, ...) {
    std::fputs("hotplugctl: ", stderr);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    return refused;
}

__attribute__((format(printf, 1, 2))) int usage_error(const char *format, ...) {
    std::fputs("hotplugctl: ", stderr);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputs(" (see hotplugctl --help)\n", stderr);
    return usage;
}

void print_help() {
    std::fputs(
        "Usage: hotplugctl [--json] [--timeout SECONDS] COMMAND [ARGUMENTS]\n"
        "Talks to hotplugd, the storage hotplug daemon, over " KTIPC_DIR "/ipc-hotplugd.sock.\n"
        "\n"
        "Queries:\n"
        "  list                 the disks in service\n"
        "  info DISK            a disk (sdb) and its partitions\n"
        "  parts DISK           which partitions a disk has, and which are mounted\n"
        "  part DISK N          partition N (0 = the whole disk)\n"
        "Commands, answered once carried out:\n"
        "  mount DISK|all       mount a disk's partitions again\n"
        "  umount DISK|all      unmount them for safe removal (refused while data is unwritten)\n"
        "  stop                 stop the daemon\n"
        "Hotplug events:\n"
        "  add, remove          from the kernel's event environment (DEVPATH, DEVNAME, MAJOR,\n"
        "                       SUBSYSTEM), or as given by --major N --minor N [--usb DIR]\n"
        "                       [--scsi DIR] [--block DIR] [--extra A,B,C]\n"
        "  uevent               as add or remove, by the environment's ACTION\n"
        "  scan                 send an add event for every sd disk and partition present\n"
        "  listen [--scan]      send events for sd disks from the kernel's uevent socket (after\n"
        "                       a scan with --scan); a daemon that comes back or restarts\n"
        "                       gets a scan\n"
        "Options: --json (for scripts), --timeout SECONDS (default 60), --sysfs DIR (default\n"
        "/sys), --help, --version.\n"
        "Exit status: 0 done, 1 refused or failed, 2 usage, 3 daemon not running, 4 no reply in\n"
        "time, 5 no such disk or partition.\n",
        stdout);
}

// ---- talking to the daemon ---------------------------------------------------------------

// A reply as it came: up to reply_size bytes.
struct reply_buffer {
    char data[reply_size];
    size_t size = 0;
};

class daemon_link {
  public:
    daemon_link() : channel_(ktipc_create_clientipc(getpid(), KTIPC_REMOVE_STALE)) {}
    ~daemon_link() { ktipc_close(channel_); }
    daemon_link(const daemon_link &) = delete;
    daemon_link &operator=(const daemon_link &) = delete;

    int send(const void *data, size_t size, bool quiet = false) {
        if (channel_ == nullptr)
            return complain("cannot make a client channel in %s: %s", KTIPC_DIR,
                            std::strerror(errno));
        if (ktipc_send_srv(channel_, data, size, "hotplugd") >= 0)
            return done;
        if (errno == ENOENT || errno == ECONNREFUSED) {
            if (!quiet)
                complain("hotplugd is not running (no one listens at %s)", server);
            return not_running;
        }
        return quiet ? refused : complain("cannot send to hotplugd: %s", std::strerror(errno));
    }

    // Whether the daemon answers a query within a second; the answer is dropped.
    bool answers() {
        const int32_t kind = RECEIVE_LIST_DISKS;
        if (send(&kind, sizeof kind, true) != done)
            return false;
        pollfd ready{channel_->fd, POLLIN, 0};
        char reply[reply_size];
        return poll(&ready, 1, 1000) == 1 && recv(channel_->fd, reply, sizeof reply, 0) >= 0;
    }

    // Sends query `kind` with `rest` after it and takes its reply (possibly empty).
    int ask(int32_t kind, string_view rest, int timeout_s, reply_buffer *reply) {
        char request[sizeof kind + 8] = {};
        std::memcpy(request, &kind, sizeof kind);
        const size_t n =
            rest.size() < sizeof request - sizeof kind ? rest.size() : sizeof request - sizeof kind;
        std::memcpy(request + sizeof kind, rest.data(), n);
        if (int sent = send(request, sizeof kind + n); sent != done)
            return sent;
        pollfd ready{channel_->fd, POLLIN, 0};
        if (poll(&ready, 1, timeout_s * 1000) <= 0) {
            // A command stays queued: the daemon carries it out whenever it gets to it.
            const bool command = kind == MNTMG_KIND_MOUNT || kind == MNTMG_KIND_UNMOUNT;
            complain("no reply from hotplugd within %d s%s", timeout_s,
                     command ? "; it may still carry the request out" : "");
            return no_reply;
        }
        ssize_t got = recv(channel_->fd, reply->data, sizeof reply->data, 0);
        if (got < 0)
            return complain("cannot receive the reply: %s", std::strerror(errno));
        reply->size = static_cast<size_t>(got);
        return done;
    }

  private:
    ktipc *channel_;
};

// Where a command shows what it got. A table goes out as it grows; JSON is held until the
// command has all of it, so that a failing command prints no half a document.
class output {
  public:
    explicit output(bool json) : json_(json) {
        if (json_)
            file_ = open_memstream(&text_, &size_);
    }
    ~output() {
        if (json_ && file_ != nullptr)
            std::fclose(file_);
        std::free(text_);
    }
    output(const output &) = delete;
    output &operator=(const output &) = delete;

    FILE *file() const { return file_; }
    int how() const { return json_ ? REPLY_JSON : REPLY_TABLE; }
    bool json() const { return json_; }

    // The JSON document, once complete, with a line feed.
    int finish() {
        if (!json_)
            return done;
        if (file_ == nullptr || std::fclose(file_) != 0) {
            file_ = nullptr;
            return complain("out of memory");
        }
        file_ = nullptr;
        std::fwrite(text_, 1, size_, stdout);
        std::putchar('\n');
        return done;
    }

  private:
    bool json_;
    FILE *file_ = stdout;
    char *text_ = nullptr;
    size_t size_ = 0;
};

int wrong_size(const reply_buffer &reply, size_t due) {
    return complain("a reply of %zu bytes where %zu were due", reply.size, due);
}

// ---- the subcommands ----------------------------------------------------------------------

bool is_disk(const char *name) {
    uint16_t id = 0;
    return std::strlen(name) == 3 && uevent_disk_id(name, &id) == 0;
}

int list(daemon_link &link, const options &o) {
    reply_buffer reply;
    if (int s = link.ask(RECEIVE_LIST_DISKS, "", o.timeout_s, &reply); s != done)
        return s;
    char disks[26][4];
    const int count = reply_disks(reply.data, reply.size, disks);
    if (count < 0)
        return complain("a disk list of %zu bytes", reply.size);
    output out(o.json);
    if (out.json())
        std::fputc('[', out.file());
    else
        reply_disk_header(stdout);
    bool first = true;
    for (int i = 0; i < count; ++i) {
        reply_buffer details;
        if (int s = link.ask(RECEIVE_DISK_INFO, disks[i], o.timeout_s, &details); s != done)
            return s;
        if (details.size == 0) // gone since it was listed
            continue;
        if (out.json() && !first)
            std::fputs(", ", out.file());
        if (reply_show_disk(out.file(), disks[i], details.data, details.size, out.how()) != 0)
            return wrong_size(details, sizeof(sddb_disk_info));
        if (out.json())
            std::fputc('}', out.file());
        first = false;
    }
    if (out.json())
        std::fputc(']', out.file());
    return out.finish();
}

int partition_details(daemon_link &link, const options &o, const char *disk, int number,
                      reply_buffer *reply) {
    char rest[8];
    rest[0] = static_cast<char>(number);
    std::snprintf(rest + 1, sizeof rest - 1, "%s", disk);
    if (int s = link.ask(RECEIVE_PARTITION_INFO, string_view(rest, 1 + std::strlen(disk)),
                         o.timeout_s, reply);
        s != done)
        return s;
    if (reply->size == 0) {
        complain("no such partition: %s %d", disk, number);
        return no_such;
    }
    if (reply->size != sizeof(sddb_part_info))
        return wrong_size(*reply, sizeof(sddb_part_info));
    return done;
}

int partitions(daemon_link &link, const options &o, const char *disk, reply_map *map) {
    reply_buffer reply;
    if (int s = link.ask(RECEIVE_PARTITION_MAP, disk, o.timeout_s, &reply); s != done)
        return s;
    if (reply_read_map(reply.data, reply.size, map) != 0)
        return wrong_size(reply, sizeof *map);
    if (map->count == 0) {
        complain("no such disk: %s", disk);
        return no_such;
    }
    return done;
}

int info(daemon_link &link, const options &o, const char *disk) {
    reply_buffer reply;
    if (int s = link.ask(RECEIVE_DISK_INFO, disk, o.timeout_s, &reply); s != done)
        return s;
    if (reply.size == 0) {
        complain("no such disk: %s", disk);
        return no_such;
    }
    if (reply.size != sizeof(sddb_disk_info))
        return wrong_size(reply, sizeof(sddb_disk_info));
    reply_map map{};
    if (int s = partitions(link, o, disk, &map); s != done)
        return s;
    output out(o.json);
    if (!out.json())
        reply_disk_header(stdout);
    reply_show_disk(out.file(), disk, reply.data, reply.size, out.how());
    if (out.json()) {
        std::fputs(", \"partitions\": [", out.file());
    } else {
        std::putchar('\n');
        reply_partition_header(stdout);
    }
    bool first = true;
    for (int p = 0; p < 16; ++p) {
        if (!map.present[p])
            continue;
        reply_buffer part;
        if (int s = partition_details(link, o, disk, p, &part); s != done)
            return s;
        if (out.json() && !first)
            std::fputs(", ", out.file());
        reply_show_partition(out.file(), p, part.data, part.size, out.how());
        first = false;
    }
    if (out.json())
        std::fputs("]}", out.file());
    return out.finish();
}

int parts(daemon_link &link, const options &o, const char *disk) {
    reply_map map{};
    if (int s = partitions(link, o, disk, &map); s != done)
        return s;
    output out(o.json);
    if (out.json()) {
        std::fputs("{\"disk\": ", out.file());
        reply_json_string(out.file(), disk, std::strlen(disk));
        std::fputs(", \"partitions\": [", out.file());
    } else {
        std::puts("PART  MOUNTED");
    }
    bool first = true;
    for (int p = 0; p < 16; ++p) {
        if (!map.present[p])
            continue;
        if (out.json())
            std::fprintf(out.file(), "%s{\"partition\": %d, \"mounted\": %s}", first ? "" : ", ", p,
                         map.mounted[p] ? "true" : "false");
        else
            std::printf("%-5d %s\n", p, map.mounted[p] ? "yes" : "no");
        first = false;
    }
    if (out.json())
        std::fputs("]}", out.file());
    return out.finish();
}

int part(daemon_link &link, const options &o, const char *disk, int number) {
    reply_buffer reply;
    if (int s = partition_details(link, o, disk, number, &reply); s != done)
        return s;
    output out(o.json);
    if (!out.json())
        reply_partition_header(stdout);
    reply_show_partition(out.file(), number, reply.data, reply.size, out.how());
    return out.finish();
}

int mount_command(daemon_link &link, const options &o, int32_t kind, const char *disk) {
    // The daemon answers "done" to unmounting a disk it does not know, as there was nothing to
    // do, and "refused" to mounting one: asked first, both say that there is no such disk.
    reply_map map{};
    if (std::strcmp(disk, "all") != 0)
        if (int s = partitions(link, o, disk, &map); s != done)
            return s;
    reply_buffer reply;
    // The name goes with its terminator: the daemon reads it as a string.
    if (int s = link.ask(kind, string_view(disk, std::strlen(disk) + 1), o.timeout_s, &reply);
        s != done)
        return s;
    const int result = reply_result(reply.data, reply.size);
    if (result < 0)
        return complain("a reply of %zu bytes where %d were due", reply.size, REPLY_SIZE);
    const bool mounting = kind == MNTMG_KIND_MOUNT;
    if (o.json) {
        std::fputs("{\"disk\": ", stdout);
        reply_json_string(stdout, disk, std::strlen(disk));
        std::printf(", \"command\": \"%s\", \"done\": %s}\n", mounting ? "mount" : "umount",
                    result == REPLY_DONE ? "true" : "false");
    }
    if (result == REPLY_DONE) {
        if (!o.json)
            std::printf(mounting ? "mounted %s\n" : "unmounted %s: safe to remove\n", disk);
        return done;
    }
    if (mounting)
        complain("refused: nothing of %s could be mounted", disk);
    else
        complain("refused: data not yet written to disk, or a partition still busy; try again");
    return refused;
}

// The daemon's running process, from its pid file: 0 when there is none, it has ended (a zombie
// waiting for its parent counts as ended), or the pid is now another program's.
pid_t daemon_pid() {
    char text[16] = "", stat[64] = "";
    FILE *file = std::fopen("/var/run/hotplugd.pid", "re");
    if (file != nullptr) {
        if (std::fgets(text, sizeof text, file) == nullptr)
            text[0] = '\0';
        std::fclose(file);
    }
    const long pid = std::strtol(text, nullptr, 10);
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%ld/stat", pid);
    file = pid > 0 ? std::fopen(path, "re") : nullptr;
    if (file != nullptr) {
        if (std::fgets(stat, sizeof stat, file) == nullptr)
            stat[0] = '\0';
        std::fclose(file);
    }
    // "PID (hotplugd) S ...": the name, then the state.
    const char *name = std::strstr(stat, " (hotplugd) ");
    const char state = name != nullptr ? name[12] : 'X';
    return state != 'Z' && state != 'X' ? static_cast<pid_t>(pid) : 0;
}

// Returns once the daemon has ended (it takes a grace period of seconds to unmount), so that
// an init script may go on to what needs it gone.
int stop(daemon_link &link, const options &o) {
    char request[128] = {};
    const int32_t kind = RECEIVE_STOP;
    std::memcpy(request, &kind, sizeof kind);
    const pid_t pid = daemon_pid();
    if (int s = link.send(request, sizeof request); s != done)
        return s;
    for (int waited_ms = 0; waited_ms < o.timeout_s * 1000; waited_ms += 50) {
        if (pid > 0 ? daemon_pid() != pid : access(server, F_OK) != 0)
            return done;
        usleep(50 * 1000);
    }
    complain("hotplugd has not ended within %d s", o.timeout_s);
    return no_reply;
}

bool to_number(const char *text, unsigned long max, unsigned long *value) {
    char *end = nullptr;
    errno = 0;
    *value = std::strtoul(text, &end, 10);
    return *text != '\0' && text[0] != '-' && *end == '\0' && errno == 0 && *value <= max;
}

// "A,B,C" into three 32-bit words.
bool to_words(const char *text, uint32_t (&words)[3]) {
    for (size_t i = 0; i < 3; ++i) {
        char part[16];
        const char *comma = std::strchr(text, ',');
        const size_t length =
            comma != nullptr ? static_cast<size_t>(comma - text) : std::strlen(text);
        unsigned long n = 0;
        if ((comma == nullptr) != (i == 2) || length >= sizeof part)
            return false;
        std::memcpy(part, text, length);
        part[length] = '\0';
        if (!to_number(part, 0xffffffffUL, &n))
            return false;
        words[i] = static_cast<uint32_t>(n);
        if (comma != nullptr) // past the last word there is nothing to step over
            text = comma + 1;
    }
    return true;
}

// add and remove with explicit fields, sent exactly as given.
int explicit_event(daemon_link &link, const options &o, int32_t kind) {
    mntmg_record request{};
    request.kind = kind;
    bool minor_given = false;
    for (size_t i = 0; i < o.event_count; ++i) {
        const string_view key = o.event[i].key;
        const char *value = o.event[i].value;
        unsigned long n = 0;
        char *path = key == "--usb"     ? request.usb_path
                     : key == "--scsi"  ? request.scsi_path
                     : key == "--block" ? request.block_path
                                        : nullptr;
        if (path != nullptr) {
            if (std::strlen(value) >= sizeof request.scsi_path)
                return usage_error("%s is longer than 127 bytes", key.data());
            std::memcpy(path, value, std::strlen(value) + 1);
        } else if (key == "--major" || key == "--minor") {
            if (!to_number(value, 0xffff, &n))
                return usage_error("%s takes a number from 0 to 65535", key.data());
            (key == "--major" ? request.major : request.minor) = static_cast<uint16_t>(n);
            minor_given |= key == "--minor";
        } else {
            uint32_t words[3] = {};
            if (!to_words(value, words))
                return usage_error("--extra takes three numbers: A,B,C");
            request.extra0 = words[0];
            request.extra1 = words[1];
            request.extra2 = words[2];
        }
    }
    if (!minor_given)
        return usage_error("an event given by options needs --minor");
    return link.send(&request, sizeof request);
}

// add, remove or uevent from the environment a hotplug helper hands over.
int environment_event(daemon_link &link, const options &o, const char *action) {
    size_t size = 0;
    for (char **e = environ; *e != nullptr; ++e)
        size += std::strlen(*e) + 1;
    kt::heap_ptr<char> vars(static_cast<char *>(std::malloc(size + 1)));
    if (vars == nullptr)
        return complain("out of memory");
    size_t at = 0;
    for (char **e = environ; *e != nullptr; ++e) {
        const size_t n = std::strlen(*e) + 1;
        std::memcpy(vars.get() + at, *e, n);
        at += n;
    }
    const char *given = uevent_get(vars.get(), size, "ACTION");
    if (action == nullptr && (given == nullptr || *given == '\0'))
        return usage_error("no ACTION in the environment");
    mntmg_record request{};
    char error[256] = "";
    switch (uevent_request(vars.get(), size, action, o.sysfs, &request, error, sizeof error)) {
    case UEVENT_SEND:
        return link.send(&request, sizeof request);
    case UEVENT_IGNORED:
        return done; // another device, for another helper
    default:
        return usage_error("%s", error);
    }
}

volatile sig_atomic_t listening = 1;

void stop_listening(int) {
    listening = 0;
}

void show_sent(const mntmg_record &request, const char *name) {
    std::printf("%s %s (major %u, id %u)\n", request.kind == MNTMG_KIND_ADD ? "add" : "remove",
                name != nullptr ? name : "?", request.major, request.minor);
}

struct announcement {
    daemon_link *link;
    bool quiet;
    int status;
};

// Sends an add for every disk and partition present, as the kernel announced them; `quiet`
// leaves a daemon that is not running to the caller to tell.
int scan(daemon_link &link, const options &o, bool quiet = false) {
    announcement sending{&link, quiet, done};
    auto each = [](const mntmg_record *request, const char *name, void *context) {
        auto *a = static_cast<announcement *>(context);
        if (a->status == done &&
            (a->status = a->link->send(request, sizeof *request, a->quiet)) == done)
            show_sent(*request, name);
    };
    if (uevent_scan(o.sysfs, each, &sending) < 0)
        return complain("cannot read %s/block: %s", o.sysfs, std::strerror(errno));
    return sending.status;
}

// The daemon's socket, told apart from the one of an earlier run by its inode; 0 when there
// is none.
ino_t server_inode() {
    struct stat st {};
    return stat(server, &st) == 0 ? st.st_ino : 0;
}

int listen_events(daemon_link &link, const options &o) {
    // Listening starts before the scan: a disk that comes meanwhile is announced twice at
    // worst (the daemon takes a second add as a re-plug), never lost.
    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    self.nl_groups = 1; // the kernel's own events
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&self), sizeof self) != 0)
        return complain("cannot listen to the kernel's events: %s", std::strerror(errno));
    struct sigaction stop {};
    stop.sa_handler = stop_listening; // no SA_RESTART: the wait ends
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // The daemon that has been told what is present, known by its socket. Without it, events
    // are dropped; a daemon that comes (back, or restarted with an empty database) gets a scan,
    // which covers every add it missed. Its socket is looked at once a second.
    ino_t told = 0;
    bool said = false;
    auto away = [&] {
        told = 0;
        if (!said)
            complain("hotplugd is not running: listening on, the disks present are announced "
                     "once it is back");
        said = true;
    };
    const ino_t first = server_inode();
    if (first != 0 && (!o.scan || scan(link, o, true) == done))
        told = first;
    else
        away();
    char message[8192];
    while (listening) {
        pollfd ready{fd, POLLIN, 0};
        const int events = poll(&ready, 1, 1000);
        if (const ino_t now = server_inode(); now != told) {
            if (now == 0) {
                away();
            } else if (link.answers()) {
                std::puts("hotplugd is up: announcing the disks present");
                said = false;
                if (scan(link, o, true) == done)
                    told = now;
            }
        }
        const ssize_t n = events > 0 ? recv(fd, message, sizeof message - 1, 0) : 0;
        if (n <= 0)
            continue;
        message[n] = '\0';
        // "ACTION@DEVPATH", then the variables, each terminated by NUL.
        const size_t header = strnlen(message, static_cast<size_t>(n)) + 1;
        if (header >= static_cast<size_t>(n) || std::strchr(message, '@') == nullptr)
            continue;
        mntmg_record request{};
        char error[256] = "";
        const char *vars = message + header;
        const size_t size = static_cast<size_t>(n) - header;
        const int got = uevent_request(vars, size, nullptr, o.sysfs, &request, error, sizeof error);
        if (got == UEVENT_BAD) {
            complain("%s", error);
        } else if (got == UEVENT_SEND && told != 0) {
            const int sent = link.send(&request, sizeof request, true);
            if (sent == done)
                show_sent(request, uevent_get(vars, size, "DEVNAME"));
            else if (sent == not_running)
                away();
        }
    }
    close(fd);
    return done;
}

int run(const options &o) {
    const char *command = o.word_count > 0 ? o.words[0] : "";
    const size_t arguments = o.word_count > 0 ? o.word_count - 1 : 0;
    struct shape {
        const char *name;
        size_t arguments;
    };
    static constexpr shape shapes[] = {{"list", 0},   {"info", 1},   {"parts", 1},  {"part", 2},
                                       {"mount", 1},  {"umount", 1}, {"stop", 0},   {"add", 0},
                                       {"remove", 0}, {"uevent", 0}, {"listen", 0}, {"scan", 0}};
    const shape *found = nullptr;
    for (const shape &s : shapes)
        if (std::strcmp(command, s.name) == 0)
            found = &s;
    if (found == nullptr)
        return *command == '\0' ? usage_error("no command given")
                                : usage_error("unknown command: %s", command);
    if (arguments != found->arguments)
        return usage_error("%s takes %zu argument(s), not %zu", command, found->arguments,
                           arguments);
    const string_view name = command;
    const bool events = name == "add" || name == "remove";
    if (o.event_count > 0 && !events)
        return usage_error("the event options go with add and remove only");
    if (o.scan && name != "listen")
        return usage_error("--scan goes with listen only");
    const char *disk = arguments > 0 ? o.words[1] : "";
    const bool mounting = name == "mount" || name == "umount";
    if (arguments > 0 && !is_disk(disk) && !(mounting && std::strcmp(disk, "all") == 0))
        return usage_error("not a disk name: %s (sda ... sdz%s", disk,
                           mounting ? ", or all)" : ")");
    unsigned long number = 0;
    if (name == "part" && !to_number(o.words[2], 15, &number))
        return usage_error("not a partition number from 0 to 15: %s", o.words[2]);

    daemon_link link;
    if (name == "list")
        return list(link, o);
    if (name == "info")
        return info(link, o, disk);
    if (name == "parts")
        return parts(link, o, disk);
    if (name == "part")
        return part(link, o, disk, static_cast<int>(number));
    if (mounting)
        return mount_command(link, o, name == "mount" ? MNTMG_KIND_MOUNT : MNTMG_KIND_UNMOUNT,
                             disk);
    if (name == "stop")
        return stop(link, o);
    if (name == "listen")
        return listen_events(link, o);
    if (name == "scan")
        return scan(link, o);
    if (o.event_count > 0)
        return explicit_event(link, o, name == "add" ? MNTMG_KIND_ADD : MNTMG_KIND_REMOVE);
    return environment_event(link, o, name == "uevent" ? nullptr : command);
}

} // namespace

int main(int argc, char **argv) {
    options o;
    for (int i = 1; i < argc; ++i) {
        const string_view arg = argv[i];
        const bool valued = arg == "--timeout" || arg == "--sysfs" || arg == "--major" ||
                            arg == "--minor" || arg == "--usb" || arg == "--scsi" ||
                            arg == "--block" || arg == "--extra";
        if (arg == "--help") {
            print_help();
            return done;
        }
        if (arg == "--version") {
            std::puts("hotplugctl " HOTPLUGD_VERSION);
            return done;
        }
        if (arg == "--json") {
            o.json = true;
        } else if (arg == "--scan") {
            o.scan = true;
        } else if (valued && i + 1 >= argc) {
            return usage_error("%s needs a value", argv[i]);
        } else if (arg == "--timeout") {
            unsigned long seconds = 0;
            if (!to_number(argv[++i], 86400, &seconds) || seconds == 0)
                return usage_error("--timeout takes whole seconds from 1 to 86400");
            o.timeout_s = static_cast<int>(seconds);
        } else if (arg == "--sysfs") {
            o.sysfs = argv[++i];
        } else if (valued) {
            if (o.event_count == max_event_options)
                return usage_error("more than %zu event options", max_event_options);
            o.event[o.event_count++] = {arg, argv[++i]};
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option: %s", argv[i]);
        } else {
            if (o.word_count < max_words)
                o.words[o.word_count] = argv[i];
            ++o.word_count;
        }
    }
    return run(o);
}

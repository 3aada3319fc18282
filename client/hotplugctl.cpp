// hotplugctl: asks hotplugd about its disks, has it mount and unmount them, sends it hotplug
// events.
#include "client/uevent.h"
#include "daemon/receive.h"
#include "lib/ktipc.h"
#include "lib/ktutf8.h"
#include "mount/probe_text.h"
#include "mount/unmount.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

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

struct options {
    bool json = false;
    int timeout_s = default_timeout_s;
    std::string sysfs = "/sys";
    std::vector<std::string> words;                         // the subcommand and its arguments
    std::vector<std::pair<std::string, std::string>> event; // --major ... of add and remove
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

int usage_error(const std::string &what) {
    std::fprintf(stderr, "hotplugctl: %s (see hotplugctl --help)\n", what.c_str());
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
        "  listen               send events for sd disks from the kernel's uevent socket\n"
        "Options: --json (for scripts), --timeout SECONDS (default 60), --sysfs DIR (default\n"
        "/sys), --help, --version.\n"
        "Exit status: 0 done, 1 refused or failed, 2 usage, 3 daemon not running, 4 no reply in\n"
        "time, 5 no such disk or partition.\n",
        stdout);
}

// ---- talking to the daemon ---------------------------------------------------------------

class daemon_link {
  public:
    daemon_link() : channel_(ktipc_create_clientipc(getpid(), KTIPC_REMOVE_STALE)) {}
    ~daemon_link() { ktipc_close(channel_); }
    daemon_link(const daemon_link &) = delete;
    daemon_link &operator=(const daemon_link &) = delete;

    int send(const void *data, size_t size) {
        if (channel_ == nullptr)
            return complain("cannot make a client channel in %s: %s", KTIPC_DIR,
                            std::strerror(errno));
        if (ktipc_send_srv(channel_, data, size, "hotplugd") >= 0)
            return done;
        if (errno == ENOENT || errno == ECONNREFUSED) {
            complain("hotplugd is not running (no one listens at %s)", server);
            return not_running;
        }
        return complain("cannot send to hotplugd: %s", std::strerror(errno));
    }

    // Sends a request and takes its reply (possibly empty) into `reply`.
    int ask(const std::string &request, int timeout_s, std::string *reply) {
        if (int sent = send(request.data(), request.size()); sent != done)
            return sent;
        pollfd ready{channel_->fd, POLLIN, 0};
        if (poll(&ready, 1, timeout_s * 1000) <= 0) {
            complain("no reply from hotplugd within %d s", timeout_s);
            return no_reply;
        }
        char buffer[2048];
        ssize_t n = recv(channel_->fd, buffer, sizeof buffer, 0);
        if (n < 0)
            return complain("cannot receive the reply: %s", std::strerror(errno));
        reply->assign(buffer, static_cast<size_t>(n));
        return done;
    }

  private:
    ktipc *channel_;
};

std::string query(int32_t kind, const std::string &rest) {
    std::string request(sizeof kind, '\0');
    std::memcpy(&request[0], &kind, sizeof kind);
    return request + rest;
}

// A reply of the expected size copied into `out`; anything else is refused.
template <typename T> int take(const std::string &reply, T *out) {
    if (reply.size() != sizeof *out)
        return complain("a reply of %zu bytes where %zu were due", reply.size(), sizeof *out);
    std::memcpy(out, reply.data(), sizeof *out);
    return done;
}

struct partition_map {
    uint32_t count;
    uint8_t present[16];
    uint8_t mounted[16];
};

// ---- showing what the daemon said ---------------------------------------------------------

// A fixed field's text without the blanks SCSI attributes are padded with.
template <size_t N> std::string text(const char (&field)[N]) {
    std::string s(field, strnlen(field, N));
    return s.erase(s.find_last_not_of(' ') + 1);
}

std::string json_string(const std::string &s) {
    const bool utf8 = kt_is_utf8(s.c_str()) != 0;
    std::string out = "\"";
    for (unsigned char c : s) {
        char escaped[8];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7f || (c >= 0x80 && !utf8)) {
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c); // bytes that are no UTF-8
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

const char *fs_name(int32_t kind) {
    switch (kind) {
    case FSTYPE_PARTITION_MAP:
        return "partition map";
    case FSTYPE_FAT:
        return "FAT";
    case FSTYPE_FAT32:
        return "FAT32";
    case FSTYPE_NTFS:
        return "NTFS";
    case FSTYPE_LINUX:
        return "Linux";
    case FSTYPE_EXT2:
        return "ext2";
    case FSTYPE_EXT3:
        return "ext3";
    case FSTYPE_SWAP:
        return "swap";
    default:
        return "unknown";
    }
}

std::string disk_json(const std::string &disk, const sddb_disk_info &d) {
    char numbers[160];
    std::snprintf(numbers, sizeof numbers,
                  "\"id_vendor\": \"%04x\", \"id_product\": \"%04x\", \"speed\": %d, "
                  "\"removable\": %s, \"extra\": [%u, %u, %u]",
                  d.id_vendor, d.id_product, d.speed, d.removable ? "true" : "false", d.extra0,
                  d.extra1, d.extra2);
    return "{\"disk\": " + json_string(disk) + ", \"vendor\": " + json_string(text(d.vendor)) +
           ", \"model\": " + json_string(text(d.model)) +
           ", \"serial\": " + json_string(text(d.serial)) +
           ", \"manufacturer\": " + json_string(text(d.manufacturer)) +
           ", \"product\": " + json_string(text(d.product)) + ", " + numbers;
}

// The tables' columns: headers and rows go through the same formats.
constexpr char disk_columns[] = "%-5s %-25s %-20s %-10s %s\n";
constexpr char part_columns[] = "%-5s %-20s %-20s %-13s %8s %8s  %s\n";

void print_disk_header() {
    std::printf(disk_columns, "DISK", "VENDOR MODEL", "SERIAL", "USB ID", "SPEED");
}

void print_disk_row(const std::string &disk, const sddb_disk_info &d) {
    char ids[16], speed[24];
    std::snprintf(ids, sizeof ids, "%04x:%04x", d.id_vendor, d.id_product);
    std::snprintf(speed, sizeof speed, "%d Mbit/s", d.speed);
    std::printf(disk_columns, disk.c_str(), (text(d.vendor) + " " + text(d.model)).c_str(),
                text(d.serial).c_str(), ids, speed);
}

void print_part_header() {
    std::printf(part_columns, "PART", "LABEL", "DRIVE", "FS", "SIZE MiB", "USED MiB", "MOUNTED");
}

void print_part_row(int number, const sddb_part_info &p) {
    const std::string n = std::to_string(number), size = std::to_string(p.size_mib),
                      used = std::to_string(p.used_mib);
    std::printf(part_columns, n.c_str(), text(p.volume_label).c_str(), text(p.drive_name).c_str(),
                fs_name(p.fs_type), size.c_str(), used.c_str(), p.mounted ? "yes" : "no");
}

std::string part_json(int number, const sddb_part_info &p) {
    char numbers[160];
    std::snprintf(numbers, sizeof numbers,
                  "\"fs_type\": %d, \"size_mib\": %u, \"used_mib\": %u, \"mounted\": %s}",
                  p.fs_type, p.size_mib, p.used_mib, p.mounted ? "true" : "false");
    return "{\"partition\": " + std::to_string(number) +
           ", \"label\": " + json_string(text(p.volume_label)) +
           ", \"drive_name\": " + json_string(text(p.drive_name)) +
           ", \"drive_id\": " + json_string(text(p.drive_id)) +
           ", \"fs\": " + json_string(fs_name(p.fs_type)) + ", " + numbers;
}

// ---- the subcommands ----------------------------------------------------------------------

bool is_disk(const std::string &name) {
    uint16_t id = 0;
    return name.size() == 3 && uevent_disk_id(name.c_str(), &id) == 0;
}

int list(daemon_link &link, const options &o) {
    std::string reply;
    if (int s = link.ask(query(RECEIVE_LIST_DISKS, ""), o.timeout_s, &reply); s != done)
        return s;
    if (reply.size() % 8 != 0 || reply.size() > 26 * 8)
        return complain("a disk list of %zu bytes", reply.size());
    std::string json = "[";
    if (!o.json)
        print_disk_header();
    for (size_t at = 0; at < reply.size(); at += 8) {
        const std::string disk(reply.c_str() + at, strnlen(reply.c_str() + at, 3));
        std::string details;
        sddb_disk_info info{};
        if (int s = link.ask(query(RECEIVE_DISK_INFO, disk), o.timeout_s, &details); s != done)
            return s;
        if (details.empty()) // gone since it was listed
            continue;
        if (int s = take(details, &info); s != done)
            return s;
        if (o.json)
            json += (json.size() > 1 ? ", " : "") + disk_json(disk, info) + "}";
        else
            print_disk_row(disk, info);
    }
    if (o.json)
        std::printf("%s]\n", json.c_str());
    return done;
}

int partition_details(daemon_link &link, const options &o, const std::string &disk, int number,
                      sddb_part_info *out) {
    std::string reply;
    const std::string rest = std::string(1, static_cast<char>(number)) + disk;
    if (int s = link.ask(query(RECEIVE_PARTITION_INFO, rest), o.timeout_s, &reply); s != done)
        return s;
    if (reply.empty()) {
        complain("no such partition: %s %d", disk.c_str(), number);
        return no_such;
    }
    return take(reply, out);
}

int partitions(daemon_link &link, const options &o, const std::string &disk, partition_map *map) {
    std::string reply;
    if (int s = link.ask(query(RECEIVE_PARTITION_MAP, disk), o.timeout_s, &reply); s != done)
        return s;
    if (int s = take(reply, map); s != done)
        return s;
    if (map->count == 0) {
        complain("no such disk: %s", disk.c_str());
        return no_such;
    }
    return done;
}

int info(daemon_link &link, const options &o, const std::string &disk) {
    std::string reply;
    sddb_disk_info d{};
    if (int s = link.ask(query(RECEIVE_DISK_INFO, disk), o.timeout_s, &reply); s != done)
        return s;
    if (reply.empty()) {
        complain("no such disk: %s", disk.c_str());
        return no_such;
    }
    partition_map map{};
    if (int s = take(reply, &d); s != done || (s = partitions(link, o, disk, &map)) != done)
        return s;
    std::string json = disk_json(disk, d) + ", \"partitions\": [";
    if (!o.json) {
        print_disk_header();
        print_disk_row(disk, d);
        std::putchar('\n');
        print_part_header();
    }
    for (int p = 0; p < 16; ++p) {
        sddb_part_info part{};
        if (!map.present[p])
            continue;
        if (int s = partition_details(link, o, disk, p, &part); s != done)
            return s;
        if (o.json)
            json += (json.back() == '[' ? "" : ", ") + part_json(p, part);
        else
            print_part_row(p, part);
    }
    if (o.json)
        std::printf("%s]}\n", json.c_str());
    return done;
}

int parts(daemon_link &link, const options &o, const std::string &disk) {
    partition_map map{};
    if (int s = partitions(link, o, disk, &map); s != done)
        return s;
    std::string json = "{\"disk\": " + json_string(disk) + ", \"partitions\": [";
    if (!o.json)
        std::puts("PART  MOUNTED");
    for (int p = 0; p < 16; ++p) {
        if (!map.present[p])
            continue;
        if (o.json)
            json += std::string(json.back() == '[' ? "" : ", ") +
                    "{\"partition\": " + std::to_string(p) +
                    ", \"mounted\": " + (map.mounted[p] ? "true" : "false") + "}";
        else
            std::printf("%-5d %s\n", p, map.mounted[p] ? "yes" : "no");
    }
    if (o.json)
        std::printf("%s]}\n", json.c_str());
    return done;
}

int part(daemon_link &link, const options &o, const std::string &disk, int number) {
    sddb_part_info p{};
    if (int s = partition_details(link, o, disk, number, &p); s != done)
        return s;
    if (o.json) {
        std::printf("%s\n", part_json(number, p).c_str());
    } else {
        print_part_header();
        print_part_row(number, p);
    }
    return done;
}

int mount_command(daemon_link &link, const options &o, int32_t kind, const std::string &disk) {
    std::string reply;
    if (int s = link.ask(query(kind, disk + std::string(1, '\0')), o.timeout_s, &reply); s != done)
        return s;
    if (reply.size() != REPLY_SIZE)
        return complain("a reply of %zu bytes where %d were due", reply.size(), REPLY_SIZE);
    int32_t result = 0;
    std::memcpy(&result, reply.data(), sizeof result);
    const bool mounting = kind == MNTMG_KIND_MOUNT;
    if (o.json)
        std::printf("{\"disk\": %s, \"command\": \"%s\", \"done\": %s}\n",
                    json_string(disk).c_str(), mounting ? "mount" : "umount",
                    result == REPLY_DONE ? "true" : "false");
    if (result == REPLY_DONE) {
        if (!o.json)
            std::printf(mounting ? "mounted %s\n" : "unmounted %s: safe to remove\n", disk.c_str());
        return done;
    }
    if (mounting)
        complain("refused: nothing of %s could be mounted", disk.c_str());
    else
        complain("refused: data not yet written to disk, or a partition still busy; try again");
    return refused;
}

int stop(daemon_link &link) {
    std::string request = query(RECEIVE_STOP, std::string(124, '\0'));
    return link.send(request.data(), request.size());
}

bool to_number(const std::string &text, unsigned long max, unsigned long *value) {
    char *end = nullptr;
    errno = 0;
    *value = std::strtoul(text.c_str(), &end, 10);
    return !text.empty() && text[0] != '-' && *end == '\0' && errno == 0 && *value <= max;
}

// add and remove with explicit fields, sent exactly as given.
int explicit_event(daemon_link &link, const options &o, int32_t kind) {
    mntmg_record request{};
    request.kind = kind;
    bool minor_given = false;
    for (const auto &[key, value] : o.event) {
        unsigned long n = 0;
        char *path = key == "--usb"     ? request.usb_path
                     : key == "--scsi"  ? request.scsi_path
                     : key == "--block" ? request.block_path
                                        : nullptr;
        if (path != nullptr) {
            if (value.size() >= sizeof request.scsi_path)
                return usage_error(key + " is longer than 127 bytes");
            std::memcpy(path, value.c_str(), value.size() + 1);
        } else if (key == "--major" || key == "--minor") {
            if (!to_number(value, 0xffff, &n))
                return usage_error(key + " takes a number from 0 to 65535");
            (key == "--major" ? request.major : request.minor) = static_cast<uint16_t>(n);
            minor_given |= key == "--minor";
        } else {
            unsigned long words[3] = {};
            const size_t first = value.find(','), second = value.find(',', first + 1);
            if (first == std::string::npos || second == std::string::npos ||
                value.find(',', second + 1) != std::string::npos ||
                !to_number(value.substr(0, first), 0xffffffffUL, &words[0]) ||
                !to_number(value.substr(first + 1, second - first - 1), 0xffffffffUL, &words[1]) ||
                !to_number(value.substr(second + 1), 0xffffffffUL, &words[2]))
                return usage_error("--extra takes three numbers: A,B,C");
            request.extra0 = static_cast<uint32_t>(words[0]);
            request.extra1 = static_cast<uint32_t>(words[1]);
            request.extra2 = static_cast<uint32_t>(words[2]);
        }
    }
    if (!minor_given)
        return usage_error("an event given by options needs --minor");
    return link.send(&request, sizeof request);
}

// add, remove or uevent from the environment a hotplug helper hands over.
int environment_event(daemon_link &link, const options &o, const char *action) {
    std::string vars;
    for (char **e = environ; *e != nullptr; ++e)
        vars.append(*e, std::strlen(*e) + 1);
    const char *given = uevent_get(vars.data(), vars.size(), "ACTION");
    if (action == nullptr && (given == nullptr || *given == '\0'))
        return usage_error("no ACTION in the environment");
    mntmg_record request{};
    char error[256] = "";
    switch (uevent_request(vars.data(), vars.size(), action, o.sysfs.c_str(), &request, error,
                           sizeof error)) {
    case UEVENT_SEND:
        return link.send(&request, sizeof request);
    case UEVENT_IGNORED:
        return done; // another device, for another helper
    default:
        return usage_error(error);
    }
}

volatile sig_atomic_t listening = 1;

void stop_listening(int) {
    listening = 0;
}

int listen_events(daemon_link &link, const options &o) {
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
    char message[8192];
    while (listening) {
        ssize_t n = recv(fd, message, sizeof message - 1, 0);
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
        int got =
            uevent_request(vars, size, nullptr, o.sysfs.c_str(), &request, error, sizeof error);
        const char *name = uevent_get(vars, size, "DEVNAME");
        if (got == UEVENT_BAD)
            complain("%s", error);
        else if (got == UEVENT_SEND && link.send(&request, sizeof request) == done)
            std::printf("%s %s (major %u, id %u)\n",
                        request.kind == MNTMG_KIND_ADD ? "add" : "remove",
                        name != nullptr ? name : "?", request.major, request.minor);
    }
    close(fd);
    return done;
}

int run(const options &o) {
    const std::vector<std::string> &w = o.words;
    const std::string command = w.empty() ? "" : w[0];
    const size_t arguments = w.size() - (w.empty() ? 0 : 1);
    struct shape {
        const char *name;
        size_t arguments;
    };
    static const shape shapes[] = {{"list", 0},   {"info", 1},   {"parts", 1}, {"part", 2},
                                   {"mount", 1},  {"umount", 1}, {"stop", 0},  {"add", 0},
                                   {"remove", 0}, {"uevent", 0}, {"listen", 0}};
    const shape *found = nullptr;
    for (const shape &s : shapes)
        if (command == s.name)
            found = &s;
    if (found == nullptr)
        return usage_error(command.empty() ? "no command given" : "unknown command: " + command);
    if (arguments != found->arguments)
        return usage_error(command + " takes " + std::to_string(found->arguments) +
                           " argument(s), not " + std::to_string(arguments));
    const bool events = command == "add" || command == "remove";
    if (!o.event.empty() && !events)
        return usage_error("the event options go with add and remove only");
    const std::string disk = arguments > 0 ? w[1] : "";
    const bool mounting = command == "mount" || command == "umount";
    if (arguments > 0 && !is_disk(disk) && !(mounting && disk == "all"))
        return usage_error("not a disk name: " + disk + " (sda ... sdz" +
                           (mounting ? ", or all)" : ")"));
    unsigned long number = 0;
    if (command == "part" && !to_number(w[2], 15, &number))
        return usage_error("not a partition number from 0 to 15: " + w[2]);

    daemon_link link;
    if (command == "list")
        return list(link, o);
    if (command == "info")
        return info(link, o, disk);
    if (command == "parts")
        return parts(link, o, disk);
    if (command == "part")
        return part(link, o, disk, static_cast<int>(number));
    if (mounting)
        return mount_command(link, o, command == "mount" ? MNTMG_KIND_MOUNT : MNTMG_KIND_UNMOUNT,
                             disk);
    if (command == "stop")
        return stop(link);
    if (command == "listen")
        return listen_events(link, o);
    if (!o.event.empty())
        return explicit_event(link, o, command == "add" ? MNTMG_KIND_ADD : MNTMG_KIND_REMOVE);
    return environment_event(link, o, command == "uevent" ? nullptr : command.c_str());
}

} // namespace

int main(int argc, char **argv) {
    options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
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
        } else if (valued && i + 1 >= argc) {
            return usage_error(arg + " needs a value");
        } else if (arg == "--timeout") {
            unsigned long seconds = 0;
            if (!to_number(argv[++i], 86400, &seconds) || seconds == 0)
                return usage_error("--timeout takes whole seconds from 1 to 86400");
            o.timeout_s = static_cast<int>(seconds);
        } else if (arg == "--sysfs") {
            o.sysfs = argv[++i];
        } else if (valued) {
            o.event.emplace_back(arg, argv[++i]);
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option: " + arg);
        } else {
            o.words.push_back(arg);
        }
    }
    return run(o);
}

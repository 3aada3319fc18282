// Tests of drive names and letters: slots, name patterns, the letter file under the real lock,
// its ROM store with the log lines, and what hostile device strings become.
#include "config/ktcfg.h"
#include "config/ktcfg_rom.h"
#include "registry/drivename.h"
#include "registry/drivename_internal.h"
#include "tests/helpers/fuse_rom.h"
#include "tests/helpers/holder.h"
#include "tests/helpers/scratch.h"
#include "tests/helpers/syslog_catcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <iterator>
#include <map>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using kt_test::read_file;
using kt_test::write_file;

constexpr char conf[] = "/etc/sysconfig/system.conf";

// Fills a fixed field; a text as long as the field (or longer) leaves it without a NUL.
template <size_t N> void put(char (&field)[N], const std::string &text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N));
}

template <size_t N> std::string text_of(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Patterns as the settings loader leaves them: DRVNAME and VLABEL both hold "%D".
hotplugd_settings make_settings(const std::string &drvname,
                                const std::string &vlabel = "Drive-%D") {
    hotplugd_settings settings{};
    put(settings.drive_name_format, drvname);
    put(settings.fallback_name_format, vlabel);
    settings.use_volume_label = drvname.find("%V") != std::string::npos;
    put(settings.tmp_dir, "/etc/sysconfig");
    return settings;
}

struct device {
    int16_t index, partition;
    std::string serial, vendor = "", model = "", label = "";
};

sddb_record make_record(const device &d) {
    sddb_record record{};
    record.disk_index = d.index;
    record.partition = d.partition;
    put(record.disk_info.serial, d.serial);
    put(record.disk_info.vendor, d.vendor);
    put(record.disk_info.model, d.model);
    put(record.part_info.volume_label, d.label);
    return record;
}

constexpr uint32_t slot(uint32_t group, uint32_t letter) {
    return group * DRIVE_SLOT_GROUP + letter;
}

// What get_drivename made of a record: result, drive_id, drive_name, drive_slot.
using named = std::tuple<int, std::string, std::string, uint32_t>;
named ok(const std::string &id, uint32_t slot_number) {
    return {0, id, "Drive-" + id, slot_number};
}
const named failed{-1, "", "", 0};

named name_device(drive_letter_table *table, const hotplugd_settings &settings, const device &d,
                  bool fixed_drive) {
    sddb_record record = make_record(d);
    int result = get_drivename(table, &settings, &record, 0, fixed_drive);
    return {result, text_of(record.part_info.drive_id), text_of(record.part_info.drive_name),
            record.drive_slot};
}

// How many slots have an owner or a partition bit.
size_t taken(const drive_letter_table &table) {
    size_t count = 0;
    for (int g = 0; g < DRIVE_GROUP_COUNT; ++g)
        for (int l = 0; l < DRIVE_LETTER_COUNT; ++l)
            count += table.owner[g][l] != 0 || table.partition_mask[g][l] != 0;
    return count;
}

// A letter file as the appliance ships it, every key present; `values` fills some in.
std::string letter_file(std::map<char, std::string> values = {}) {
    std::string text;
    for (char c = 'A'; c <= 'Z'; ++c)
        text += std::string("DRIVE_LETTER") + c + "=" + values[c] + "\n";
    return text;
}

// ---- the table and the names, with drive letters off (no file) -------------------------------

TEST(Slots, TextsOwnersAndRelease) {
    const std::tuple<uint32_t, size_t, const char *> texts[] = {
        {slot(0, 25), 3, "Z"}, {slot(1, 2), 3, "YC"}, {slot(2, 25), 3, "ZZ"}, {slot(3, 0), 8, ""},
        {slot(0, 26), 8, ""},  {slot(1, 0), 2, ""},   {0xffffffffu, 8, ""},
    };
    for (const auto &[number, size, text] : texts) {
        char out[8] = "";
        EXPECT_EQ(drivename::format_slot(number, out, size), *text != '\0' ? 0 : -1) << number;
        EXPECT_STREQ(out, text) << number;
    }

    drive_letter_table table{};
    using drivename::take_slot;
    EXPECT_EQ(take_slot(&table, slot(0, 0), 1, 1), 0);
    EXPECT_EQ(take_slot(&table, slot(0, 0), 1, 33), 0) << "partition 33 is bit 1 again";
    EXPECT_EQ(take_slot(&table, slot(0, 0), 1, 2), 0);
    EXPECT_EQ(table.owner[0][0], 2u) << "disk_index + 1";
    EXPECT_EQ(table.partition_mask[0][0], 0x6u);
    EXPECT_EQ(take_slot(&table, slot(0, 0), 0, 1), -1) << "disk 0 is another disk";
    EXPECT_EQ(take_slot(&table, slot(3, 0), 1, 1), -1);
    EXPECT_EQ(take_slot(&table, slot(2, 26), 1, 1), -1);
    sddb_record other = make_record({0, 1, ""});
    EXPECT_EQ(release_drivename(&table, &other), 0) << "another disk's slot: no change";
    EXPECT_EQ(table.owner[0][0], 2u);
    for (uint32_t beyond : {slot(3, 0), slot(0, 26)}) {
        other.drive_slot = beyond;
        EXPECT_EQ(release_drivename(&table, &other), -1) << beyond;
    }
}

TEST(Initialize, ClearsAndCopiesAtMost1024Bytes) {
    drive_letter_table table;
    std::memset(&table, 0x5a, sizeof table);
    ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
    EXPECT_EQ(taken(table), 0u);
    EXPECT_EQ(text_of(table.config_path), conf);
    // The daemon passes the table's own field: it ends up empty, to be set afterwards.
    ASSERT_EQ(initialize_lock_dletter(&table, table.config_path), 0);
    EXPECT_EQ(text_of(table.config_path), "");
    const std::string long_path = "/" + std::string(1100, 'p');
    ASSERT_EQ(initialize_lock_dletter(&table, long_path.c_str()), 0);
    EXPECT_EQ(text_of(table.config_path), long_path.substr(0, 1024)) << "no room for a NUL";
}

TEST(LettersOff, IdentifierFromTheSerial) {
    const hotplugd_settings settings = make_settings("Drive-%D");
    const std::string long_serial = std::string(120, 'X') + "ABCDEFGHIJKLMNOPQRSTUVWXYZ" +
                                    std::string(200, 'Q'); // fills the field, no NUL
    // Only the first 128 bytes count; only a first word of ASCII letters and digits comes
    // through, and nothing from a serial that is not UTF-8.
    const std::tuple<std::string, int16_t, std::string> cases[] = {
        {"AA1234567", 1, "45671"},       {"ab", 1, "ab1"},          {"", 1, "1"},
        {"  0x42B4F", 1, "2B4F1"},       {"ABCD", 12, "ABCD12"},    {"ABCDE", 0, "BCDE0"},
        {long_serial, 1, "EFGH1"},       {"$(reboot)", 1, "boot1"}, {"../../", 3, "3"},
        {"a\nDRIVE_LETTERA=b", 1, "a1"}, {"\377\376ABCD", 1, "1"},
    };
    for (const auto &[serial, partition, id] : cases) {
        SCOPED_TRACE(serial);
        drive_letter_table table{};
        EXPECT_EQ(name_device(&table, settings, {1, partition, serial}, false), ok(id, 0));
        EXPECT_EQ(taken(table), 0u);
    }
}

// Names from DRVNAME with "%V", or from the VLABEL fallback, and what the rules make of hostile
// vendor, model and label bytes. Letters off and no serial: the identifier is "1". A first word
// holds ASCII letters and digits only, so vendor and model bring nothing else; a label without
// such a word is used as it stands, unless a slash, "$" or control byte in it could lead out of
// the share directory or act in a command line: then the fallback name.
TEST(LettersOff, NamesFromThePatterns) {
    const std::string v100(100, 'V'), l120(120, 'L'), w300(300, 'W'), f130(130, 'F');
    const std::string photo = "\xe5\x86\x99\xe7\x9c\x9f"; // UTF-8 without an ASCII word
    struct Case {
        std::string drvname, vlabel, vendor, model, label, name;
    } cases[] = {
        {"USB%D", "USB%D", "Acme", "", "Photos", "USB1"}, // labels off: VLABEL alone
        {"%D-%V", "Drive-%D", "Acme", "Stick", "Photos", "1-Acme_Photos"},
        {"[%V]%D.", "Drive-%D", "  Acme Inc", "", "Pics", "[Acme_Pics]1."},
        {"%V_%D", "Drive-%D", "", "My Stick", "", "My_1"},
        {"%V%D", "Drive-%D", "", "Stick", "\xff", "Stick1"}, // label not UTF-8: the model
        {"%V%D", "Drive-%D", "", "Stick", photo, photo + "1"},
        {"%V%D", "Drive-%D", "Acme", "", photo, "Acme_1"},
        {"%V%D", "Drive-%D", "", "", "\xc3", "Drive-1"}, // the raw label is not UTF-8
        {"%V%D", "Disk", "", "", "", "Disk1"},           // VLABEL without "%D"
        {"%V%D", f130, "", "", "", std::string(126, 'F')},
        // Lengths: the word is cut to 120 with the vendor; a name has at most 126 characters.
        {"%V%D", "Drive-%D", v100, "", l120, v100 + "_" + std::string(19, 'L') + "1"},
        {"12345%V%D", "Drive-%D", "", "", l120, "12345" + l120 + "1"},
        {"123456%V%D", "Drive-%D", "", "", l120, "Drive-1"},
        // Hostile bytes.
        {"%V%D", "Drive-%D", "Ac\"me'; rm -rf /", "$(halt)", "$(reboot)", "Ac_reboot1"},
        {"%V%D", "Drive-%D", "../../etc", "x\001y", "", "etc_x1"},
        {"%V%D", "Drive-%D", "\xff\xfe", "\xc3(", "\001ok\177", "ok1"},
        {"%V%D", "Drive-%D", w300, std::string(300, '/'), "", "Drive-1"},
        {"%V%D", "Drive-%D", "", "", "../", "Drive-1"},
        {"%V%D", "Drive-%D", "", "", "\n", "Drive-1"},
        {"%V%D", "Drive-%D", "", "", "\x7f", "Drive-1"},
        {"%V%D", "Drive-%D", "", "", "..", "..1"},
        {"%V%D", "Drive-%D", "", "", "';|&(", "';|&(1"},
        {"%V%D", "Drive-%D", "", "", "$(~)", "Drive-1"}, // would expand in the add script
    };
    drive_letter_table table{};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.drvname + " | " + c.vlabel + " | " + c.vendor + " | " + c.label);
        EXPECT_EQ(name_device(&table, make_settings(c.drvname, c.vlabel),
                              {1, 1, "", c.vendor, c.model, c.label}, false),
                  named(0, "1", c.name, 0));
    }
    hotplugd_settings by_hand = make_settings("Disk%D", "F%D");
    by_hand.use_volume_label = 1; // labels on, but no "%V": the fallback name
    EXPECT_EQ(name_device(&table, by_hand, {1, 1, "", "Acme", "", "Photos"}, false),
              named(0, "1", "F1", 0));
}

TEST(Drivename, NullArguments) {
    drive_letter_table table{};
    hotplugd_settings settings = make_settings("Drive-%D");
    sddb_record record = make_record({1, 1, "S1"});
    const int results[] = {
        get_drivename(nullptr, &settings, &record, 0, 0),
        get_drivename(&table, nullptr, &record, 0, 0),
        get_drivename(&table, &settings, nullptr, 0, 0),
        release_drivename(nullptr, &record),
        release_drivename(&table, nullptr),
        initialize_lock_dletter(nullptr, conf),
        initialize_lock_dletter(&table, nullptr),
        drivename::take_slot(nullptr, slot(0, 1), 1, 1),
        drivename::format_slot(0, nullptr, 3),
        drivename::first_word(nullptr) == nullptr ? -1 : 0,
    };
    for (size_t i = 0; i < std::size(results); ++i)
        EXPECT_EQ(results[i], -1) << "case " << i;
}

// ---- the letter file, under the configuration lock, in the sandbox ---------------------------

struct LetterFile : ::testing::Test {
    drive_letter_table table{};
    hotplugd_settings settings = make_settings("Drive-%D");

    void SetUp() override {
        if (!kt_test::in_sandbox())
            GTEST_SKIP() << "needs tests/sandbox/run: /etc/sysconfig and /var/lock are its tmpfs";
        unlink(conf);
        ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
    }
    void TearDown() override { rmdir(KT_CFG_LOCK_FILE); } // see block_lock

    // A directory where the lock file belongs: nobody can take the lock until TearDown.
    void block_lock() {
        unlink(KT_CFG_LOCK_FILE);
        ASSERT_EQ(mkdir(KT_CFG_LOCK_FILE, 0755), 0);
    }

    named plug(const device &d) { return name_device(&table, settings, d, true); }

    // From a fresh table and the file `before` ("" for none): the disks plugged in turn with
    // what they get, then the file and how many slots are taken.
    void scenario(const char *what, const std::string &before,
                  const std::vector<std::pair<device, named>> &plugs, const std::string &after,
                  size_t slots) {
        SCOPED_TRACE(what);
        unlink(conf);
        ASSERT_TRUE(before.empty() || write_file(conf, before));
        ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
        for (const auto &[d, expected] : plugs)
            EXPECT_EQ(plug(d), expected) << d.index;
        EXPECT_EQ(read_file(conf), after);
        EXPECT_EQ(access(conf, F_OK) == 0, !after.empty()) << "created or removed";
        EXPECT_EQ(taken(table), slots);
    }
};

// The letter file in the situations a NAS meets, each from a fresh table.
TEST_F(LetterFile, Scenarios) {
    scenario("the file as shipped: a first disk, its second partition, a twin", letter_file(),
             {{{1, 1, "S1"}, ok("A1", slot(0, 0))},
              {{1, 2, "S1"}, ok("A2", slot(0, 0))},
              {{2, 1, "S1"}, ok("YA1", slot(1, 0))}},
             letter_file({{'A', "S1"}}), 2);
    // Dropping partition 1 frees the letter for partition 2 as well: the next disk takes it,
    // and the letter it finds remembered is not written again.
    auto inode = [] {
        struct stat st {};
        return stat(conf, &st) == 0 ? st.st_ino : 0;
    };
    const ino_t written = inode();
    sddb_record first = make_record({1, 1, "S1"}); // drive_slot (0, 0)
    EXPECT_EQ(release_drivename(&table, &first), 0);
    EXPECT_EQ(plug({3, 1, "S1"}), ok("A1", slot(0, 0)));
    EXPECT_EQ(inode(), written);

    scenario("a remembered letter, then a new serial takes the first free key",
             letter_file({{'A', "X"}, {'B', "S1"}}),
             {{{1, 1, "S1"}, ok("B1", slot(0, 1))}, {{2, 1, "S2"}, ok("C1", slot(0, 2))}},
             letter_file({{'A', "X"}, {'B', "S1"}, {'C', "S2"}}), 2);
    scenario("the first free key ends the search: two keys hold one serial",
             letter_file({{'B', "S1"}}), {{{1, 1, "S1"}, ok("A1", slot(0, 0))}},
             letter_file({{'A', "S1"}, {'B', "S1"}}), 1);
    const std::string without_a = letter_file({{'B', "S1"}}).substr(15);
    scenario("an absent key is free but not written: the next disk finds the letter held",
             without_a, {{{1, 1, "S1"}, ok("A1", slot(0, 0))}, {{2, 1, "S2"}, failed}}, without_a,
             1);
    std::map<char, std::string> full;
    for (char c = 'A'; c <= 'Z'; ++c)
        full[c] = std::string("OTHER") + c;
    scenario("all keys name other disks: 'A' for every disk, the table untouched",
             letter_file(full),
             {{{1, 1, "S1"}, ok("A1", slot(0, 0))}, {{2, 1, "S2"}, ok("A1", slot(0, 0))}},
             letter_file(full), 0);
    const std::string s255(255, 's');
    scenario("hostile serials go in verbatim and are found again: their twins get Y", letter_file(),
             {{{1, 1, "$(reboot)"}, ok("A1", slot(0, 0))},
              {{2, 1, "a=b"}, ok("B1", slot(0, 1))},
              {{3, 1, "\xff"}, ok("C1", slot(0, 2))},
              {{4, 1, s255}, ok("D1", slot(0, 3))},
              {{5, 1, "$(reboot)"}, ok("YA1", slot(1, 0))},
              {{6, 1, "a=b"}, ok("YB1", slot(1, 1))},
              {{7, 1, "\xff"}, ok("YC1", slot(1, 2))},
              {{8, 1, s255}, ok("YD1", slot(1, 3))}},
             letter_file({{'A', "$(reboot)"}, {'B', "a=b"}, {'C', "\xff"}, {'D', s255}}), 8);
    // Such a serial would split its key line and forge keys of its own choosing.
    scenario("a serial with a line feed is lettered like none, the file untouched", letter_file(),
             {{{1, 1, "X\nDRIVE_LETTERB=Y"}, ok("ZA1", slot(2, 0))}}, letter_file(), 1);
    scenario("no file", "", {{{1, 1, "S1"}, failed}}, "", 0);
    settings = make_settings("%D-%V");
    scenario("a label pattern", letter_file(),
             {{{1, 1, "S1", "Acme", "Stick", "Photos"}, {0, "A1", "A1-Acme_Photos", slot(0, 0)}}},
             letter_file({{'A', "S1"}}), 1);
    settings = make_settings("Drive-%D");
    std::vector<std::pair<device, named>> twins{{{0, 1, "T"}, ok("A1", slot(0, 0))}}, no_serial;
    for (uint32_t i = 0; i < DRIVE_LETTER_COUNT; ++i) {
        const std::string letter(1, static_cast<char>('A' + i));
        const auto disk = static_cast<int16_t>(i + 1);
        twins.push_back({{disk, 1, "T"}, ok("Y" + letter + "1", slot(1, i))});
        no_serial.push_back({{disk, 1, ""}, ok("Z" + letter + "1", slot(2, i))});
    }
    twins.push_back({{27, 1, "T"}, failed});
    no_serial.push_back({{27, 1, ""}, failed});
    scenario("twins of a remembered serial take YA ... YZ, the 27th nothing",
             letter_file({{'A', "T"}}), twins, letter_file({{'A', "T"}}), 27);
    block_lock();
    scenario("without a serial ZA ... ZZ, without the file or its lock; the 27th nothing", "",
             no_serial, "", 26);
    scenario("a lock that cannot be taken", letter_file(), {{{1, 1, "S1"}, failed}}, letter_file(),
             0);
}

// Another program holding the configuration lock, even a shared one as a reader does, keeps
// the search (which may write) out of the file until it lets go.
TEST_F(LetterFile, WaitsForTheLock) {
    ASSERT_TRUE(write_file(conf, letter_file()));
    pid_t holder = kt_test::start_holder([] { return kt_cfg_get_lock(LOCK_SH) >= 0; });
    ASSERT_GT(holder, 0);
    auto search = std::async(std::launch::async, [&] { return plug({1, 1, "S1"}); });
    EXPECT_EQ(search.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout)
        << "went ahead while the lock was held";
    kt_test::stop_holder(holder);
    EXPECT_EQ(search.get(), ok("A1", slot(0, 0)));
    EXPECT_EQ(read_file(conf), letter_file({{'A', "S1"}}));
}

// ---- the ROM store and what gets logged: a child catches syslog on a /dev/log of its own ------

struct LetterLog : LetterFile {
    // Disk 1's "S1" named with write_rom and letters on, in a child whose syslog is caught. The
    // child's result, or -99 when its table disagrees: a success holds 'A', a failure nothing.
    kt_test::caught_syslog name_in_child(const std::vector<std::string> &keep = {}) {
        return kt_test::catch_syslog(
            [&] {
                sddb_record record = make_record({1, 1, "S1"});
                int result = get_drivename(&table, &settings, &record, 1, 1);
                return (result == 0) == (taken(table) == 1 && table.owner[0][0] == 2) ? result
                                                                                      : -99;
            },
            keep);
    }

    // The letter file as the ROM archive `archive` holds it.
    static std::string archived(const std::string &archive) {
        std::string content;
        kt_test::run("tar -xOf " + kt_test::shell_quoted(archive) + " system.conf", &content);
        return content;
    }
};

// Each failed step is logged once at LOG_CRIT and fails the call; the letter is not taken,
// and a key written before the failure stays in the file.
TEST_F(LetterLog, FailedWritesAreCritical) {
    const std::string written = letter_file({{'A', "S1"}});
    const struct {
        const char *tmp_dir, *rom;
        std::string message, file;
    } cases[] = {
        {"/etc/sysconfig/missing", "/tmp/rom.img", "sys config write(/etc/sysconfig/system.conf)\n",
         letter_file()},
        {"/etc/sysconfig", "/tmp/no/such/dir/rom.img",
         "config rom store(config /etc/sysconfig, rom /tmp/no/such/dir/rom.img)\n", written},
        // A plain file as the ROM: the archive is written, then the driver request fails.
        {"/etc/sysconfig", "/tmp/rom.img", "config flush cache(rom /tmp/rom.img)\n", written},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        EXPECT_NE(access("/tmp/rom.img", F_OK), 0) << "nothing stored before";
        ASSERT_TRUE(write_file(conf, letter_file()));
        put(settings.tmp_dir, c.tmp_dir);
        put(settings.rom_device, c.rom);
        kt_test::caught_syslog caught = name_in_child();
        ASSERT_EQ(caught.error, "");
        EXPECT_EQ(caught.result, -1);
        ASSERT_EQ(caught.messages.size(), 1u);
        EXPECT_EQ(caught.messages[0].rfind("<26>", 0), 0u) << "LOG_DAEMON | LOG_CRIT";
        EXPECT_EQ(kt_test::syslog_text(caught.messages[0]), c.message);
        EXPECT_EQ(read_file(conf), c.file);
    }
    EXPECT_EQ(archived("/tmp/rom.img"), written);
    unlink("/tmp/rom.img");
}

// Against the FUSE stand-in for the ROM device's driver, bound at /dev/kteeprom by the sandbox.
struct LetterRomDevice : LetterLog {};

#ifdef KT_TEST_EEPROM_FUSE

// The whole way to the driver: archive, flush request, notice.
TEST_F(LetterRomDevice, ReceivesArchiveAndFlush) {
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        GTEST_SKIP() << "this kernel offers no FUSE (/dev/fuse)";
    kt_test::scratch_dir dir;
    kt_test::fuse_rom rom(dir.path());
    ASSERT_EQ(rom.start(KT_TEST_EEPROM_FUSE), "");
    ASSERT_TRUE(write_file(conf, letter_file()));
    put(settings.rom_device, "/dev/kteeprom");
    kt_test::caught_syslog caught = name_in_child({"/dev/kteeprom"});
    ASSERT_EQ(caught.error, "");
    EXPECT_EQ(caught.result, 0);
    EXPECT_EQ(archived(rom.image()), letter_file({{'A', "S1"}}));
    EXPECT_EQ(rom.last_request(), kt_test::rom_request_line(KT_CFG_ROM_IOC_0, "w", "-"));
    ASSERT_EQ(caught.messages.size(), 1u);
    EXPECT_EQ(caught.messages[0].rfind("<29>", 0), 0u) << "LOG_DAEMON | LOG_NOTICE";
    EXPECT_EQ(kt_test::syslog_text(caught.messages[0]),
              "write a config file to ROM(config /etc/sysconfig rom /dev/kteeprom)\n");
}

#else

TEST_F(LetterRomDevice, ReceivesArchiveAndFlush) {
    GTEST_SKIP() << "the FUSE stand-in for the ROM driver is built natively only";
}

#endif

} // namespace

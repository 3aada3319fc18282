// Tests of drive names and letters: slots, the word rule, name patterns, the letter file under
// the real lock, its ROM store with the log lines, and what hostile device strings become.
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
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <ostream>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using kt_test::read_file;
using kt_test::write_file;

constexpr char conf[] = "/etc/sysconfig/system.conf";

bool in_sandbox() {
    return std::getenv("HOTPLUGD_SANDBOX") != nullptr;
}

// Fills a fixed field; a text as long as the field (or longer) leaves it without a NUL.
template <size_t N> void put(char (&field)[N], const std::string &text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N));
}

template <size_t N> std::string text_of(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Patterns as the settings loader leaves them: DRVNAME and VLABEL both hold "%D".
hotplugd_settings make_settings(const std::string &drive_name_format,
                                const std::string &fallback = "Drive-%D") {
    hotplugd_settings settings{};
    put(settings.drive_name_format, drive_name_format);
    put(settings.fallback_name_format, fallback);
    settings.use_volume_label = drive_name_format.find("%V") != std::string::npos;
    put(settings.tmp_dir, "/etc/sysconfig");
    return settings;
}

struct device {
    int16_t index;
    int16_t partition;
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

// What get_drivename made of a record.
struct named {
    int result;
    std::string id, name;
    uint32_t slot;
    bool operator==(const named &o) const {
        return result == o.result && id == o.id && name == o.name && slot == o.slot;
    }
};
std::ostream &operator<<(std::ostream &out, const named &n) {
    return out << "{" << n.result << ", '" << n.id << "', '" << n.name << "', " << n.slot << "}";
}

named name_record(drive_letter_table *table, const hotplugd_settings &settings, sddb_record *record,
                  bool fixed_drive) {
    int result = get_drivename(table, &settings, record, 0, fixed_drive);
    return {result, text_of(record->part_info.drive_id), text_of(record->part_info.drive_name),
            record->drive_slot};
}

bool table_is_free(const drive_letter_table &table) {
    for (int g = 0; g < DRIVE_GROUP_COUNT; ++g)
        for (int l = 0; l < DRIVE_LETTER_COUNT; ++l)
            if (table.owner[g][l] != 0 || table.partition_mask[g][l] != 0)
                return false;
    return true;
}

// A letter file as the appliance ships it, every key present; `values` fills some in.
std::string letter_file(std::map<char, std::string> values = {}) {
    std::string text;
    for (char c = 'A'; c <= 'Z'; ++c)
        text += std::string("DRIVE_LETTER") + c + "=" + values[c] + "\n";
    return text;
}

ino_t inode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? st.st_ino : 0;
}

constexpr uint32_t slot(uint32_t group, uint32_t letter) {
    return group * DRIVE_SLOT_GROUP + letter;
}

// A directory where the configuration lock file belongs: nobody can take the lock meanwhile.
class lock_blocker {
  public:
    lock_blocker() {
        unlink(KT_CFG_LOCK_FILE);
        made_ = mkdir(KT_CFG_LOCK_FILE, 0755) == 0;
    }
    ~lock_blocker() {
        if (made_)
            rmdir(KT_CFG_LOCK_FILE);
    }
    lock_blocker(const lock_blocker &) = delete;
    lock_blocker &operator=(const lock_blocker &) = delete;
    bool made() const { return made_; }

  private:
    bool made_ = false;
};

// ---- slots and the word rule -----------------------------------------------------------------

TEST(Slots, TextsOfEveryGroupAndNoOthers) {
    struct Case {
        uint32_t slot;
        size_t size;
        int result;
        const char *text;
    } cases[] = {
        {slot(0, 0), 3, 0, "A"},     {slot(0, 25), 3, 0, "Z"},  {slot(1, 2), 3, 0, "YC"},
        {slot(2, 0), 3, 0, "ZA"},    {slot(2, 25), 3, 0, "ZZ"}, {slot(3, 0), 8, -1, ""},
        {slot(0, 26), 8, -1, ""},    {slot(1, 0), 2, -1, ""},   {0xffffffffu, 8, -1, ""},
        {slot(1, 65535), 8, -1, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.slot);
        char out[8] = "";
        EXPECT_EQ(drivename::format_slot(c.slot, out, c.size), c.result);
        EXPECT_STREQ(out, c.text);
    }
    EXPECT_EQ(drivename::format_slot(0, nullptr, 3), -1);
}

TEST(Slots, OwnersPartitionBitsAndRelease) {
    drive_letter_table table{};
    using drivename::take_slot;
    EXPECT_EQ(take_slot(&table, slot(0, 0), 1, 1), 0);
    EXPECT_EQ(table.owner[0][0], 2u) << "disk_index + 1";
    EXPECT_EQ(table.partition_mask[0][0], 0x2u);
    EXPECT_EQ(take_slot(&table, slot(0, 0), 1, 1), 0) << "again: nothing changes";
    EXPECT_EQ(take_slot(&table, slot(0, 0), 1, 2), 0);
    EXPECT_EQ(take_slot(&table, slot(0, 0), 1, 33), 0) << "partition 33 is bit 1";
    EXPECT_EQ(table.partition_mask[0][0], 0x6u);
    EXPECT_EQ(take_slot(&table, slot(0, 0), 2, 1), -1) << "another disk";
    EXPECT_EQ(take_slot(&table, slot(0, 0), 0, 2), -1) << "disk 0 is another disk too";
    EXPECT_EQ(take_slot(&table, slot(3, 0), 1, 1), -1);
    EXPECT_EQ(take_slot(&table, slot(2, 26), 1, 1), -1);
    EXPECT_EQ(take_slot(nullptr, slot(0, 1), 1, 1), -1);

    // Releasing one partition frees the slot for all of the disk's partitions.
    sddb_record other = make_record({2, 1, ""}), first = make_record({1, 1, ""});
    EXPECT_EQ(release_drivename(&table, &other), 0) << "another disk's slot: no change";
    EXPECT_EQ(table.owner[0][0], 2u);
    EXPECT_EQ(release_drivename(&table, &first), 0);
    EXPECT_TRUE(table_is_free(table));
    EXPECT_EQ(take_slot(&table, slot(0, 0), 2, 1), 0);
    first.drive_slot = slot(3, 0);
    EXPECT_EQ(release_drivename(&table, &first), -1);
    first.drive_slot = slot(0, 26);
    EXPECT_EQ(release_drivename(&table, &first), -1);
    EXPECT_EQ(release_drivename(nullptr, &first), -1);
    EXPECT_EQ(release_drivename(&table, nullptr), -1);
}

// Only ASCII letters and digits make a word: quotes, "$(", "/", "..", control and non-ASCII
// bytes never reach a name through a first word.
TEST(FirstWord, OnlyAsciiLettersAndDigits) {
    const std::pair<std::string, std::string> cases[] = {
        {"  Acme Corp", "Acme"},
        {"\tx-42B4F", "x"},
        {"AA1234567", "AA1234567"},
        {"", ""},
        {"!!! ---", ""},
        {"../../etc/passwd", "etc"},
        {"$(reboot)", "reboot"},
        {"`id`", "id"},
        {"\"My Disk\"", "My"},
        {"a\nDRIVE=1", "a"},
        {"\001\037ab\177", "ab"},
        {"caf\xc3\xa9s", "caf"},
        {"\xe6\x97\xa5\xe6\x9c\xac", ""},
        {"\377\376Z9", "Z9"},
    };
    for (const auto &[text, word] : cases) {
        SCOPED_TRACE(text);
        std::string buffer = text;
        char *got = drivename::first_word(buffer.data());
        ASSERT_NE(got, nullptr);
        EXPECT_EQ(std::string(got), word);
        EXPECT_GE(got, buffer.data());
        EXPECT_LE(got + word.size(), buffer.data() + buffer.size()) << "cut in place";
    }
    EXPECT_EQ(drivename::first_word(nullptr), nullptr);
}

TEST(Initialize, ClearsAndCopiesAtMost1024Bytes) {
    drive_letter_table table;
    std::memset(&table, 0x5a, sizeof table);
    ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
    EXPECT_TRUE(table_is_free(table));
    EXPECT_EQ(text_of(table.config_path), conf);

    // The daemon passes the table's own field: it ends up empty, to be set afterwards.
    ASSERT_EQ(initialize_lock_dletter(&table, table.config_path), 0);
    EXPECT_EQ(text_of(table.config_path), "");

    const std::string long_path = "/" + std::string(1100, 'p');
    ASSERT_EQ(initialize_lock_dletter(&table, long_path.c_str()), 0);
    EXPECT_EQ(text_of(table.config_path), long_path.substr(0, 1024)) << "no room for a NUL";
    EXPECT_EQ(initialize_lock_dletter(nullptr, conf), -1);
    EXPECT_EQ(initialize_lock_dletter(&table, nullptr), -1);
}

// ---- identifiers and names with drive letters off (no file) --------------------------------

TEST(LettersOff, IdentifierFromTheSerial) {
    const hotplugd_settings settings = make_settings("Drive-%D");
    const std::string long_serial = std::string(120, 'X') + "ABCDEFGHIJKLMNOPQRSTUVWXYZ" +
                                    std::string(200, 'Q'); // fills the field, no NUL
    struct Case {
        std::string serial;
        int16_t partition;
        std::string id;
    } cases[] = {
        {"AA1234567", 1, "45671"},
        {"ab", 1, "ab1"},
        {"", 1, "1"},
        {"  0x42B4F", 1, "2B4F1"},
        {"-42B4F", 1, "2B4F1"},
        {"ABCD", 12, "ABCD12"},
        {"ABCDE", 0, "BCDE0"},
        {long_serial, 1, "EFGH1"}, // only the first 128 bytes count
        // Hostile serials: only a first word can come through.
        {"$(reboot)", 1, "boot1"},
        {"../../", 3, "3"},
        {"a\nDRIVE_LETTERA=b", 1, "a1"},
        {"\377\376ABCD", 1, "1"}, // not UTF-8: no identifier from it
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.serial);
        drive_letter_table table{};
        sddb_record record = make_record({1, c.partition, c.serial});
        record.drive_slot = 77;
        EXPECT_EQ(name_record(&table, settings, &record, false),
                  (named{0, c.id, "Drive-" + c.id, 77}))
            << "the slot is left alone with letters off";
        EXPECT_TRUE(table_is_free(table));
    }
}

// Names from DRVNAME with "%V", or from the VLABEL fallback. Letters off and no serial, so the
// identifier is the partition number "1".
TEST(LettersOff, NamesFromThePatterns) {
    const std::string v100(100, 'V'), l120(120, 'L'), w300(300, 'W'), f130(130, 'F');
    const std::string photo = "\xe5\x86\x99\xe7\x9c\x9f"; // UTF-8 without an ASCII word
    struct Case {
        std::string drvname, vlabel, vendor, model, label, name;
    } cases[] = {
        // Labels off: VLABEL alone.
        {"USB%D", "USB%D", "Acme", "", "Photos", "USB1"},
        // Vendor word and "_", then the label's word, else the model's.
        {"%D-%V", "Drive-%D", "Acme", "Stick", "Photos", "1-Acme_Photos"},
        {"[%V]%D.", "Drive-%D", "Acme", "", "Pics", "[Acme_Pics]1."},
        {"%V_%D", "Drive-%D", "", "My Stick", "", "My_1"},
        {"%V%D", "Drive-%D", "", "Stick", "\xff", "Stick1"}, // label not UTF-8
        {"%V%D", "Drive-%D", "  Acme Inc", "", "", "Acme_1"},
        // A label without a word is taken as it stands, but only when nothing else came.
        {"%V%D", "Drive-%D", "", "Stick", photo, photo + "1"},
        {"%V%D", "Drive-%D", "Acme", "", photo, "Acme_1"},
        {"%V%D", "Drive-%D", "", "", "\xc3", "Drive-1"}, // the raw label is not UTF-8
        {"%V%D", "Disk%Dx", "", "", "", "Disk1x"},       // nothing at all
        // Lengths: the word is cut to 120 with the vendor; a name has at most 126 characters.
        {"%V%D", "Drive-%D", v100, "", l120, v100 + "_" + std::string(19, 'L') + "1"},
        {"12345%V%D", "Drive-%D", "", "", l120, "12345" + l120 + "1"},
        {"123456%V%D", "Drive-%D", "", "", l120, "Drive-1"},
        {"%V%D", "Drive-%D", w300, "", "x", "Drive-1"}, // the vendor fills its field
        // Fallback patterns: without "%D" the identifier goes last; a long one is cut.
        {"%V%D", "Disk", "", "", "", "Disk1"},
        {"%V%D", f130, "", "", "", std::string(126, 'F')},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.drvname + " | " + c.vlabel + " | " + c.vendor + " | " + c.label);
        hotplugd_settings settings = make_settings(c.drvname, c.vlabel);
        drive_letter_table table{};
        sddb_record record = make_record({1, 1, "", c.vendor, c.model, c.label});
        EXPECT_EQ(name_record(&table, settings, &record, false), (named{0, "1", c.name, 0}));
    }

    // A pattern made by hand without "%V" while labels are on: the fallback name.
    hotplugd_settings settings = make_settings("Disk%D", "F%D");
    settings.use_volume_label = 1;
    drive_letter_table table{};
    sddb_record record = make_record({1, 1, "", "Acme", "", "Photos"});
    EXPECT_EQ(name_record(&table, settings, &record, false), (named{0, "1", "F1", 0}));
}

// What the rules make of hostile vendor, model and label bytes (letters off, identifier "1").
// A first word carries ASCII letters and digits only, so vendor and model never bring
// anything else. The label is different: one without any letter or digit is used as it
// stands, so whatever bytes it holds reach the drive name, and with it the mount directory
// under share_dir. (The label prober turns "/", quotes, blanks and control bytes into "_" or
// drops them before a label gets here; this function does not check again.)
TEST(LettersOff, HostileDeviceStrings) {
    const hotplugd_settings settings = make_settings("%V%D");
    struct Case {
        std::string vendor, model, label, name;
    } cases[] = {
        {"Ac\"me'; rm -rf /", "", "$(reboot)", "Ac_reboot1"},
        {"../../etc", "x\001y", "../", "etc_1"},
        {"", "", "a\001b", "a1"},
        {"`id`", "$(halt)", "", "id_halt1"},
        {"\xff\xfe", "\xc3(", "ok", "ok1"},
        {std::string(300, '"'), std::string(300, '/'), "", "Drive-1"},
        // The raw label reaches the name as it stands, except a slash or a control byte,
        // which would lead out of the share directory or break a line: then the fallback.
        {"", "", "../", "Drive-1"},
        {"", "", "/", "Drive-1"},
        {"", "", "\n", "Drive-1"},
        {"", "", "\x7f", "Drive-1"},
        {"", "", "..", "..1"},
        {"", "", "$(", "$(1"},
        {"", "", "';|&", "';|&1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.vendor + " | " + c.model + " | " + c.label);
        drive_letter_table table{};
        sddb_record record = make_record({1, 1, "", c.vendor, c.model, c.label});
        EXPECT_EQ(name_record(&table, settings, &record, false), (named{0, "1", c.name, 0}));
    }
}

TEST(LettersOff, NullArguments) {
    drive_letter_table table{};
    hotplugd_settings settings = make_settings("Drive-%D");
    sddb_record record = make_record({1, 1, "S1"});
    EXPECT_EQ(get_drivename(nullptr, &settings, &record, 0, 0), -1);
    EXPECT_EQ(get_drivename(&table, nullptr, &record, 0, 0), -1);
    EXPECT_EQ(get_drivename(&table, &settings, nullptr, 0, 0), -1);
}

// ---- the letter file, under the configuration lock, in the sandbox ---------------------------

struct LetterFile : ::testing::Test {
    drive_letter_table table{};
    hotplugd_settings settings = make_settings("Drive-%D");

    void SetUp() override {
        if (!in_sandbox())
            GTEST_SKIP() << "needs tests/sandbox/run: /etc/sysconfig and /var/lock are its tmpfs";
        unlink(conf);
        ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
    }

    named plug(const device &d, sddb_record *out = nullptr) {
        sddb_record record = make_record(d);
        named result = name_record(&table, settings, &record, true);
        if (out != nullptr)
            *out = record;
        return result;
    }
};

// The file as the appliance ships it: every key there, every value empty.
TEST_F(LetterFile, FirstDiskItsPartitionsAndATwin) {
    ASSERT_TRUE(write_file(conf, letter_file()));
    sddb_record first;
    EXPECT_EQ(plug({1, 1, "S1"}, &first), (named{0, "A1", "Drive-A1", slot(0, 0)}));
    EXPECT_EQ(read_file(conf), letter_file({{'A', "S1"}}));
    EXPECT_EQ(table.owner[0][0], 2u);

    ino_t inode = inode_of(conf);
    EXPECT_EQ(plug({1, 2, "S1"}), (named{0, "A2", "Drive-A2", slot(0, 0)}));
    EXPECT_EQ(inode_of(conf), inode) << "a remembered letter is not written again";
    EXPECT_EQ(table.partition_mask[0][0], 0x6u);

    // Another disk reporting the same serial while the first is in: the overflow group.
    EXPECT_EQ(plug({2, 1, "S1"}), (named{0, "YA1", "Drive-YA1", slot(1, 0)}));
    EXPECT_EQ(read_file(conf), letter_file({{'A', "S1"}}));

    // Dropping partition 1 frees the letter for partition 2 as well: the next disk takes it.
    EXPECT_EQ(release_drivename(&table, &first), 0);
    EXPECT_EQ(table.owner[0][0], 0u);
    EXPECT_EQ(table.partition_mask[0][0], 0u);
    EXPECT_EQ(plug({3, 1, "S1"}), (named{0, "A1", "Drive-A1", slot(0, 0)}));
}

TEST_F(LetterFile, RememberedLetterAndANewKey) {
    ASSERT_TRUE(write_file(conf, letter_file({{'A', "X"}, {'B', "S1"}})));
    put(settings.rom_device, "/tmp/rom.img"); // without write_rom it is not used
    EXPECT_EQ(plug({1, 1, "S1"}), (named{0, "B1", "Drive-B1", slot(0, 1)}));
    EXPECT_EQ(plug({2, 1, "S2"}), (named{0, "C1", "Drive-C1", slot(0, 2)}));
    EXPECT_EQ(read_file(conf), letter_file({{'A', "X"}, {'B', "S1"}, {'C', "S2"}}));
    EXPECT_NE(access("/tmp/rom.img", F_OK), 0);
}

// The first free key ends the search, even before the key that holds the serial.
TEST_F(LetterFile, FirstFreeKeyEndsTheSearch) {
    ASSERT_TRUE(write_file(conf, letter_file({{'B', "S1"}})));
    EXPECT_EQ(plug({1, 1, "S1"}), (named{0, "A1", "Drive-A1", slot(0, 0)}));
    EXPECT_EQ(read_file(conf), letter_file({{'A', "S1"}, {'B', "S1"}})) << "two keys, one serial";
}

// A file without the key: the letter is taken in the table, the file stays as it was. A
// second disk then finds the same absent key, and its letter is held: it gets no name.
TEST_F(LetterFile, AbsentKeyIsFreeButNotRemembered) {
    std::string without_a = letter_file({{'B', "S1"}}).substr(std::strlen("DRIVE_LETTERA=\n"));
    ASSERT_TRUE(write_file(conf, without_a));
    EXPECT_EQ(plug({1, 1, "S1"}), (named{0, "A1", "Drive-A1", slot(0, 0)}));
    EXPECT_EQ(read_file(conf), without_a);
    EXPECT_EQ(plug({2, 1, "S2"}).result, -1);
    EXPECT_EQ(read_file(conf), without_a);
}

// All 26 keys hold other serials: 'A' for every further disk, without taking the slot, so two
// disks in at once share the name "Drive-A1".
TEST_F(LetterFile, AllKeysTakenGivesAWithoutTheTable) {
    std::map<char, std::string> full;
    for (char c = 'A'; c <= 'Z'; ++c)
        full[c] = std::string("OTHER") + c;
    ASSERT_TRUE(write_file(conf, letter_file(full)));
    EXPECT_EQ(plug({1, 1, "S1"}), (named{0, "A1", "Drive-A1", slot(0, 0)}));
    EXPECT_EQ(plug({2, 1, "S2"}), (named{0, "A1", "Drive-A1", slot(0, 0)}));
    EXPECT_TRUE(table_is_free(table));
    EXPECT_EQ(read_file(conf), letter_file(full));
}

// Disks without a serial use group 2 and never the file or its lock.
TEST_F(LetterFile, NoSerialTakesZaToZz) {
    lock_blocker blocker;
    ASSERT_TRUE(blocker.made());
    for (int16_t disk = 0; disk < DRIVE_LETTER_COUNT; ++disk) {
        std::string id = std::string("Z") + static_cast<char>('A' + disk) + "1";
        EXPECT_EQ(plug({disk, 1, ""}), (named{0, id, "Drive-" + id, slot(2, disk)}));
    }
    EXPECT_EQ(plug({26, 1, ""}).result, -1) << "the 27th";
    EXPECT_EQ(plug({3, 2, ""}), (named{0, "ZD2", "Drive-ZD2", slot(2, 3)}));
    EXPECT_NE(access(conf, F_OK), 0);
}

TEST_F(LetterFile, OverflowGroupRunsOut) {
    ASSERT_TRUE(write_file(conf, letter_file({{'A', "TWIN"}})));
    EXPECT_EQ(plug({0, 1, "TWIN"}).id, "A1");
    for (int16_t disk = 1; disk <= DRIVE_LETTER_COUNT; ++disk)
        EXPECT_EQ(plug({disk, 1, "TWIN"}).id,
                  std::string("Y") + static_cast<char>('A' + disk - 1) + "1");
    EXPECT_EQ(plug({27, 1, "TWIN"}).result, -1);
}

TEST_F(LetterFile, LabelPatternWithALetter) {
    ASSERT_TRUE(write_file(conf, letter_file()));
    settings = make_settings("%D-%V");
    EXPECT_EQ(plug({1, 1, "S1", "Acme", "Stick", "Photos"}),
              (named{0, "A1", "A1-Acme_Photos", slot(0, 0)}));
}

TEST_F(LetterFile, UnusableFileOrLockFails) {
    EXPECT_EQ(plug({1, 1, "S1"}).result, -1) << "no file";
    EXPECT_NE(access(conf, F_OK), 0) << "never created";

    ASSERT_TRUE(write_file(conf, letter_file()));
    {
        lock_blocker blocker;
        ASSERT_TRUE(blocker.made());
        EXPECT_EQ(plug({1, 1, "S1"}).result, -1) << "a lock that cannot be taken";
    }
    EXPECT_EQ(read_file(conf), letter_file());
    EXPECT_TRUE(table_is_free(table));
}

// Another program holding the configuration lock keeps the search out of the file until it
// lets go.
TEST_F(LetterFile, WaitsForTheLock) {
    ASSERT_TRUE(write_file(conf, letter_file()));
    pid_t holder = kt_test::start_holder([] { return kt_cfg_get_lock(LOCK_EX) >= 0; });
    ASSERT_GT(holder, 0);
    std::atomic<bool> done{false};
    named result{};
    std::thread search([&] {
        result = plug({1, 1, "S1"});
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(done) << "went ahead while the lock was held";
    EXPECT_EQ(read_file(conf), letter_file());
    kt_test::stop_holder(holder);
    search.join();
    EXPECT_EQ(result, (named{0, "A1", "Drive-A1", slot(0, 0)}));
    EXPECT_EQ(read_file(conf), letter_file({{'A', "S1"}}));
}

// Serials go into the file verbatim: "=", shell text, invalid UTF-8 and a full field round-trip
// and are found again. A serial with a line feed would split its key line and forge other keys,
// so such a disk is lettered like one without a serial and the file stays untouched.
TEST_F(LetterFile, HostileSerialsInTheFile) {
    ASSERT_TRUE(write_file(conf, letter_file()));
    const std::string long_serial(255, 's');
    const std::string cases[] = {"$(reboot)", "a=b", "\xff\xfe", "[S]", long_serial};
    std::map<char, std::string> values;
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        char letter = static_cast<char>('A' + i);
        sddb_record record;
        std::string id = std::string(1, letter) + "1";
        EXPECT_EQ(plug({static_cast<int16_t>(i), 1, cases[i]}, &record),
                  (named{0, id, "Drive-" + id, slot(0, letter - 'A')}));
        values[letter] = cases[i];
        EXPECT_EQ(read_file(conf), letter_file(values));
        ASSERT_EQ(release_drivename(&table, &record), 0);
        EXPECT_EQ(plug({static_cast<int16_t>(i + 10), 1, cases[i]}).id, id) << "found again";
    }

    ASSERT_TRUE(write_file(conf, letter_file()));
    ASSERT_EQ(initialize_lock_dletter(&table, conf), 0);
    EXPECT_EQ(plug({1, 1, "X\nDRIVE_LETTERB=Y"}), (named{0, "ZA1", "Drive-ZA1", slot(2, 0)}));
    EXPECT_EQ(read_file(conf), letter_file());
    EXPECT_EQ(plug({2, 1, "Y"}).id, "A1") << "no letter was forged for Y";
}

// ---- what gets logged: a child catches syslog on a /dev/log of its own -----------------------

// The table and record live in shared memory, so the caller sees what the child did to them.
struct shared_state {
    drive_letter_table table;
    sddb_record record;
};

class LetterLog : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!in_sandbox())
            GTEST_SKIP() << "needs tests/sandbox/run: /etc/sysconfig and /var/lock are its tmpfs";
        void *memory = mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        state = static_cast<shared_state *>(memory);
        ASSERT_EQ(initialize_lock_dletter(&state->table, conf), 0);
        state->record = make_record({1, 1, "S1"});
        ASSERT_TRUE(write_file(conf, letter_file()));
    }
    void TearDown() override {
        if (state != nullptr)
            munmap(state, sizeof(shared_state));
    }

    // get_drivename with write_rom and fixed_drive set, in a child whose syslog is caught.
    kt_test::caught_syslog name_in_child(const std::vector<std::string> &keep = {}) {
        return kt_test::catch_syslog(
            [&] { return get_drivename(&state->table, &settings, &state->record, 1, 1); }, keep);
    }

    shared_state *state = nullptr;
    hotplugd_settings settings = make_settings("Drive-%D");
};

// The entry of `name` in a tar archive.
std::string archived(const std::string &archive, const char *name) {
    std::string command = "tar -xOf '" + archive + "' " + name + " 2>/dev/null", content;
    if (std::FILE *p = popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
            content.append(buf, n);
        pclose(p);
    }
    return content;
}

// Each failed step is logged once at LOG_CRIT and fails the call; the letter is not taken,
// and a key written before the failure stays in the file.
TEST_F(LetterLog, FailedWritesAreCritical) {
    const std::string written = letter_file({{'A', "S1"}});
    struct Case {
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
    for (const Case &c : cases) {
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
        EXPECT_TRUE(table_is_free(state->table));
    }
    EXPECT_EQ(archived("/tmp/rom.img", "system.conf"), written);
    unlink("/tmp/rom.img");
}

// Against the FUSE stand-in for the ROM device's driver, bound at /dev/kteeprom by the sandbox.
class LetterRomDevice : public LetterLog {};

#ifdef KT_TEST_EEPROM_FUSE

// The whole way to the driver: archive, flush request, notice.
TEST_F(LetterRomDevice, ReceivesArchiveAndFlush) {
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        GTEST_SKIP() << "this kernel offers no FUSE (/dev/fuse)";
    kt_test::scratch_dir dir;
    kt_test::fuse_rom rom(dir.path());
    ASSERT_EQ(rom.start(KT_TEST_EEPROM_FUSE), "");
    put(settings.rom_device, "/dev/kteeprom");
    kt_test::caught_syslog caught = name_in_child({"/dev/kteeprom"});
    ASSERT_EQ(caught.error, "");
    EXPECT_EQ(caught.result, 0);
    EXPECT_EQ(text_of(state->record.part_info.drive_id), "A1");
    EXPECT_EQ(state->table.owner[0][0], 2u);
    EXPECT_EQ(archived(rom.image(), "system.conf"), letter_file({{'A', "S1"}}));
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

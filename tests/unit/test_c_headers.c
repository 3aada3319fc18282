/* Compiles every library header as C and calls through each, as the appliance's C programs do. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "config/ktcfg.h"
#include "config/ktcfg_rom.h"
#include "config/sysconf.h"
#include "daemon/hotplugd.h"
#include "daemon/receive.h"
#include "lib/ktdaemon.h"
#include "lib/ktipc.h"
#include "lib/ktlist.h"
#include "lib/ktmap.h"
#include "lib/ktmnglist.h"
#include "lib/ktutf8.h"
#include "lib/proc.h"
#include "mount/fsmount.h"
#include "mount/hooks.h"
#include "mount/mount_thread.h"
#include "mount/probe.h"
#include "mount/probe_text.h"
#include "mount/unmount.h"
#include "registry/drivename.h"
#include "registry/mntmg.h"
#include "registry/records.h"
#include "registry/sddb.h"
#include "registry/sysfs.h"

static int failures;

static void check(int ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "FAILED: %s\n", what);
        failures++;
    }
}

int main(void) {
    ktmap *map = ktmap_create(strcmp);
    char key[] = "DRIVE_LETTERA", value[] = "0123";
    ktpair pair = {key, value};
    check(map != NULL, "ktmap_create");
    check(ktlist_insert(map->list, map->list, &pair) != NULL, "ktlist_insert");
    check(ktmap_find(map, "DRIVE_LETTERA") == map->list->next, "ktmap_find");
    ktmap_dispose(map);

    ktmnglist *mlist = ktmnglist_create(NULL);
    int record = 416, copy = 0;
    ktmngiterator it = ktmnglist_insert(mlist, mlist->list, &record, sizeof record);
    check(ktmngiterator_get_data(it, &copy, sizeof copy) == (int64_t)sizeof record && copy == 416,
          "ktmngiterator_get_data");
    check(ktmnglist_length(mlist) == 1, "ktmnglist_length");
    ktmnglist_free(mlist);

    check(kt_is_utf8("\xc3\xa9") == 1, "kt_is_utf8");
    check(kt_round_utf8("ab", 2) == 1, "kt_round_utf8");
    check(kt_create_pid_file(NULL) == -1, "kt_create_pid_file(NULL)");

    ktipc *ipc = ktipc_create(NULL, 0);
    char datagram[4] = {0};
    check(ipc != NULL && ipc->fd >= 0 && ipc->addr.sun_path[0] == 0, "ktipc_create(NULL, 0)");
    check(ktipc_send_srv(ipc, datagram, sizeof datagram, NULL) == -1, "ktipc_send_srv(NULL)");
    check(ktipc_receive(ipc, datagram, sizeof datagram, 0, NULL, NULL) == 0, "ktipc_receive");
    ktipc_close(ipc);

    ktprocess *proc = proc_create(PROC_STDOUT_PIPE | PROC_STDERR_NULL, "printf %s", "c");
    unsigned int limit = 5000;
    int status = -1;
    char out[4];
    check(proc != NULL && proc_readd_stdout(proc, out, sizeof out, "\n") == 1 && out[0] == 'c',
          "proc_readd_stdout");
    check(proc != NULL && proc_wait_exittm(proc, 0, &limit, &status) == proc->pid && status == 0,
          "proc_wait_exittm");
    check(proc_free_ktprocess(proc) == 0, "proc_free_ktprocess");
    mntmg *queue = mntmg_initialize();
    mntmg_record request;
    memset(&request, 0, sizeof request);
    request.kind = MNTMG_KIND_UNMOUNT;
    request.minor = MNTMG_ALL_DEVICES;
    request.reply_addr_len = sizeof request.reply_addr;
    check(mntmg_setdata(queue, &request) == 0 && mntmg_wait(queue, 0) == 1, "mntmg_setdata");
    check(mntmg_getdata(queue, &request) == 0 && request.extra2 == 110, "mntmg_getdata");
    check(mntmg_getlen(queue) == 0, "mntmg_getlen");
    mntmg_free(queue);

    sddb *db = sddb_initialize();
    sddb_record device;
    memset(&device, 0, sizeof device);
    check(get_sdname(17, device.node_name, sizeof device.node_name) == 0 &&
              strcmp(device.node_name, "sdb1") == 0,
          "get_sdname");
    ktmnglist *devices = sddb_lock(db);
    check(sddb_insert(devices, &device) == 0 && sddb_remove(devices, "sdb1", NULL, NULL) == 1,
          "sddb_insert, sddb_remove");
    sddb_unlock(db);
    check(get_sdsize(&device) == -1, "get_sdsize of an unmounted record");
    sddb_free(db);
    check(get_sysblockdata("/proc/self", &device.disk_info, &device.part_info) == 0,
          "get_sysblockdata");
    check(ktread_filef(device.node_path, sizeof device.node_path, "%s/comm", "/proc/self") > 0,
          "ktread_filef");
    char *ini_value = NULL;
    check(kt_cfg_get_ini_string(NULL, NULL, "A", &ini_value) == -EINVAL, "kt_cfg_get_ini_string");
    check(kt_cfg_set_strings("/nonexistent/x.conf", "/tmp", NULL) == -EINVAL, "kt_cfg_set_strings");
    check(kt_cfg_rom_store(NULL, "/etc/sysconfig") == -EINVAL, "kt_cfg_rom_store(NULL)");
    check(kt_cfg_flushcache(NULL) == -EINVAL, "kt_cfg_flushcache(NULL)");
    check(_IOC_TYPE(KT_CFG_ROM_IOC_13) == 'g' && _IOC_NR(KT_CFG_ROM_IOC_13) == 13,
          "KT_CFG_ROM_IOC_13");
    hotplugd_settings settings;
    memset(&settings, 0, sizeof settings);
    check(sizeof settings == 4496, "sizeof(hotplugd_settings)");
    check(load_sysconf(NULL, &settings) == -1, "load_sysconf(NULL)");

    static drive_letter_table letters;
    check(initialize_lock_dletter(&letters, "/etc/sysconfig/system.conf") == 0 &&
              strcmp(letters.config_path, "/etc/sysconfig/system.conf") == 0,
          "initialize_lock_dletter");
    memcpy(settings.drive_name_format, "USB%D", 6);
    memcpy(settings.fallback_name_format, "USB%D", 6);
    memset(&device, 0, sizeof device);
    device.partition = 2;
    check(get_drivename(&letters, &settings, &device, 0, 0) == 0 &&
              strcmp(device.part_info.drive_id, "2") == 0 &&
              strcmp(device.part_info.drive_name, "USB2") == 0,
          "get_drivename");
    device.drive_slot = 2 * DRIVE_SLOT_GROUP + DRIVE_LETTER_COUNT;
    check(release_drivename(&letters, &device) == -1, "release_drivename");

    probe_scan scan = {0, 0, 0};
    probe_scan_line(&scan, "FAT32 file system");
    check(scan.kind == FSTYPE_FAT32, "probe_scan_line");
    char label[8];
    check(probe_clean_label("a:b", label, sizeof label) == 3 && strcmp(label, "a_b") == 0,
          "probe_clean_label");
    check(disk_name_of(16, label, sizeof label) == 0 && strcmp(label, "sdb") == 0, "disk_name_of");
    check(callprog("/bin/true", HOOK_ADD) == -1, "callprog refuses ADD");
    mount_thread_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    check(prepare_partition(&ctx, &device, NULL) == -1 && hotplug_mount(NULL, NULL) == -1 &&
              is_mounted_at("/", "/") == 0 && umount_partition(NULL, 0) == -1 &&
              umount_disk(&ctx, NULL, 1) == -1 && mark_devices_valid(NULL) == -1 &&
              REPLY_SIZE == 128,
          "the mount engine refuses null");
    check(mount_thread_run(&ctx) == -1 && mnt_thread_loop(NULL) == -1,
          "the mount thread refuses null");
    static hotplugd_context daemon;
    check(receive_thread_run(&daemon.receive_args) == -1 && sizeof daemon.settings == 4496,
          "receive_thread_run refuses a null flag");
    return failures == 0 ? 0 : 1;
}

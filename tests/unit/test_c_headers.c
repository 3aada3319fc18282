/* Compiles every library header as C and calls through each, as the appliance's C programs do. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "config/ktcfg.h"
#include "config/ktcfg_rom.h"
#include "config/sysconf.h"
#include "lib/ktdaemon.h"
#include "lib/ktlist.h"
#include "lib/ktmap.h"
#include "lib/ktmnglist.h"
#include "lib/ktutf8.h"

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
    return failures == 0 ? 0 : 1;
}

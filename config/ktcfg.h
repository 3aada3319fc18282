/* ktcfg: INI configuration files shared with the appliance's other programs: lock, read, rewrite.
 */
#ifndef KTCFG_H
#define KTCFG_H

#include "lib/ktlist.h"
#include "lib/ktmap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The lock file every program of the appliance takes before touching a configuration file. */
#define KT_CFG_LOCK_FILE "/var/lock/ktcfg.lock"

/*
 * File format: a line starting with "[" that holds a "]" heads a section named by the text
 * between them; any other line with "=" is a key line, key before the first "=", value after
 * it up to the line feed, nothing trimmed; all other lines are ignored (and kept on rewrite).
 * Keys before the first header belong to no section; the readers take a key's first
 * occurrence. No function here takes the lock: callers bracket read-rewrite sequences with it.
 */

/* Opens (creating it if need be) the lock file and applies flock(`operation`), e.g. LOCK_EX or
 * LOCK_SH | LOCK_NB; the descriptor to hand to kt_cfg_release_lock, or minus errno. */
int kt_cfg_get_lock(int operation);

/* Unlocks and closes a descriptor from kt_cfg_get_lock; close's result. */
int kt_cfg_release_lock(int fd);

/* Value of `key` in `section` (null or "" for the keys before any header) as a new string in
 * *value, released with kt_cfg_release_string. 0; -EINVAL for a null path, key or value;
 * -EIO when the file cannot be opened; -ENOENT when the section or key is missing; -ENOMEM. */
int kt_cfg_get_ini_string(const char *path, const char *section, const char *key, char **value);

/* Frees a string from kt_cfg_get_ini_string; null is ignored. */
void kt_cfg_release_string(char *value);

/*
 * Replaces the value of every key line, in every section, whose key is in `pairs` (a ktmap of
 * ktpair; the first pair with the key wins), by writing a new file in `tmp_dir` and renaming it
 * onto `path`; every other line is copied byte for byte. Keys absent from the file are not
 * added. `tmp_dir` must be on the file system of `path`. 0; -EINVAL for a null argument;
 * minus errno when a file cannot be opened or made or the data not written out; -ENOSPC for a
 * short write; -1 when the rename fails (logged at LOG_CRIT). On failure `path` is untouched
 * and the temporary "conf.tmp.XXXXXX" file may stay behind in `tmp_dir`. The new file has mode
 * 0600.
 */
int kt_cfg_set_strings(const char *path, const char *tmp_dir, const ktmap *pairs);

/* Names of all sections in file order, as a new ktlist of new strings in *list, released with
 * kt_cfg_release_sections. 0; -EINVAL, -EIO (file cannot be opened) or -ENOMEM. */
int kt_cfg_get_sections(const char *path, ktlist **list);

/* Frees every name and the list; null is ignored. */
void kt_cfg_release_sections(ktlist *list);

/* Every key line of `section` (null or "" for the top of the file) as a new ktpair with new
 * strings, in file order, in a new ktmap (compare strcmp) in *pairs, released with
 * kt_cfg_release_section. 0; -EINVAL, -EIO, -ENOENT (no such section) or -ENOMEM. */
int kt_cfg_get_section(const char *path, const char *section, ktmap **pairs);

/* Frees every pair with its strings, then the map; null is ignored. */
void kt_cfg_release_section(ktmap *pairs);

#ifdef __cplusplus
}
#endif

#endif

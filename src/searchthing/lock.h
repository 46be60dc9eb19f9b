// lock: cross-process lock files for the engine.
//
// A lock on PATH is the file "PATH.lock" beside it, created exclusively and
// holding the pid of the process that took it (st_lock_owner). Only
// file systems whose create-exclusive (or, on NFS, link) semantics are trusted
// can be locked; on any other file system every lock attempt fails with -1.
// Breaking a stale lock is guarded by a second lock, "PATH.m".
// No state is kept in the process: any thread may call these, and two
// processes (or two handles) compete only through the file system.
#ifndef VELMOR_SEARCHTHING_LOCK_H
#define VELMOR_SEARCHTHING_LOCK_H

#include <cstdint>

// File system magic numbers (statfs f_type) on which locks are allowed.
enum {
  ST_FS_REISERFS = 0x52654973,
  ST_FS_EXT = 0xEF53,
  ST_FS_VXFS = 0xA501FCF5,
  ST_FS_VZFS = 0x565A4653,
  ST_FS_XFS = 0x58465342,
  ST_FS_NFS = 0x6969,
};

// How a file system of the given magic is locked: 1 by exclusive create,
// 2 by the NFS link protocol, 0 not at all.
int st_lock_fs_kind(int64_t magic);

// 0 acquired, 1 held by someone, -1 error (unsupported file system, name
// longer than the 4096-byte path buffer, I/O failure).
int st_lock(const char* path);

// Removes "PATH.lock". 0 released or absent; 1 for ENOMEM (retry); -1 for
// the other failures of unlink.
int st_unlock(const char* path);

// 1 if "PATH.lock" exists, 0 if not, -1 on another stat error.
int st_islocked(const char* path);

// The pid written in "PATH.lock", or 0 when there is none (no file, an
// empty file, a lock file of another form).
long st_lock_owner(const char* path);

// Retries st_lock every 10 ms while it returns 1, for up to `seconds`.
// Returns the last result of st_lock.
int st_timeout_lock(const char* path, int seconds);

// st_timeout_lock; on timeout tries st_force_unlock with the time before the
// attempt and starts over unless that was negative. Returns the last result.
int st_forced_lock(const char* path, int seconds);

// Breaks the lock on path if its lock file changed before time / 1000
// (milliseconds), under the guard lock "PATH.m". Returns the st_unlock
// result, -1 if the lock is too young or its age can't be read, -2 if the
// name doesn't fit the path buffer.
int st_force_unlock(const char* path, int64_t time);

#endif

// ipcver: the engine's public entry points (st_*).
//
// A handle is direct or forked. A direct handle calls the checked front
// (REAL_st_*, tsidx.h) in this process. A forked handle runs the engine in a
// child process and speaks a private request/reply protocol with it over a
// socket pair, so that a crash of the engine costs only the child: the
// request in flight fails with -1, the dead child is reaped, and the next
// request on the handle starts a fresh child (unsynced postings held by the
// dead child are lost, as they would be with any crash). Closing a forked
// handle opened without ST_OPEN_WRITE parks its child (up to four) for the
// next such handle to reopen on its own directory, so a query over many
// directories forks once; st_set_forkwait_helpers ends the parked children.
//
// Choice: VELMOR_ST_ALWAYS_FORK set -> forked; else VELMOR_ST_NEVER_FORK set
// or flag 4 absent -> direct; else forked. ST_VERBOSE > 0 makes merges print
// their progress to standard error.
//
// Ownership: st_open* return a handle the caller frees with st_close. One
// request at a time per handle (asserted); a handle serves one thread at a
// time. Results: >= 0 success, -1 with errno set, unless stated.
#ifndef VELMOR_SEARCHTHING_IPCVER_H
#define VELMOR_SEARCHTHING_IPCVER_H

#include <stddef.h>
#include <stdint.h>

#include "searchthing/st_types.h"
#include "searchthing/tsidx.h"

typedef struct st_handle {
  st_real_handle* direct;  // layer-2 handle, or null when forked
  int fd;                  // parent's end of the socket pair, -1 when none
  long wait_token;         // what the fork helper returned, for the wait helper
  int in_use;              // 1 for the length of one request
  char* path;              // forked only: to start a new child after a crash
  int flags;
} st_handle;

// Entry of a forked engine: serves requests on descriptor 0, replies on 1.
// block is the 4-byte flags word followed by the NUL-terminated path.
// Returns the child's exit status: 0, 4 failed open, 8 I/O failure.
typedef int (*st_child_main_fn)(const void* block, size_t size);
// Starts child_main(block, size) in a new process with child_fd as its
// descriptors 0 and 1; returns a wait token, or -1 with errno set.
typedef long (*st_fork_helper_fn)(int child_fd, st_child_main_fn child_main, const void* block, size_t size);
// Waits for the process of the token; returns its wait status, 0 if it was
// already reaped (ECHILD), -1 on another failure.
typedef int (*st_wait_helper_fn)(long token);

st_handle* st_open(const char* path);
st_handle* st_open_wflags(const char* path, int flags);
int32_t st_close(st_handle* h);
int32_t st_options(st_handle* h, uint32_t pool, uint32_t terms, uint32_t postings, uint32_t values);
int32_t st_autotune(st_handle* h, uint64_t budget);
int32_t st_put(st_handle* h, const char* term, int32_t time, uint32_t address, uint32_t type, uint32_t source,
               uint32_t source_type, uint32_t host);
// n terms packed one after another, each NUL-terminated, all for the same
// value: the same as n calls of st_put in order, and faster on a direct
// handle. 0, or -1 if any put failed.
int32_t st_put_terms(st_handle* h, const char* terms, size_t n, int32_t time, uint32_t address, uint32_t type,
                     uint32_t source, uint32_t source_type, uint32_t host);
int32_t st_tokenize(st_handle* h, const char* text, int32_t time, uint32_t address, uint32_t type,
                    uint32_t source, uint32_t source_type, uint32_t host);
int32_t st_get(st_handle* h, const char* term, int32_t start, int32_t end, st_tsval* answers, uint32_t capacity,
               uint32_t skip);
int32_t st_query(st_handle* h, const st_query_spec* q, st_tsval* answers, uint32_t capacity, uint32_t skip);
int32_t st_delete(st_handle* h, const char* term, int32_t start, int32_t end, void* ctx, st_delete_callback cb,
                  const st_tsval* filter);
int32_t st_meta(st_handle* h, const char* term, st_meta_answer* result);
int32_t st_enum(st_handle* h, const char* prefix, int which, st_enum_answer* answers, uint32_t capacity);
int32_t st_is_optimized(st_handle* h);
int32_t st_sync(st_handle* h);
// Sets the function the engine calls before it writes a hot slice holding
// values (see st_tsidx.before_write). 0, or -1 with ENOTSUP for a forked
// handle, whose slices are written in another process.
int32_t st_set_before_write(st_handle* h, int (*fn)(void* ctx), void* ctx);
int32_t st_sync_fd(st_handle* h);
int32_t st_optimize(st_handle* h);
int32_t st_optimize_ex(st_handle* h, int force);
void st_set_forkwait_helpers(st_fork_helper_fn fork_helper, st_wait_helper_fn wait_helper);
void EMPTY_st_set_forkwait_helpers(st_fork_helper_fn fork_helper, st_wait_helper_fn wait_helper);
const char* st_version(void);

// The forked engine's main function and its serving loop over any pair of
// descriptors (the loop is what the child runs; exposed for testing).
int st_engine_child_main(const void* block, size_t size);
int st_engine_serve(int in_fd, int out_fd, const void* block, size_t size);

// The default helpers (fork / waitpid).
long st_default_fork_helper(int child_fd, st_child_main_fn child_main, const void* block, size_t size);
int st_default_wait_helper(long token);

#endif

// The public entry points: direct handles call the checked front, forked
// handles speak the protocol below with a child that runs the engine.
//
// Protocol: native byte order over a SOCK_STREAM socket pair; the parent
// sends with MSG_NOSIGNAL. One request in flight per handle. Every request
// starts with a 32-bit command word and ends with the reply record; a few
// commands carry data after the reply (noted per command below). A string
// is sent as a 64-bit length and its bytes without terminator; the length
// all ones stands for a null pointer.
//
// Reply record (8 bytes), also the child's answer to the open:
//   OFFSET SIZE MEANING
//   0      4    result, signed
//   4      4    errno, 0 unless result is negative
//
// DESIGN. A query handle (one opened without ST_OPEN_WRITE) runs its engine
// in a child like any forked handle, but closing it parks the child instead
// of ending it, and the next query handle opened in this process takes a
// parked child and sends it CMD_REOPEN with its own directory rather than
// forking anew. A query over many buckets thus forks once, not once per
// bucket; every request still runs in a child, so a crash still costs one
// request. At most kMaxSpares children wait, each holding only its socket
// (the parent's end is close-on-exec and later default forks close all other
// descriptors), so a parked child ends when its socket closes: when the
// spares are drained (new fork helpers) or this process ends. A spare that
// fails its reopen is reaped and a fresh child started. Writers are never
// parked: their close must wait for the child's sync.
#include "searchthing/ipcver.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <mutex>

enum {
  CMD_OPTIONS = 0,
  CMD_IS_OPTIMIZED = 1,
  CMD_PUT = 2,
  CMD_TOKENIZE = 3,
  CMD_GET = 4,
  CMD_QUERY = 5,
  CMD_DELETE = 6,
  CMD_META = 7,
  CMD_ENUM = 8,
  CMD_SYNC = 9,
  CMD_SYNC_FD = 10,
  CMD_OPTIMIZE = 11,
  CMD_OPTIMIZE_EX = 12,
  CMD_AUTOTUNE = 13,
  CMD_REOPEN = 14,
};

static const uint64_t kNullString = ~static_cast<uint64_t>(0);
// Bounds a child accepts from a request; larger ones get -1 with EINVAL.
static const uint64_t kMaxRequestBytes = 64u << 20;
static const uint32_t kMaxTsvalAnswers = 1u << 24;
static const uint32_t kMaxEnumAnswers = 1u << 16;

static st_fork_helper_fn g_fork_helper = st_default_fork_helper;
static st_wait_helper_fn g_wait_helper = st_default_wait_helper;

// ---------------------------------------------------------------- I/O

// Sends all bytes; falls back to write() when fd isn't a socket.
static int send_all(int fd, const void* buf, size_t n) {
  const char* p = static_cast<const char*>(buf);
  while (n > 0) {
    ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w < 0 && errno == ENOTSOCK) w = write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (w == 0) {
      errno = EPIPE;
      return -1;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return 0;
}

// Reads exactly n bytes; a closed peer is -1 with ECONNRESET.
static int recv_all(int fd, void* buf, size_t n) {
  char* p = static_cast<char*>(buf);
  while (n > 0) {
    ssize_t r = read(fd, p, n);
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (r == 0) {
      errno = ECONNRESET;
      return -1;
    }
    p += r;
    n -= static_cast<size_t>(r);
  }
  return 0;
}

struct st_reply {
  int32_t result;
  uint32_t err;
};

// ---------------------------------------------------------------- helpers

long st_default_fork_helper(int child_fd, st_child_main_fn child_main, const void* block, size_t size) {
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid > 0) return static_cast<long>(pid);
  int fd = child_fd;
  if (fd < 3) {
    fd = fcntl(child_fd, F_DUPFD, 3);
    if (fd < 0) _exit(99);
  }
  // Keep only the socket and standard error: the child must hold no other
  // handle's socket, or closing that handle would not end its child.
  close(0);
  close(1);
  if (fd > 3 && close_range(3, static_cast<unsigned>(fd) - 1, 0) != 0) _exit(99);
  if (close_range(static_cast<unsigned>(fd) + 1, ~0u, 0) != 0) _exit(99);
  if (dup2(fd, 0) != 0 || dup2(fd, 1) != 1) _exit(99);
  close(fd);
  _exit(child_main(block, size));
}

int st_default_wait_helper(long token) {
  int status = 0;
  for (;;) {
    pid_t r = waitpid(static_cast<pid_t>(token), &status, 0);
    if (r >= 0) return status;
    if (errno == EINTR) continue;
    if (errno == ECHILD) return 0;
    return -1;
  }
}

// ---------------------------------------------------------------- spares

namespace {
const int kMaxSpares = 4;
struct spare_child {
  int fd;
  long token;
};
std::mutex g_spare_mutex;
spare_child g_spares[kMaxSpares];
int g_nspares = 0;
}  // namespace

static bool take_spare(spare_child* out) {
  std::lock_guard<std::mutex> l(g_spare_mutex);
  if (g_nspares == 0) return false;
  *out = g_spares[--g_nspares];
  return true;
}

static bool park_spare(int fd, long token) {
  std::lock_guard<std::mutex> l(g_spare_mutex);
  if (g_nspares == kMaxSpares) return false;
  g_spares[g_nspares++] = {fd, token};
  return true;
}

// Ends every parked child and reaps it with the helper that started it.
static void drain_spares(st_wait_helper_fn wait_helper) {
  spare_child c;
  while (take_spare(&c)) {
    close(c.fd);
    if (c.token > 0) wait_helper(c.token);
  }
}

void st_set_forkwait_helpers(st_fork_helper_fn fork_helper, st_wait_helper_fn wait_helper) {
  drain_spares(g_wait_helper);
  g_fork_helper = fork_helper ? fork_helper : st_default_fork_helper;
  g_wait_helper = wait_helper ? wait_helper : st_default_wait_helper;
}

void EMPTY_st_set_forkwait_helpers(st_fork_helper_fn, st_wait_helper_fn) {}

const char* st_version(void) { return REAL_st_version(); }

// ---------------------------------------------------------------- parent

static void thing_lock(st_handle* h) {
  assert(h->in_use == 0);
  h->in_use = 1;
}

static void thing_unlock(st_handle* h) {
  assert(h->in_use == 1);
  h->in_use = 0;
}

// The child died or the stream broke: reap it; the next request starts anew.
static void child_lost(st_handle* h) {
  int saved = errno;
  if (h->fd >= 0) close(h->fd);
  h->fd = -1;
  if (h->wait_token > 0) g_wait_helper(h->wait_token);
  h->wait_token = -1;
  errno = saved;
}

// Open block handed to the child:
//   OFFSET SIZE MEANING
//   0      4    open flags, flag 4 cleared
//   4      n+1  directory path with its NUL
static int start_child(st_handle* h) {
  size_t plen = strlen(h->path);
  size_t size = 4 + plen + 1;
  char* block = static_cast<char*>(malloc(size));
  if (!block) return -1;
  uint32_t flags = static_cast<uint32_t>(h->flags) & ~static_cast<uint32_t>(ST_OPEN_FORK);
  memcpy(block, &flags, 4);
  memcpy(block + 4, h->path, plen + 1);

  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
    free(block);
    return -1;
  }
  long token = g_fork_helper(sv[1], st_engine_child_main, block, size);
  int saved = errno;
  close(sv[1]);
  free(block);
  if (token < 0) {
    close(sv[0]);
    errno = saved;
    return -1;
  }
  h->fd = sv[0];
  h->wait_token = token;
  st_reply r;
  if (recv_all(h->fd, &r, sizeof r) != 0) {
    child_lost(h);
    return -1;
  }
  if (r.result != 0) {
    child_lost(h);
    errno = static_cast<int>(r.err);
    return -1;
  }
  return 0;
}

static int ensure_child(st_handle* h) { return h->fd >= 0 ? 0 : start_child(h); }

static int send_string(st_handle* h, const char* s) {
  uint64_t len = s ? strlen(s) : kNullString;
  if (send_all(h->fd, &len, sizeof len) != 0) return -1;
  return s && len ? send_all(h->fd, s, len) : 0;
}

static int read_reply(st_handle* h, int32_t* result) {
  st_reply r;
  if (recv_all(h->fd, &r, sizeof r) != 0) return -1;
  *result = r.result;
  if (r.result < 0) errno = static_cast<int>(r.err);
  return 0;
}

// Reopen request, which a parked child answers by closing its directory and
// opening the one given:
//   OFFSET SIZE MEANING
//   0      4    command 14
//   4      4    open flags, flag 4 cleared
//   8      ...  directory path as a string
// 0 with h attached to a parked child, -1 when none was there or every one
// tried failed (each reaped).
static int reopen_spare(st_handle* h) {
  spare_child c;
  uint32_t req[2] = {CMD_REOPEN, static_cast<uint32_t>(h->flags) & ~static_cast<uint32_t>(ST_OPEN_FORK)};
  while (take_spare(&c)) {
    h->fd = c.fd;
    h->wait_token = c.token;
    int32_t result = -1;
    if (send_all(h->fd, req, sizeof req) == 0 && send_string(h, h->path) == 0 && read_reply(h, &result) == 0 &&
        result == 0)
      return 0;
    child_lost(h);
  }
  return -1;
}

// A request of a fixed head and an optional string, answered by the reply
// alone. Returns the child's result, or -1 with errno if the child is lost.
static int32_t simple_request(st_handle* h, const void* head, size_t head_size, int with_string, const char* s) {
  if (ensure_child(h) != 0) return -1;
  int32_t result = -1;
  if (send_all(h->fd, head, head_size) != 0 || (with_string && send_string(h, s) != 0) ||
      read_reply(h, &result) != 0) {
    child_lost(h);
    return -1;
  }
  return result;
}

st_handle* st_open(const char* path) { return st_open_wflags(path, 3); }

st_handle* st_open_wflags(const char* path, int flags) {
  if (!path) {
    errno = EINVAL;
    return nullptr;
  }
  int forked;
  if (getenv("VELMOR_ST_ALWAYS_FORK")) {
    forked = 1;
  } else if (getenv("VELMOR_ST_NEVER_FORK") || !(flags & ST_OPEN_FORK)) {
    forked = 0;
  } else {
    forked = 1;
  }
  st_handle* h = static_cast<st_handle*>(calloc(1, sizeof(st_handle)));
  if (!h) return nullptr;
  h->fd = -1;
  h->wait_token = -1;
  h->flags = flags;
  if (!forked) {
    h->direct = REAL_st_open_wflags(path, flags & ~ST_OPEN_FORK);
    if (!h->direct) {
      int saved = errno;
      free(h);
      errno = saved;
      return nullptr;
    }
    return h;
  }
  h->path = strdup(path);
  if (h->path && !(flags & ST_OPEN_WRITE) && reopen_spare(h) == 0) return h;
  if (!h->path || start_child(h) != 0) {
    int saved = errno;
    free(h->path);
    free(h);
    errno = saved;
    return nullptr;
  }
  return h;
}

int32_t st_close(st_handle* h) {
  if (!h) {
    errno = ENOENT;
    return -1;
  }
  thing_lock(h);
  int32_t rc = 0;
  if (h->direct) {
    rc = REAL_st_close(h->direct);
  } else if (h->fd >= 0 && !(h->flags & ST_OPEN_WRITE) && park_spare(h->fd, h->wait_token)) {
    // A query child waits for the next query handle (see DESIGN).
  } else if (h->fd >= 0) {
    // Closing our end ends the child's loop; it syncs, closes and exits.
    close(h->fd);
    int status = g_wait_helper(h->wait_token);
    if (status != 0) {
      rc = -1;
      errno = EIO;
    }
  }
  int saved = errno;
  thing_unlock(h);
  free(h->path);
  free(h);
  errno = saved;
  return rc;
}

int32_t st_options(st_handle* h, uint32_t pool, uint32_t terms, uint32_t postings, uint32_t values) {
  if (h->direct) return REAL_st_options(h->direct, pool, terms, postings, values);
  // OFFSET SIZE MEANING: 0 4 command; 4 4 term pool bytes; 8 4 maximum
  // terms; 12 4 maximum postings; 16 4 maximum values
  uint32_t req[5] = {CMD_OPTIONS, pool, terms, postings, values};
  thing_lock(h);
  int32_t rc = simple_request(h, req, sizeof req, 0, nullptr);
  thing_unlock(h);
  return rc;
}

int32_t st_autotune(st_handle* h, uint64_t budget) {
  if (h->direct) return REAL_st_autotune(h->direct, budget);
  // OFFSET SIZE MEANING: 0 4 command; 4 8 budget in bytes
  unsigned char req[12];
  uint32_t cmd = CMD_AUTOTUNE;
  memcpy(req, &cmd, 4);
  memcpy(req + 4, &budget, 8);
  thing_lock(h);
  int32_t rc = simple_request(h, req, sizeof req, 0, nullptr);
  thing_unlock(h);
  return rc;
}

// Put / tokenize request:
//   OFFSET SIZE MEANING
//   0      4    command 2 (put) or 3 (tokenize)
//   4      4    time, signed
//   8      4    address
//   12     4    event type
//   16     4    source
//   20     4    source type
//   24     4    host
//   28     8    term length (all ones: null)
//   36     n    term bytes
static int32_t put_request(st_handle* h, uint32_t cmd, const char* term, int32_t time, uint32_t address,
                           uint32_t type, uint32_t source, uint32_t source_type, uint32_t host) {
  uint32_t req[7] = {cmd, static_cast<uint32_t>(time), address, type, source, source_type, host};
  thing_lock(h);
  int32_t rc = simple_request(h, req, sizeof req, 1, term);
  thing_unlock(h);
  return rc;
}

int32_t st_put(st_handle* h, const char* term, int32_t time, uint32_t address, uint32_t type, uint32_t source,
               uint32_t source_type, uint32_t host) {
  if (h->direct) return REAL_st_put(h->direct, term, time, address, type, source, source_type, host);
  if (!term) {
    errno = EINVAL;
    return -1;
  }
  return put_request(h, CMD_PUT, term, time, address, type, source, source_type, host);
}

int32_t st_put_terms(st_handle* h, const char* terms, size_t n, int32_t time, uint32_t address, uint32_t type,
                     uint32_t source, uint32_t source_type, uint32_t host) {
  if (h->direct) return REAL_st_put_terms(h->direct, terms, n, time, address, type, source, source_type, host);
  // A forked engine takes them one request each.
  int32_t result = 0;
  for (size_t i = 0; i < n; ++i) {
    if (st_put(h, terms, time, address, type, source, source_type, host) != 0) result = -1;
    terms += strlen(terms) + 1;
  }
  return result;
}

int32_t st_tokenize(st_handle* h, const char* text, int32_t time, uint32_t address, uint32_t type,
                    uint32_t source, uint32_t source_type, uint32_t host) {
  if (h->direct) return REAL_st_tokenize(h->direct, text, time, address, type, source, source_type, host);
  if (!text) {
    errno = EINVAL;
    return -1;
  }
  return put_request(h, CMD_TOKENIZE, text, time, address, type, source, source_type, host);
}

// A child that announces more answers than asked for is broken: its stream
// is dropped rather than read past the caller's array (debug builds abort).
static bool answers_overflow(st_handle* h, int32_t count, uint32_t capacity) {
  (void)h;
  assert(count <= (int)capacity && "br.return_val <= (int) capacity");
  if (static_cast<uint32_t>(count) <= capacity) return false;
  errno = EPROTO;
  return true;
}

// Reads `count` answers of `size` bytes after a reply.
static int read_answers(st_handle* h, void* answers, int32_t count, size_t size) {
  if (count <= 0) return 0;
  return recv_all(h->fd, answers, static_cast<size_t>(count) * size);
}

// Get request:
//   OFFSET SIZE MEANING
//   0      4    command 4
//   4      4    start, signed
//   8      4    end, signed
//   12     4    capacity
//   16     4    skip
//   20     8    term length (all ones: null)
//   28     n    term bytes
// After the reply: result * 24 bytes of st_tsval.
int32_t st_get(st_handle* h, const char* term, int32_t start, int32_t end, st_tsval* answers, uint32_t capacity,
               uint32_t skip) {
  if (h->direct) return REAL_st_get(h->direct, term, start, end, answers, capacity, skip);
  if (!answers || capacity == 0 || start > end) return 0;
  uint32_t req[5] = {CMD_GET, static_cast<uint32_t>(start), static_cast<uint32_t>(end), capacity, skip};
  thing_lock(h);
  int32_t rc = simple_request(h, req, sizeof req, 1, term);
  if (rc > 0 && (answers_overflow(h, rc, capacity) || read_answers(h, answers, rc, sizeof(st_tsval)) != 0)) {
    child_lost(h);
    rc = -1;
  }
  thing_unlock(h);
  return rc;
}

// Query request:
//   OFFSET SIZE MEANING
//   0      4    command 5
//   4      4    start, signed
//   8      4    end, signed
//   12     4    capacity (0: count only, no answers follow)
//   16     4    skip
//   20     36   nine list counts: AND, AND prefix, AND suffix, OR, OR prefix,
//               OR suffix, NOT, NOT prefix, NOT suffix
//   56     4    reserved, 0
//   60     8    total bytes of the strings
//   68     n    the strings with their NULs, lists in the order above
// After the reply: result * 24 bytes of st_tsval when capacity is above 0.
static const st_strlist* wire_list(const st_query_spec* q, int i) {
  const st_strlist* order[9] = {&q->and_keywords, &q->and_prefixes, &q->and_suffixes,
                                &q->or_keywords,  &q->or_prefixes,  &q->or_suffixes,
                                &q->not_keywords, &q->not_prefixes, &q->not_suffixes};
  return order[i];
}

int32_t st_query(st_handle* h, const st_query_spec* q, st_tsval* answers, uint32_t capacity, uint32_t skip) {
  if (h->direct) return REAL_st_query(h->direct, q, answers, capacity, skip);
  if (!q || (capacity > 0 && !answers)) {
    errno = EINVAL;
    return -1;
  }
  if (q->start > q->end) return 0;
  unsigned char head[68];
  memset(head, 0, sizeof head);
  uint32_t w[4] = {CMD_QUERY, static_cast<uint32_t>(q->start), static_cast<uint32_t>(q->end), capacity};
  memcpy(head, w, 16);
  memcpy(head + 16, &skip, 4);
  uint64_t total = 0;
  for (int i = 0; i < 9; ++i) {
    const st_strlist* l = wire_list(q, i);
    uint32_t count = l->strs ? l->count : 0;
    memcpy(head + 20 + 4 * i, &count, 4);
    for (uint32_t j = 0; j < count; ++j) {
      if (!l->strs[j]) {
        errno = EINVAL;
        return -1;
      }
      total += strlen(l->strs[j]) + 1;
    }
  }
  memcpy(head + 60, &total, 8);
  thing_lock(h);
  int32_t rc = -1;
  int ok = ensure_child(h) == 0;
  if (ok) {
    ok = send_all(h->fd, head, sizeof head) == 0;
    for (int i = 0; ok && i < 9; ++i) {
      const st_strlist* l = wire_list(q, i);
      for (uint32_t j = 0; ok && l->strs && j < l->count; ++j) {
        ok = send_all(h->fd, l->strs[j], strlen(l->strs[j]) + 1) == 0;
      }
    }
    ok = ok && read_reply(h, &rc) == 0;
    if (ok && rc > 0 && capacity > 0) {
      ok = !answers_overflow(h, rc, capacity) && read_answers(h, answers, rc, sizeof(st_tsval)) == 0;
    }
    if (!ok) {
      child_lost(h);
      rc = -1;
    }
  }
  thing_unlock(h);
  return rc;
}

// Delete request:
//   OFFSET SIZE MEANING
//   0      4    command 6
//   4      4    start, signed
//   8      4    end, signed
//   12     24   filter st_tsval
//   36     8    term length (all ones: null)
//   44     n    term bytes
// The child then sends 28-byte frames:
//   OFFSET SIZE MEANING
//   0      4    end flag: 0 a value follows for the callback, 1 last frame
//   4      24   st_tsval (zero in the last frame)
// and after the last frame the reply.
int32_t st_delete(st_handle* h, const char* term, int32_t start, int32_t end, void* ctx, st_delete_callback cb,
                  const st_tsval* filter) {
  if (h->direct) return REAL_st_delete(h->direct, term, start, end, ctx, cb, filter);
  unsigned char head[36];
  uint32_t w[3] = {CMD_DELETE, static_cast<uint32_t>(start), static_cast<uint32_t>(end)};
  memcpy(head, w, 12);
  st_tsval none;
  memset(&none, 0, sizeof none);
  memcpy(head + 12, filter ? filter : &none, sizeof(st_tsval));
  thing_lock(h);
  int32_t rc = -1;
  if (ensure_child(h) == 0) {
    int ok = send_all(h->fd, head, sizeof head) == 0 && send_string(h, term) == 0;
    while (ok) {
      unsigned char frame[28];
      ok = recv_all(h->fd, frame, sizeof frame) == 0;
      if (!ok) break;
      uint32_t flag;
      memcpy(&flag, frame, 4);
      if (flag != 0) break;
      st_tsval v;
      memcpy(&v, frame + 4, sizeof v);
      if (cb) cb(ctx, v);
    }
    ok = ok && read_reply(h, &rc) == 0;
    if (!ok) {
      child_lost(h);
      rc = -1;
    }
  }
  thing_unlock(h);
  return rc;
}

// Meta request:
//   OFFSET SIZE MEANING
//   0      4    command 7
//   4      8    term length (all ones: null, the whole index)
//   12     n    term bytes
// After the reply: 12 bytes, count, earliest, latest (signed 32-bit each).
int32_t st_meta(st_handle* h, const char* term, st_meta_answer* result) {
  if (h->direct) return REAL_st_meta(h->direct, term, result);
  if (!result) {
    errno = EINVAL;
    return -1;
  }
  uint32_t cmd = CMD_META;
  thing_lock(h);
  int32_t rc = simple_request(h, &cmd, sizeof cmd, 1, term);
  if (h->fd >= 0 && recv_all(h->fd, result, sizeof *result) != 0) {
    child_lost(h);
    rc = -1;
  }
  thing_unlock(h);
  return rc;
}

// Enum request:
//   OFFSET SIZE MEANING
//   0      4    command 8
//   4      4    which lexicon: 1 forward, 2 reversed
//   8      4    capacity
//   12     8    prefix length (all ones: null)
//   20     n    prefix bytes
// After the reply: result * 2052 bytes of st_enum_answer.
int32_t st_enum(st_handle* h, const char* prefix, int which, st_enum_answer* answers, uint32_t capacity) {
  if (h->direct) return REAL_st_enum(h->direct, prefix, which, answers, capacity);
  if (!answers || capacity == 0) return 0;
  uint32_t req[3] = {CMD_ENUM, static_cast<uint32_t>(which), capacity};
  thing_lock(h);
  int32_t rc = simple_request(h, req, sizeof req, 1, prefix);
  if (rc > 0 && (answers_overflow(h, rc, capacity) || read_answers(h, answers, rc, sizeof(st_enum_answer)) != 0)) {
    child_lost(h);
    rc = -1;
  }
  thing_unlock(h);
  return rc;
}

// Commands made of the command word alone (1, 9, 10, 11), or with one
// 32-bit flag (12: OFFSET 4 SIZE 4 force flag).
static int32_t word_request(st_handle* h, uint32_t cmd, int with_flag, uint32_t flag) {
  uint32_t req[2] = {cmd, flag};
  thing_lock(h);
  int32_t rc = simple_request(h, req, with_flag ? 8 : 4, 0, nullptr);
  thing_unlock(h);
  return rc;
}

int32_t st_is_optimized(st_handle* h) {
  return h->direct ? REAL_st_is_optimized(h->direct) : word_request(h, CMD_IS_OPTIMIZED, 0, 0);
}
int32_t st_sync(st_handle* h) { return h->direct ? REAL_st_sync(h->direct) : word_request(h, CMD_SYNC, 0, 0); }

int32_t st_set_before_write(st_handle* h, int (*fn)(void* ctx), void* ctx) {
  if (!h->direct) {
    errno = ENOTSUP;
    return -1;
  }
  return REAL_st_set_before_write(h->direct, fn, ctx);
}
int32_t st_sync_fd(st_handle* h) {
  return h->direct ? REAL_st_sync_fd(h->direct) : word_request(h, CMD_SYNC_FD, 0, 0);
}
int32_t st_optimize(st_handle* h) {
  return h->direct ? REAL_st_optimize(h->direct) : word_request(h, CMD_OPTIMIZE, 0, 0);
}
int32_t st_optimize_ex(st_handle* h, int force) {
  return h->direct ? REAL_st_optimize_ex(h->direct, force)
                   : word_request(h, CMD_OPTIMIZE_EX, 1, static_cast<uint32_t>(force));
}

// ---------------------------------------------------------------- child

// Buffered reader of the request stream: reads of up to 128 bytes go
// through the buffer, longer ones straight into their destination.
struct st_ipc_reader {
  int fd;
  size_t pos, len;
  unsigned char buf[128];
};

static int rd(st_ipc_reader* r, void* dst, size_t n) {
  unsigned char* d = static_cast<unsigned char*>(dst);
  size_t have = r->len - r->pos;
  size_t take = have < n ? have : n;
  memcpy(d, r->buf + r->pos, take);
  r->pos += take;
  d += take;
  n -= take;
  if (n == 0) return 0;
  if (n > sizeof r->buf) return recv_all(r->fd, d, n);
  r->pos = r->len = 0;
  while (r->len < n) {
    ssize_t got = read(r->fd, r->buf + r->len, sizeof r->buf - r->len);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return -1;
    r->len += static_cast<size_t>(got);
  }
  memcpy(d, r->buf, n);
  r->pos = n;
  return 0;
}

// Reads a string sent by send_string into *out (malloc'd, or null for the
// null marker). 0 ok, -1 stream failure, -2 too long.
static int rd_string(st_ipc_reader* r, char** out) {
  uint64_t len;
  *out = nullptr;
  if (rd(r, &len, sizeof len) != 0) return -1;
  if (len == kNullString) return 0;
  if (len > kMaxRequestBytes) return -2;
  char* s = static_cast<char*>(malloc(len + 1));
  if (!s) return -2;
  if (len && rd(r, s, len) != 0) {
    free(s);
    return -1;
  }
  s[len] = '\0';
  *out = s;
  return 0;
}

static int send_reply(int out, int32_t result, int err) {
  st_reply r = {result, result < 0 ? static_cast<uint32_t>(err) : 0u};
  return send_all(out, &r, sizeof r);
}

struct delete_sender {
  int out;
  int failed;
  int err;
};

static void send_deleted(void* ctx, st_tsval value) {
  delete_sender* ds = static_cast<delete_sender*>(ctx);
  if (ds->failed) return;
  unsigned char frame[28];
  uint32_t flag = 0;
  memcpy(frame, &flag, 4);
  memcpy(frame + 4, &value, sizeof value);
  if (send_all(ds->out, frame, sizeof frame) != 0) {
    ds->failed = 1;
    ds->err = errno;
  }
}

// Splits the string block of a query into the nine lists of spec. The
// pointer arrays come from one calloc returned in *ptrs. 0, or -1 when the
// counts and the strings don't agree.
static int split_query_strings(char* strs, uint64_t total, const uint32_t counts[9], st_query_spec* q,
                               char*** ptrs) {
  uint64_t sum = 0;
  for (int i = 0; i < 9; ++i) sum += counts[i];
  if (sum > total) return -1;
  char** all = static_cast<char**>(calloc(sum ? sum : 1, sizeof(char*)));
  if (!all) return -1;
  *ptrs = all;
  st_strlist* lists[9] = {&q->and_keywords, &q->and_prefixes, &q->and_suffixes,
                          &q->or_keywords,  &q->or_prefixes,  &q->or_suffixes,
                          &q->not_keywords, &q->not_prefixes, &q->not_suffixes};
  uint64_t pos = 0;
  char** next = all;
  for (int i = 0; i < 9; ++i) {
    lists[i]->strs = counts[i] ? next : nullptr;
    lists[i]->count = counts[i];
    for (uint32_t j = 0; j < counts[i]; ++j) {
      if (pos >= total) return -1;
      char* s = strs + pos;
      char* nul = static_cast<char*>(memchr(s, '\0', total - pos));
      if (!nul) return -1;
      *next++ = s;
      pos = static_cast<uint64_t>(nul - strs) + 1;
    }
  }
  return pos == total ? 0 : -1;
}

// Serves one request whose command word is cmd. Returns 0 to go on, 1 to
// end normally, -1 when the stream failed.
static int serve_one(st_real_handle* h, st_ipc_reader* r, int out, uint32_t cmd) {
  int32_t rc = -1;
  errno = 0;
  switch (cmd) {
    case CMD_OPTIONS: {
      uint32_t a[4];
      if (rd(r, a, sizeof a) != 0) return -1;
      rc = REAL_st_options(h, a[0], a[1], a[2], a[3]);
      return send_reply(out, rc, errno);
    }
    case CMD_IS_OPTIMIZED:
      rc = REAL_st_is_optimized(h);
      return send_reply(out, rc, errno);
    case CMD_PUT:
    case CMD_TOKENIZE: {
      uint32_t a[6];
      char* term;
      if (rd(r, a, sizeof a) != 0) return -1;
      int s = rd_string(r, &term);
      if (s == -1) return -1;
      if (s == -2) {
        rc = -1;
        errno = EINVAL;
      } else if (cmd == CMD_PUT) {
        rc = REAL_st_put(h, term, static_cast<int32_t>(a[0]), a[1], a[2], a[3], a[4], a[5]);
      } else {
        rc = REAL_st_tokenize(h, term, static_cast<int32_t>(a[0]), a[1], a[2], a[3], a[4], a[5]);
      }
      free(term);
      // A too-long string was not read off the stream: end after replying.
      if (send_reply(out, rc, errno) != 0) return -1;
      return s == -2 ? 1 : 0;
    }
    case CMD_GET: {
      uint32_t a[4];
      char* term;
      if (rd(r, a, sizeof a) != 0) return -1;
      int s = rd_string(r, &term);
      if (s == -1) return -1;
      uint32_t capacity = a[2];
      st_tsval* answers = nullptr;
      if (s == -2 || capacity > kMaxTsvalAnswers) {
        errno = EINVAL;
      } else if (capacity && !(answers = static_cast<st_tsval*>(malloc(capacity * sizeof(st_tsval))))) {
        errno = ENOMEM;
      } else {
        rc = REAL_st_get(h, term, static_cast<int32_t>(a[0]), static_cast<int32_t>(a[1]), answers, capacity, a[3]);
      }
      int io = send_reply(out, rc, errno);
      if (io == 0 && rc > 0) io = send_all(out, answers, static_cast<size_t>(rc) * sizeof(st_tsval));
      free(answers);
      free(term);
      return io != 0 ? -1 : (s == -2 ? 1 : 0);
    }
    case CMD_QUERY: {
      unsigned char head[64];
      if (rd(r, head, sizeof head) != 0) return -1;
      uint32_t w[4], counts[9];
      uint64_t total;
      memcpy(w, head, 16);
      memcpy(counts, head + 16, 36);
      memcpy(&total, head + 56, 8);
      if (total > kMaxRequestBytes) {
        send_reply(out, -1, EINVAL);
        return 1;
      }
      char* strs = static_cast<char*>(malloc(total ? total : 1));
      if (!strs) {
        send_reply(out, -1, ENOMEM);
        return 1;
      }
      if (total && rd(r, strs, total) != 0) {
        free(strs);
        return -1;
      }
      st_query_spec q;
      st_query_init(&q);
      q.start = static_cast<int32_t>(w[0]);
      q.end = static_cast<int32_t>(w[1]);
      uint32_t capacity = w[2];
      char** ptrs = nullptr;
      st_tsval* answers = nullptr;
      if (split_query_strings(strs, total, counts, &q, &ptrs) != 0 || capacity > kMaxTsvalAnswers) {
        errno = EINVAL;
      } else if (capacity && !(answers = static_cast<st_tsval*>(malloc(capacity * sizeof(st_tsval))))) {
        errno = ENOMEM;
      } else {
        rc = REAL_st_query(h, &q, answers, capacity, w[3]);
      }
      int io = send_reply(out, rc, errno);
      if (io == 0 && rc > 0 && capacity > 0) io = send_all(out, answers, static_cast<size_t>(rc) * sizeof(st_tsval));
      free(answers);
      free(ptrs);
      free(strs);
      return io != 0 ? -1 : 0;
    }
    case CMD_DELETE: {
      unsigned char head[32];
      char* term;
      if (rd(r, head, sizeof head) != 0) return -1;
      int s = rd_string(r, &term);
      if (s == -1) return -1;
      int32_t w[2];
      st_tsval filter;
      memcpy(w, head, 8);
      memcpy(&filter, head + 8, sizeof filter);
      delete_sender ds = {out, 0, 0};
      if (s == -2) {
        errno = EINVAL;
      } else {
        rc = REAL_st_delete(h, term, w[0], w[1], &ds, send_deleted, &filter);
      }
      int err = errno;
      free(term);
      if (ds.failed) return -1;
      unsigned char frame[28];
      memset(frame, 0, sizeof frame);
      uint32_t flag = 1;
      memcpy(frame, &flag, 4);
      if (send_all(out, frame, sizeof frame) != 0 || send_reply(out, rc, err) != 0) return -1;
      return s == -2 ? 1 : 0;
    }
    case CMD_META: {
      char* term;
      int s = rd_string(r, &term);
      if (s == -1) return -1;
      st_meta_answer m;
      memset(&m, 0, sizeof m);
      if (s == -2) {
        errno = EINVAL;
      } else {
        rc = REAL_st_meta(h, term, &m);
      }
      free(term);
      if (send_reply(out, rc, errno) != 0 || send_all(out, &m, sizeof m) != 0) return -1;
      return s == -2 ? 1 : 0;
    }
    case CMD_ENUM: {
      uint32_t a[2];
      char* prefix;
      if (rd(r, a, sizeof a) != 0) return -1;
      int s = rd_string(r, &prefix);
      if (s == -1) return -1;
      uint32_t capacity = a[1];
      st_enum_answer* answers = nullptr;
      if (s == -2 || capacity > kMaxEnumAnswers) {
        errno = EINVAL;
      } else if (capacity &&
                 !(answers = static_cast<st_enum_answer*>(malloc(capacity * sizeof(st_enum_answer))))) {
        errno = ENOMEM;
      } else {
        rc = REAL_st_enum(h, prefix, static_cast<int>(a[0]), answers, capacity);
      }
      int io = send_reply(out, rc, errno);
      if (io == 0 && rc > 0) io = send_all(out, answers, static_cast<size_t>(rc) * sizeof(st_enum_answer));
      free(answers);
      free(prefix);
      return io != 0 ? -1 : (s == -2 ? 1 : 0);
    }
    case CMD_SYNC:
      rc = REAL_st_sync(h);
      return send_reply(out, rc, errno);
    case CMD_SYNC_FD:
      rc = REAL_st_sync_fd(h);
      return send_reply(out, rc, errno);
    case CMD_OPTIMIZE:
      rc = REAL_st_optimize(h);
      return send_reply(out, rc, errno);
    case CMD_OPTIMIZE_EX: {
      uint32_t force;
      if (rd(r, &force, sizeof force) != 0) return -1;
      rc = REAL_st_optimize_ex(h, static_cast<int>(force));
      return send_reply(out, rc, errno);
    }
    case CMD_AUTOTUNE: {
      uint64_t budget;
      if (rd(r, &budget, sizeof budget) != 0) return -1;
      rc = REAL_st_autotune(h, budget);
      return send_reply(out, rc, errno);
    }
    default:
      send_reply(out, -1, 8);
      return 1;
  }
}

int st_engine_serve(int in_fd, int out_fd, const void* block, size_t size) {
  const char* b = static_cast<const char*>(block);
  if (size < 5 || b[size - 1] != '\0') {
    send_reply(out_fd, -1, EINVAL);
    return 4;
  }
  uint32_t flags;
  memcpy(&flags, b, 4);
  st_real_handle* h = REAL_st_open_wflags(b + 4, static_cast<int>(flags));
  if (send_reply(out_fd, h ? 0 : -1, errno) != 0 || !h) {
    if (h) REAL_st_close(h);
    return h ? 8 : 4;
  }
  st_ipc_reader r;
  r.fd = in_fd;
  r.pos = r.len = 0;
  int state = 0;
  for (;;) {
    uint32_t cmd;
    if (rd(&r, &cmd, sizeof cmd) != 0) break;  // the parent closed: done
    if (cmd == CMD_REOPEN) {
      // A parked child given to a new handle: a directory it can't open
      // ends it (the parent starts a fresh child, which reports why).
      uint32_t open_flags;
      char* path = nullptr;
      if (rd(&r, &open_flags, sizeof open_flags) != 0 || rd_string(&r, &path) != 0 || !path) {
        free(path);
        send_reply(out_fd, -1, EINVAL);
        state = 1;
        break;
      }
      int closed = REAL_st_close(h);
      h = REAL_st_open_wflags(path, static_cast<int>(open_flags));
      int err = errno;
      free(path);
      if (closed < 0 || !h) {
        send_reply(out_fd, -1, closed < 0 ? EIO : err);
        if (h) REAL_st_close(h);
        return closed < 0 ? 8 : 4;
      }
      if (send_reply(out_fd, 0, 0) != 0) {
        state = -1;
        break;
      }
      continue;
    }
    state = serve_one(h, &r, out_fd, cmd);
    if (state != 0) break;
  }
  int closed = REAL_st_close(h);
  if (state < 0 || closed < 0) return 8;
  return 0;
}

int st_engine_child_main(const void* block, size_t size) { return st_engine_serve(0, 1, block, size); }

#include "searchthing/extio.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

ssize_t writeall(int fd, const void* buf, size_t nbyte) {
  const char* p = static_cast<const char*>(buf);
  size_t done = 0;
  while (done < nbyte) {
    ssize_t n = write(fd, p + done, nbyte - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) {
      errno = EIO;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

ssize_t readall(int fd, void* buf, size_t nbyte) {
  char* p = static_cast<char*>(buf);
  size_t done = 0;
  while (done < nbyte) {
    ssize_t n = read(fd, p + done, nbyte - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// Checked in every build: a short write here means a corrupt slice file.
void writeall_or_assert(int fd, const void* buf, size_t nbyte) {
  ssize_t nwritten = writeall(fd, buf, nbyte);
  if ((size_t)nwritten != nbyte) {
    fprintf(stderr, "writeall_or_assert: assertion \"(size_t)nwritten == nbyte\" failed: %s\n", strerror(errno));
    abort();
  }
}

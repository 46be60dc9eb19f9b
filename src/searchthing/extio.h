// extio: whole-buffer reads and writes on a descriptor for the engine.
// The engine never wants a partial transfer: these loop over EINTR and short
// counts. Callers own their descriptors and buffers. Any thread may call them
// on a descriptor it alone uses.
#ifndef VELMOR_SEARCHTHING_EXTIO_H
#define VELMOR_SEARCHTHING_EXTIO_H

#include <sys/types.h>

#include <cstddef>

// Writes all nbyte bytes. Returns nbyte, or -1 with errno set (a descriptor
// that accepts 0 bytes gives -1 with EIO).
ssize_t writeall(int fd, const void* buf, size_t nbyte);

// Reads until nbyte bytes have arrived or end of file. Returns the count read
// (below nbyte only at end of file), or -1 with errno set.
ssize_t readall(int fd, void* buf, size_t nbyte);

// writeall that aborts the process unless every byte was written.
void writeall_or_assert(int fd, const void* buf, size_t nbyte);

#endif

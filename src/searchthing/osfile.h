// osfile: small facts about files for the engine (times, sizes, existence)
// and the shrinking of a file that is mapped. Plain functions with no state;
// any thread may call them.
#ifndef VELMOR_SEARCHTHING_OSFILE_H
#define VELMOR_SEARCHTHING_OSFILE_H

#include <cstddef>
#include <cstdint>

// Change time (which 0) or modification time (which 1) of path, in
// milliseconds since the epoch; -1 with errno set if stat fails.
int64_t ospath_get_time(const char* path, int which);

// Size in bytes of the file at path or behind fd; -1 with errno set.
int64_t ospath_get_size(const char* path);
int64_t osfile_get_size(int fd);

// 1 if path exists, 0 if it does not (ENOENT or ENOTDIR), -1 for another
// stat failure (errno set).
int ospath_try_stat(const char* path);

// Shrinks a MAP_SHARED mapping of fd from map_size to new_size: the pages
// behind the page-rounded new size are unmapped, then the file is cut to
// new_size. REQUIRES: new_size <= map_size. Returns 0, or -1 with errno set.
int osfilemap_truncate(int fd, void* map, size_t map_size, size_t new_size);

#endif

// FileUtils: directory walks of the configuration loader.
//
// Stateless; any thread may call.
#pragma once

#include <vector>

#include "util/Pathname.h"

class FileUtils {
 public:
  // Appends to `out` the directory `root` and every directory below it,
  // depth first: a directory comes before its subdirectories, and siblings
  // follow in byte order of their names. Names beginning with "." are passed
  // over; symbolic links to directories are followed, each directory at most
  // once. False (and nothing appended) when `root` is not a readable
  // directory; unreadable subdirectories are listed but not entered.
  static bool sortDirectories(const Pathname& root, std::vector<Pathname>& out);

  // Replaces the file at `path` with `text`: written to "<path>.tmp" beside
  // it, then renamed over it, so a reader sees the old or the new file,
  // never half of one. False on failure, errno from the failing call.
  static bool writeFileAtomically(const Pathname& path, const Str& text);

  // Reads a whole regular file of at most `maxSize` bytes into `out`. False
  // when it cannot be read; `tooLarge` then says whether its size was the
  // reason.
  static bool readSmallFile(const Pathname& path, size_t maxSize, Str& out, bool& tooLarge);
};

// GzTempFile: unpacks a gzip-compressed file into an unnamed temporary file,
// so that a rotated and compressed log can be read, checked by the file
// tracker and resumed like any plain file.
//
// The temporary file is made in the given directory and unlinked at once:
// it disappears when the returned descriptor is closed. Its modification
// time is set to the compressed file's, which keeps the original file's.
//
// Ownership: the caller owns (and must close) the returned descriptor.
// Threads: any; nothing is shared.
#pragma once

#include "util/FileDescriptor.h"
#include "util/Str.h"

class GzTempFile {
 public:
  // An open descriptor, positioned at 0, of the unpacked contents of
  // `gzPath`; an invalid one, with `error` set, when the file cannot be
  // read, is not gzip data, or the temporary file cannot be written.
  static FileDescriptor expand(const Str& gzPath, const Str& tempDir, Str& error);
};

#include "pipeline/input/GzTempFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <vector>

namespace {

Str sysError(const char* what, int err) { return Str(what) + ": " + strerror(err); }

}  // namespace

FileDescriptor GzTempFile::expand(const Str& gzPath, const Str& tempDir, Str& error) {
  int in = ::open(gzPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    error = sysError("cannot open", errno);
    return FileDescriptor();
  }
  struct stat st;
  if (::fstat(in, &st) != 0) {
    error = sysError("cannot stat", errno);
    ::close(in);
    return FileDescriptor();
  }
  gzFile gz = gzdopen(in, "rb");
  if (gz == nullptr) {
    error = "cannot start decompression";
    ::close(in);
    return FileDescriptor();
  }
  Str tmpl = tempDir + "/gzinput-XXXXXX";
  int out = ::mkostemp(tmpl.data(), O_CLOEXEC);
  if (out < 0) {
    error = sysError(("cannot create a temporary file in " + tempDir).c_str(), errno);
    gzclose(gz);
    return FileDescriptor();
  }
  ::unlink(tmpl.c_str());
  FileDescriptor fd(out);

  // A plain (not compressed) file passes through gzread unchanged; that is
  // refused, since a ".gz" that is not gzip data is not what it claims.
  unsigned char magic[2] = {0, 0};
  bool isGzip = ::pread(in, magic, 2, 0) == 2 && magic[0] == 0x1f && magic[1] == 0x8b;
  if (!isGzip) {
    error = "not gzip data";
    gzclose(gz);
    fd.close();
    return FileDescriptor();
  }
  std::vector<char> buf(256 * 1024);
  for (;;) {
    int n = gzread(gz, buf.data(), static_cast<unsigned>(buf.size()));
    if (n < 0) {
      int zerr = 0;
      error = Str("decompression failed: ") + gzerror(gz, &zerr);
      gzclose(gz);
      fd.close();
      return FileDescriptor();
    }
    if (n == 0) break;
    if (!fd.writeFully(buf.data(), static_cast<size_t>(n))) {
      error = sysError("cannot write the temporary file", errno);
      gzclose(gz);
      fd.close();
      return FileDescriptor();
    }
  }
  gzclose(gz);
  struct timespec times[2] = {st.st_atim, st.st_mtim};
  ::futimens(fd.get(), times);
  fd.seek_set(0);
  return fd;
}

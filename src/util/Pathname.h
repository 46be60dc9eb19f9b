// Pathname: a file system path held as the bytes of a Str.
//
// A Pathname never normalises itself; removeDoubleSeps, removeTrailingSeps
// and removeDotDotSlash do so on request, textually, without looking at the
// disk. Joining with "/" adds exactly one separator (see operator/=); "+" is
// plain concatenation.
//
// The file system members wrap one system call each (or a small, documented
// composition of them) and report failure by returning false or an invalid
// FileDescriptor/FileStar/DIR*, leaving errno as the system call set it.
// They never throw and never log. Descriptors are opened close-on-exec.
//
// A Pathname is a value; thread safety is that of Str.
#ifndef VELMOR_UTIL_PATHNAME_H
#define VELMOR_UTIL_PATHNAME_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class Timeval;

class Pathname : public Str {
 public:
  // Permissions for mkdir / mkdir_p (before the umask).
  enum MkdirMode : mode_t {
    MKDIR_PUBLIC = 0777,
    MKDIR_GROUP = 0770,
    MKDIR_NORMAL = 0755,
    MKDIR_PRIVATE = 0700,
  };
  // Permissions for the open calls that may create a file.
  enum CreateMode : mode_t {
    CREATE_NORMAL = 0644,
    CREATE_PRIVATE = 0600,
    CREATE_GROUP_READ = 0440,
  };

  using Str::Str;
  Pathname() = default;
  Pathname(const Str& s) : Str(s) {}
  Pathname(Str&& s) noexcept : Str(std::move(s)) {}
  Pathname(const std::string& s) : Str(s) {}
  explicit Pathname(const StrSegment& s) : Str(s) {}

  // --- text rules ------------------------------------------------------------
  // Joins with exactly one "/": one is added unless this path is non-empty
  // and already ends in "/"; leading "/" of `right` are dropped. An empty
  // `right` changes nothing; an empty path becomes "/" + right.
  Pathname& operator/=(const StrSegment& right);
  Pathname operator/(const StrSegment& right) const {
    Pathname p(*this);
    p /= right;
    return p;
  }

  bool isAbsolute() const { return !empty() && front() == '/'; }

  // The last element, trailing separators ignored; "/" for "" and for a path
  // of separators only.
  Pathname toLeaf() const;
  // A copy with stripElement() applied.
  Pathname toParent() const;
  // Removes trailing separators, then the last element, then the trailing
  // separators left behind (never below one character: "/a" gives "/").
  Pathname& stripElement();
  // The text behind the last "." of the last element, without the dot; empty
  // without a dot.
  Str ext() const;
  // The last element without "." + ext(); an element that is only a dot
  // ending (".conf") is left whole.
  Str basenameWithoutExt() const;

  // Removes trailing "/" but never below one character ("/" stays).
  Pathname& removeTrailingSeps();
  // Appends "/" unless the path ends in one; "" becomes "/".
  Pathname& addTrailingSep();
  // Collapses every run of "/" to one.
  Pathname& removeDoubleSeps();
  // Removes "elem/../" (and a final "elem/..") textually, from the left,
  // until none is left; "." and ".." elements are never removed this way.
  Pathname& removeDotDotSlash();

  // --- shell words -------------------------------------------------------------
  // The path as one shell word; the quoting rules are listed in PathnameShell.cc.
  Str shellQuoted() const;
  // Reads one shell word from `text`: leading blanks, tabs and newlines are
  // skipped; single quotes (no escapes inside), double quotes (backslash
  // escapes $ ` " \ and newline inside) and backslashes outside quotes are
  // handled as a POSIX shell does. `first` gets the word, `rest` what follows
  // it from the separator on. Fails (false) on an unterminated quote, a
  // trailing backslash, or when there is no word at all. `""` is a word.
  static bool splitArgShellQuoted(const StrSegment& text, Str& first, Str& rest);

  // --- access ------------------------------------------------------------------
  bool exists() const;  // access(F_OK)
  bool r_ok() const;
  bool w_ok() const;
  bool rw_ok() const;
  bool x_ok() const;

  // --- directories ---------------------------------------------------------------
  bool mkdir(MkdirMode mode = MKDIR_NORMAL) const;
  // Succeeds if the directory is there; creates missing parents; EEXIST is
  // success.
  bool mkdir_p(MkdirMode mode = MKDIR_NORMAL) const;
  DIR* opendir() const;
  // The names in the directory except "." and "..", sorted bytewise.
  bool readDirectory(std::vector<Str>& names) const;

  // --- opening -------------------------------------------------------------------
  FileDescriptor openReadOnly() const;
  // As openReadOnly, but never gives descriptor 0, 1 or 2.
  FileDescriptor openReadOnlySafer() const;
  FileDescriptor openWriteOnlyExisting() const;
  FileDescriptor openCreateOnly(CreateMode mode = CREATE_NORMAL) const;        // fails if it exists
  FileDescriptor openCreateOrReplace(CreateMode mode = CREATE_NORMAL) const;   // truncates
  FileDescriptor openCreateOrAppend(CreateMode mode = CREATE_NORMAL) const;
  FileDescriptor openReadWriteOrCreate(CreateMode mode = CREATE_NORMAL) const;
  FileStar fopen(const char* mode) const;

  // --- whole-file operations ------------------------------------------------------
  // Copies a regular file's bytes and permission bits to dest (replacing it).
  bool copyTo(const Pathname& dest) const;
  // Copies a tree: directories are recreated, files copied, symbolic links
  // recreated as links. dest must not exist inside this tree.
  bool copyToRecursive(const Pathname& dest) const;
  // Removes a file, a symbolic link (not its target) or a whole directory
  // tree. False if anything could not be removed or nothing was there.
  bool removeRecursive() const;
  bool remove() const;  // remove(3): a file or an empty directory
  bool unlink() const;
  bool rmdir() const;
  bool renameTo(const Pathname& dest) const;
  // Makes this path a symbolic link whose contents are `target`.
  bool symlinkTo(const StrSegment& target) const;
  bool readlink(Str& target) const;
  bool truncate(off_t length) const;
  // Sets the access and modification times to now; fails if the path is not
  // there (nothing is created).
  bool touchExisting() const;

  // --- status ----------------------------------------------------------------------
  bool stat(struct stat& st) const;
  bool lstat(struct stat& st) const;
  // type is st_mode & S_IFMT (S_IFREG, S_IFDIR, ...), symbolic links followed.
  bool getFileType(mode_t& type) const;
  bool getSize(uint64_t& size) const;
  // Bytes of the regular files at or below this path, symbolic links not
  // followed; unreadable parts count 0.
  uint64_t treeSize() const;
  bool getMtime(Timeval& mtime) const;
  bool isDir() const;
  bool isFile() const;
  bool isFifo() const;
  bool isSymlink() const;  // the path itself, not followed
  // Bytes available to unprivileged users on the file system of the path.
  bool filesystemBytesFree(uint64_t& bytes) const;
};

#endif

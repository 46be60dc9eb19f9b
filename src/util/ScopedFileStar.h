// ScopedFileStar: a FileStar that owns its stream and fcloses it on
// destruction. Movable, not copyable. Owned by one thread at a time.
#ifndef VELMOR_UTIL_SCOPEDFILESTAR_H
#define VELMOR_UTIL_SCOPEDFILESTAR_H

#include "util/FileStar.h"

class ScopedFileStar : public FileStar {
 public:
  ScopedFileStar() = default;
  explicit ScopedFileStar(FILE* f) : FileStar(f) {}
  // Takes ownership of f's stream.
  ScopedFileStar(FileStar f) : FileStar(f.get()) {}
  ScopedFileStar(ScopedFileStar&& o) noexcept : FileStar(o.release()) {}
  ScopedFileStar& operator=(ScopedFileStar&& o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }
  ScopedFileStar(const ScopedFileStar&) = delete;
  ScopedFileStar& operator=(const ScopedFileStar&) = delete;
  ~ScopedFileStar() { close(); }

  void reset(FILE* f = nullptr) {
    if (_f != f) close();
    _f = f;
  }
};

#endif

// StringPiece: a read-only view of bytes (pointer + length) used as the
// subject and capture type of RE. It owns nothing: the bytes must outlive
// the view. Plain value type; any thread may use its own copies.
//
// Converts implicitly from const char*, std::string, std::string_view and
// StrSegment, and back to std::string (as_string) or StrSegment
// (as_segment / explicit conversion).
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "util/StrSegment.h"

class StringPiece {
 public:
  typedef size_t size_type;
  static const size_type npos = static_cast<size_type>(-1);

  StringPiece() : ptr_(nullptr), length_(0) {}
  StringPiece(const char* s) : ptr_(s), length_(s ? std::strlen(s) : 0) {}
  StringPiece(const char* p, size_type n) : ptr_(p), length_(n) {}
  StringPiece(const std::string& s) : ptr_(s.data()), length_(s.size()) {}
  StringPiece(std::string_view s) : ptr_(s.data()), length_(s.size()) {}
  StringPiece(const StrSegment& s) : ptr_(s.data()), length_(s.size()) {}

  const char* data() const { return ptr_; }
  size_type size() const { return length_; }
  size_type length() const { return length_; }
  bool empty() const { return length_ == 0; }
  const char* begin() const { return ptr_; }
  const char* end() const { return ptr_ + length_; }
  char operator[](size_type i) const { return ptr_[i]; }

  void clear() { ptr_ = nullptr; length_ = 0; }
  void set(const char* p, size_type n) { ptr_ = p; length_ = n; }
  void set(const char* s) { ptr_ = s; length_ = s ? std::strlen(s) : 0; }
  // REQUIRES: n <= size().
  void remove_prefix(size_type n) { ptr_ += n; length_ -= n; }
  void remove_suffix(size_type n) { length_ -= n; }

  std::string_view view() const { return length_ ? std::string_view(ptr_, length_) : std::string_view(); }
  std::string as_string() const { return std::string(view()); }
  void CopyToString(std::string* out) const { out->assign(view()); }
  void AppendToString(std::string* out) const { out->append(view()); }
  explicit operator std::string() const { return as_string(); }
  StrSegment as_segment() const { return StrSegment(ptr_, length_); }
  explicit operator StrSegment() const { return as_segment(); }

  // Unsigned bytewise comparison, then the shorter first.
  int compare(const StringPiece& o) const { return view().compare(o.view()); }
  bool starts_with(const StringPiece& p) const {
    return length_ >= p.length_ && (p.length_ == 0 || std::memcmp(ptr_, p.ptr_, p.length_) == 0);
  }
  size_type find(char c, size_type pos = 0) const { return view().find(c, pos); }
  StringPiece substr(size_type pos, size_type n = npos) const {
    if (pos > length_) pos = length_;
    if (n > length_ - pos) n = length_ - pos;
    return StringPiece(ptr_ + pos, n);
  }

  friend bool operator==(const StringPiece& a, const StringPiece& b) { return a.view() == b.view(); }
  friend bool operator!=(const StringPiece& a, const StringPiece& b) { return !(a == b); }
  friend bool operator<(const StringPiece& a, const StringPiece& b) { return a.compare(b) < 0; }

 private:
  const char* ptr_;
  size_type length_;
};

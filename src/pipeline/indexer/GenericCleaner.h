// GenericCleaner: the segmenter that cuts an event's text into index terms.
//
// Built from one stanza of the `segmenters` configuration (keys MAJOR, MINOR,
// FILTER, LOOKAHEAD, MINOR_LEN, MAJOR_LEN, MINOR_COUNT, MAJOR_COUNT,
// INTERMEDIATE_MAJORS). Breakers are strings held in a byte trie, and the
// longest breaker starting at a position wins. A byte that is neither
// printable nor white space (control bytes, DEL) is a major breaker of length
// 1; bytes of 0x80 and above count as printable so that UTF-8 words stay
// whole.
//
// tokenize() lowercases each major segment into a fixed 2048-byte buffer and
// hands every major segment (at major breakers, and at minor ones when
// INTERMEDIATE_MAJORS is set) and every minor segment to the callback:
// "a.b c" gives "a", "a.b", "b", "c". A length limit drops segments longer
// than it; a count limit stops passing segments of that kind.
//
// Ownership: the object is immutable after construction; tokenize keeps its
// work buffer on the stack, so any number of threads may share one
// instance. tokenize allocates nothing (unless FILTER is set).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "pipeline/indexer/ICleanCallback.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class PropertiesMap;
class Regex;

class GenericCleaner {
 public:
  static const size_t kMaxSegment = 2048;

  // Reads the stanza; an invalid FILTER is logged and ignored.
  explicit GenericCleaner(const PropertiesMap& stanza);
  ~GenericCleaner();
  GenericCleaner(const GenericCleaner&) = delete;
  GenericCleaner& operator=(const GenericCleaner&) = delete;

  // Splits a breaker list: blank-separated entries with backslash escapes
  // (\n \t \r, \s for a blank, \xHH for any byte, \<c> for c itself).
  static std::vector<Str> parseBreakerList(const StrSegment& text);
  // The stanza of the segmenter used when the configuration names none
  // (events that bring no segmenter of their own, indexes without a
  // `segmenters` file).
  static PropertiesMap defaultStanza();

  void tokenize(const StrSegment& text, ICleanCallback& cb) const;

 private:
  struct Node {
    int32_t child[256];
    uint16_t breakerLen;  // 0 unless a breaker ends here
    bool major;
  };

  void addBreaker(const Str& text, bool major);
  // Length of the longest breaker at p (0 if none); sets major.
  size_t matchBreaker(const char* p, const char* end, bool& major) const;
  // Work state of one tokenize call.
  struct Work {
    char buf[kMaxSegment + 1];
    size_t bufLen = 0;
    long majorsPassed = 0;
    long minorsPassed = 0;
  };
  bool pass(Work& w, size_t from, size_t rawStart, size_t rawEnd, bool isMajor, ICleanCallback& cb) const;

  std::vector<Node> _trie;
  // What a byte is, decided without walking the trie: kPlain neither begins
  // a breaker nor is a forced breaker (the common case); kMajor1 / kMinor1
  // are breakers of one byte that begin no longer breaker (a blank, a dot);
  // kWalk begins a longer breaker ("%20"), and the trie decides.
  enum ByteClass : uint8_t { kPlain, kMajor1, kMinor1, kWalk };
  uint8_t _class[256];
  std::unique_ptr<Regex> _filter;
  long _lookahead = -1;
  long _minorLen = -1;
  long _majorLen = -1;
  long _minorCount = -1;
  long _majorCount = -1;
  bool _intermediateMajors = true;
};

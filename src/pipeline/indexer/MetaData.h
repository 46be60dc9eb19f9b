// MetaData: a table of words (hosts, sources or source types) with their
// event counts and times, kept in one file of a bucket or of an index.
//
// Row i has code i; codes are handed out in order of first sight and never
// reused (rows are never removed; decrement lowers a count). Lookup is by the
// normalized, lowercased word, so words differing only in case share a code
// and the row keeps the case first seen.
//
// File "<dir>/<fileName>", written whole by service() through
// "<fileName>.temp" and rename, one line per row in code order, fields
// separated by a tab:
//
//   ORDER  FIELD        FORMAT
//   1      code         "%lu"
//   2      word         display form: no tab, newline or control byte
//   3      count        "%llu"
//   4      first time   "%lu"
//   5      last time    "%lu"
//   6      recent time  "%lu"
//   end    "\n"
//
// Lines are read with a 4096-byte limit. open() stops at the first line that
// is cut short, malformed, out of code order or a repeated word (a torn file
// keeps the rows before the damage); a missing file is an empty table.
//
// Threads: every member takes the table's mutex, so any thread may call any
// member. Unable to write the temporary file is logged as fatal and thrown as
// MetaDataException.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "pipeline/indexer/WordPositionData.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class MetaData {
 public:
  static const size_t kMaxKey = 1000;        // bytes of a lookup key
  static const size_t kMaxDisplay = 4000;    // bytes of a stored word
  static const int kServiceInterval = 17;    // service(false) writes every 17th call

  MetaData(const Pathname& dir, const Str& fileName, const Str& tableName);

  // Copies up to size - 1 bytes of word into out (NUL-terminated): white
  // space becomes a blank, other control bytes and DEL become "?", and with
  // lowercase set ASCII letters are lowercased. Bytes from 0x80 are kept.
  // Returns the length written. REQUIRES: size > 0.
  static size_t normalizeWord(const StrSegment& word, char* out, size_t size, bool lowercase);

  // Counts one event with this word at time t and returns the word's code;
  // with noCreate an unknown word is not added and -1 is returned.
  long addWord(const StrSegment& word, int64_t t, bool noCreate = false);
  // -1 when unknown.
  long getCodeForWord(const StrSegment& word);
  bool getWordForCode(uint64_t code, Str& out);
  bool getWordData(uint64_t code, WordPositionData& out);
  // Lowers the word's count by n (not below 0). False when unknown.
  bool decrement(const StrSegment& word, uint64_t n);
  // Display forms of all rows, in code order.
  std::vector<Str> getAllKeys();
  // Rows [0, count) (count 0: all). REQUIRES: startPosition == 0.
  std::vector<WordPositionData> getMetaData(size_t startPosition, size_t count);
  // Earliest first time and latest last time over all rows; false if no
  // event was counted.
  bool getMinAndMaxTimes(int64_t& minTime, int64_t& maxTime);
  uint64_t getTotalCount();
  // Merges a row from another table (for instance a bucket's into the
  // index's): counts add, times widen. Returns the code here.
  long addWordPositionData(const WordPositionData& row);
  size_t size();
  const Str& getTableName() const { return _tableName; }
  const Pathname& getPath() const { return _path; }

  // Drops every row (and marks the table dirty).
  void clear();
  // Reads the file, replacing the rows. Returns the number of rows read.
  size_t open();
  // Writes the file now if dirty.
  void sync() { service(true); }
  // Called periodically: writes the file (if dirty) on every 17th call, or
  // at once when forced.
  void service(bool force);

 private:
  long Locked_addWord(const StrSegment& word, int64_t t, bool noCreate);
  long Locked_find(const StrSegment& word);
  long Locked_newRow(const StrSegment& word, const char* key, size_t keyLen);
  void Locked_write();
  void Locked_clear();

  Mutex _mutex;
  Pathname _dir;
  Pathname _path;
  Str _tableName;
  std::vector<WordPositionData> _data;
  std::map<Str, uint64_t, std::less<>> _index;
  WordPositionData _totals;
  Str _lastWord;
  long _lastCode = -1;
  bool _dirty = false;
  int _serviceCalls = 0;
  char _key[kMaxKey + 1];
};

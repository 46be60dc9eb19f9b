// SearchResults: the ordered rows of a search with their field dictionary.
//
// The object owns its rows (the std::list base holds SearchResult*). Field
// names are interned into small key indices (sr_index_t, from 1, never
// reused); names starting with "__" live in an internal dictionary of their
// own, sharing the same index counter. Renaming or removing a field changes
// only the dictionary, never a row.
//
// Rows can be spilled into a chain of CSV files (`_files`); then the list
// holds at most one file's rows at a time and callers walk the chain:
//     rs.firstFile();
//     while (rs.readFile()) { ...work on the rows...; rs.writeFile(); rs.nextFile(); }
// With no files the loop body runs exactly once over the in-memory rows.
//
// Multi-value fields have two forms: an internal companion "__mv_<name>"
// holding "$a$;$b$$c$", or a plain value split by the TOKENIZER regular
// expression of the field's stanza in the `fields` property file.
//
// One thread at a time per object; no locks inside. The process-wide caches
// (isMultiValue, getMaxResultRows, toCSV retry limits) converge on the same
// values and are filled lazily.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "search/SearchResult.h"
#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/Str.h"

class LineReader;
class RE;

class SearchResults : public std::list<SearchResult*> {
 public:
  typedef std::map<Str, sr_index_t> KeyMap;
  static constexpr sr_index_t nkeyindex = 0;
  // Rows read from a whole file: start 0 and this count.
  static constexpr size_t kAllRows = 1000000000;

  SearchResults();
  // Deep copy of rows and dictionaries (not the spill files).
  SearchResults(const SearchResults& other);
  // With copyRows false only the dictionaries are copied.
  SearchResults(const SearchResults& other, bool copyRows);
  SearchResults& operator=(const SearchResults& other);
  virtual ~SearchResults();

  // --- dictionary ----------------------------------------------------------
  static bool isInternalField(const Str& key) { return key.size() >= 2 && key[0] == '_' && key[1] == '_'; }
  // Finds or (create and non-empty name) interns a public name.
  // REQUIRES: not an internal name (use internalKeyIndex).
  sr_index_t keyIndex(const Str& key, bool create = false);
  sr_index_t keyIndex(const Str& key) const;
  // The same for "__" names. REQUIRES: isInternalField(key).
  sr_index_t internalKeyIndex(const Str& key, bool create = false);
  // Looks up public names without creating; true only if all are known,
  // unknown ones are 0.
  bool keyIndexes(const std::vector<Str>& keys, std::vector<sr_index_t>& out) const;
  // The public name of an index (linear walk); empty if unknown.
  Str getKeyFromIndex(sr_index_t i) const;
  // Erases key and "__mv_" + key; values stay in rows, unreachable.
  bool removeKey(const Str& key);
  // Moves from's index (and its multi-value companion) to `to`, replacing
  // whatever `to` named. Answers the index; 0 for an unknown `from` or an
  // empty `to`. No row is touched.
  sr_index_t renameKey(const Str& from, const Str& to);
  // Interns the other's public keys by index order, then its internal keys.
  void appendKeyMap(const SearchResults& other);
  // Replaces both dictionaries with the other's.
  void copyKeyMap(const SearchResults& other);
  const KeyMap& getKeyMap() const { return _keyMap; }
  const KeyMap& getInternalKeyMap() const { return _internalKeyMap; }
  sr_index_t getMaxKeyIndex() const { return _maxKeyIndex; }
  // Same names with the same indices in both dictionaries.
  bool sameKeyMap(const SearchResults& other) const;
  // Public keys by ascending index (order of first appearance).
  void getColumnOrder(std::vector<Str>& out) const;
  // The columns to write: fieldList first (unknown names get key 0), then,
  // unless onlyListed with a non-empty list, every other public key (and with
  // withInternal every internal key) sorted by name. Both vectors end with
  // the same length.
  void genFieldList(std::vector<Str>& fieldList, std::vector<sr_index_t>& keyIndList, bool onlyListed,
                    bool withInternal) const;

  // --- rows ----------------------------------------------------------------
  // New row at the end (or before `pos`), values copied from `proto` if
  // given. reserve 0 means the highest index so far.
  SearchResult* addNewResult(const SearchResult* proto = nullptr, sr_index_t reserve = 0);
  SearchResult* addNewResult(iterator pos, const SearchResult* proto, sr_index_t reserve = 0);
  // Copies `from` (a row of any SearchResults) into `to` of this one, key by
  // key, interning names as needed.
  void copyResult(const SearchResult& from, SearchResult& to);
  // Moves the values of `from` into `to` (a row of this), translating key
  // indices when the dictionaries differ; `from` is left empty.
  void usurpResult(SearchResult& from, SearchResult& to);
  // Moves the row at `old` of its parent into this set (appended). With
  // `erase` the emptied row is also removed from its old parent.
  // REQUIRES: (*old)->getParent() != nullptr.
  SearchResult* moveResult(iterator old, bool erase);
  // Copies up to `count` (0: all) rows of `other` after skipping `start`.
  void append(const SearchResults& other, size_t start = 0, size_t count = 0);
  // Moves every row of `other` to the end of this set, values and all (the
  // translation between the two dictionaries is made once, not per row);
  // `other` keeps its dictionary and is left without rows.
  void takeRows(SearchResults& other);
  // Deletes all rows; unless keepKeys also forgets dictionaries, caches and
  // the spill file list.
  void free(bool keepKeys = false);
  // Steals rows, dictionaries and caches; with rowsOnly false also the spill
  // file list and temporary directories.
  void usurp(SearchResults& other, bool rowsOnly = false);

  // --- limits ----------------------------------------------------------------
  // `maxresultrows` of stanza "searchresults" in `limits`; default 50000.
  static size_t getMaxResultRows(bool reload = false);

  // --- multi-value fields ----------------------------------------------------
  // Does the field's stanza in `fields` have TOKENIZER? Cached process-wide.
  static bool isMultiValue(const Str& name, bool reload = false);
  bool hasMultiValue(const Str& name);
  // The companion "__mv_" key of a field: 0 for unknown indices and for
  // fields without tokenizer (unless the companion already exists).
  sr_index_t getMVIndex(sr_index_t i);
  // The compiled TOKENIZER of the field, or null. Cached per key.
  const RE* getTokenizerFromIndex(sr_index_t i);
  // Appends "$e1$;$e2$" to `out` with '$' doubled inside elements.
  static void encodeMV(const std::vector<Str>& values, Str& out);
  // Strict inverse of encodeMV; false and an empty `out` on corrupt text.
  static bool decodeMV(const Str& encoded, std::vector<Str>& out);

  // --- CSV writing -------------------------------------------------------------
  // Appends `in` escaped to `out`: "" for empty, as is when all isalnum,
  // else quoted with quotes doubled (and CRs dropped with stripCR).
  static void csvEscape(const Str& in, Str& out, bool stripCR = false) {
    csvEscape(in.data(), in.size(), out, stripCR);
  }
  static void csvEscape(const char* p, size_t len, Str& out, bool stripCR);
  // Header and rows to `f` (rewound first). Answers bytes written; 0 and
  // nothing written when there are no columns.
  size_t toCSV(FileStar& f, bool withInternal = false, bool stripCR = false) const;
  size_t toCSV(FileStar& f, const std::vector<Str>& fields, bool onlyListed, bool withInternal = false,
               bool stripCR = false) const;
  // Through a temporary file in <VELMOR_HOME>/var/run/velmor and a rename
  // (retried), so readers never see half a file. 0 on failure.
  size_t toCSV(const Pathname& path, bool withInternal = false, bool stripCR = false) const;
  size_t toCSV(const Pathname& path, const std::vector<Str>& fields, bool onlyListed, bool withInternal = false,
               bool stripCR = false) const;
  // Into a string (replaced); false when there are no columns.
  bool toCSV(Str& out, bool withInternal = false, bool stripCR = false) const;
  bool toCSV(Str& out, const std::vector<Str>& fields, bool onlyListed, bool withInternal = false,
             bool stripCR = false) const;
  // Rows only, no header, at the file's current position.
  size_t appendCSV(FileStar& f, const std::vector<Str>& fields, bool onlyListed, bool stripCR = false) const;

  // --- CSV reading -------------------------------------------------------------
  // Header, then rows until end of input or until start + count rows were
  // passed (rows before `start` are skipped unparsed). count 0 reads only the
  // header. Answers the number of data lines passed; 0 if the file cannot be
  // opened.
  size_t fromCSV(const Pathname& path, size_t start = 0, size_t count = kAllRows, bool allowInternal = false);
  size_t fromCSV(FileStar& f, size_t start = 0, size_t count = kAllRows, bool allowInternal = false);
  size_t fromCSV(LineReader& r, size_t start = 0, size_t count = kAllRows, bool allowInternal = false);
  size_t fromCSV(const Str& text, size_t start = 0, size_t count = kAllRows, bool allowInternal = false);
  // Reads and maps the header line(s); unless keep, free(false) first.
  bool readHeader(LineReader& r, std::vector<sr_index_t>& inds, bool keep, bool allowInternal);
  bool readCSVHeader(LineReader& r, std::vector<sr_index_t>& inds, bool keep, bool allowInternal) {
    return readHeader(r, inds, keep, allowInternal);
  }
  // One data row (with continuation lines). False at end of input; true with
  // a bad line (counted and dropped) and with skip.
  bool readCSVLine(LineReader& r, const std::vector<sr_index_t>& inds, bool skip);
  // Opens `path` and reads its header, keeping the file for readLines.
  // Throws SearchResultsException when it cannot.
  void openAndReadHeader(const Pathname& path, bool keep = false, bool allowInternal = false);
  // Up to `count` rows from the file of openAndReadHeader; answers lines read.
  size_t readLines(size_t count);
  void closeFile();
  size_t getBadLineCount() const { return _badLines; }
  void resetBadLineCount() { _badLines = 0; }

  // --- spill files ---------------------------------------------------------------
  const std::vector<Pathname>& getFiles() const { return _files; }
  bool hasFiles() const { return !_files.empty(); }
  void addFile(const Pathname& p) { _files.push_back(p); }
  // A directory removed with this object.
  void addTempDir(const Pathname& dir) { _tempDirs.insert(dir); }
  void firstFile();
  // Loads the file at the cursor (rows replaced). With no files answers
  // whether this is the first pass. False past the end or on error (logged).
  bool readFile(bool headerOnly = false);
  // Writes the rows back over the current file; with no rows left the file
  // is deleted and dropped from the list. No-op without files.
  bool writeFile();
  // Steps to the next file (not when the current one was just deleted).
  bool nextFile();
  // Deletes the current file and drops it from the list.
  void deleteFile();
  // Deletes every file of the list and empties it.
  void clearFileList();
  // Rewrites the spilled rows into files of `chunksize` rows (0: the
  // max result rows), skipping `offset` rows and stopping at `maxRows`.
  // Answers the rows kept. Throws SearchResultsException on unreadable files.
  size_t collapse(const Pathname& dir, size_t chunksize, size_t offset, size_t maxRows, bool allowInternal = false);

 private:
  size_t writeHeaderAndRows(FileStar* f, Str* out, const std::vector<Str>& names,
                            const std::vector<sr_index_t>& inds, bool header, bool stripCR) const;
  void deleteRows();
  void dropSchema();           // dictionaries, tokenizer and multi-value caches
  void dropFileBookkeeping();  // the spill file list and cursor
  void copyFrom(const SearchResults& other, bool copyRows);
  void removeTempDirs();
  // Writes all rows (header included) over `path`; false on failure.
  bool writeRowsTo(const Pathname& path) const;

  size_t _badLines = 0;
  FileStar _headerFile;
  std::unique_ptr<LineReader> _headerReader;
  std::vector<sr_index_t> _headerInds;
  KeyMap _keyMap;
  sr_index_t _maxKeyIndex = 0;
  KeyMap _internalKeyMap;
  std::vector<const RE*> _tokenizers;  // by index - 1, owned
  std::vector<bool> _tokenizerLooked;
  std::vector<sr_index_t> _mvIndex;    // by index - 1
  std::vector<Pathname> _files;
  size_t _fileCursor = 0;
  bool _currentDeleted = false;
  bool _atFirstFile = true;
  std::set<Pathname> _tempDirs;
  Str _lineBuf;  // scratch of readCSVLine, reused between rows
};

// IndexableValue: one event on its way into the time-series engine.
//
// index() puts the event's terms, in this order: the engine's empty-term
// probe (which lets the hot slice flush before the event starts, so that an
// event's terms normally land in one slice), "meta::all", the blank-separated
// tokens of the meta string, the values of the other fields,
// "linecount::<newlines + 1>", the segments of the raw text and the segments
// of the index-terms text. Every term but "linecount::" and the cleaner's
// (already lowercased) segments is lowercased here; at most 2048 bytes of a
// term are kept. Empty terms are skipped.
//
// Each term goes to store(), which by default gathers the terms and hands
// them to the engine in batches (st_put_terms, the same as st_put term by
// term) with the value's time, address and codes; a subclass may catch the
// terms instead.
//
// When store() is not overridden, index() writes each term straight into the
// batch (lowercasing as it copies), with no call per term.
//
// Ownership: the cleaner and the engine handle belong to the caller and must
// outlive the value. One thread uses an object at a time; index() allocates
// nothing once the batch buffer has grown to a large event's terms (it is
// handed over at 64 KiB).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/ICleanCallback.h"
#include "pipeline/indexer/ITokenHandler.h"
#include "pipeline/indexer/IndexableEvent.h"
#include "searchthing/ipcver.h"

class IndexableValue : public ITokenHandler, public ICleanCallback {
 public:
  static const size_t kMaxTerm = 2048;

  // REQUIRES: cleaner is not null. handle may be null when store() is
  // overridden.
  IndexableValue(GenericCleaner* cleaner, st_handle* handle) : _cleaner(cleaner), _handle(handle) {}
  ~IndexableValue() override = default;

  void setTime(int32_t t) { _time = t; }
  void setAddress(uint32_t a) { _address = a; }
  void setCodes(uint32_t host, uint32_t source, uint32_t sourceType) {
    _hostCode = host;
    _sourceCode = source;
    _sourceTypeCode = sourceType;
  }
  void setHandle(st_handle* h) { _handle = h; }
  void setCleaner(GenericCleaner* c) { _cleaner = c; }
  int32_t time() const { return _time; }
  uint32_t address() const { return _address; }
  uint32_t hostCode() const { return _hostCode; }
  uint32_t sourceCode() const { return _sourceCode; }
  uint32_t sourceTypeCode() const { return _sourceTypeCode; }
  GenericCleaner* cleaner() const { return _cleaner; }

  void index(const IndexableEvent& ev);

  // A term, lowercased.
  void processToken(const StrSegment& token) override;
  // A field's value, lowercased (the key itself is not a term).
  void each(const StrSegment& key, const StrSegment& value);
  // A segment from the cleaner, put as it stands.
  bool acceptToken(const char* term, size_t len, size_t start, size_t end) override;

 protected:
  // Receives each non-empty, NUL-terminated term.
  virtual void store(const char* term, size_t len);

 private:
  void put(const StrSegment& term, bool lowercase);
  // Hands the gathered terms to the engine.
  void flushTerms();
  // Room for a term of n bytes and its NUL at the end of the batch.
  char* batchRoom(size_t n);
  // Counts the term just written into batchRoom(n); flushes a full batch.
  void batched(size_t n);
  // Puts every blank-separated term of the meta text, lowercased, in one
  // pass, when the batch has room and no term is empty or longer than
  // kMaxTerm; false (nothing put) otherwise. REQUIRES: _direct.
  bool putMetaWhole(const StrSegment& meta);

  GenericCleaner* _cleaner;
  st_handle* _handle;
  int32_t _time = 0;
  uint32_t _address = 0;
  uint32_t _typeCode = 0;  // always 0 on the write path
  uint32_t _hostCode = 0;
  uint32_t _sourceCode = 0;
  uint32_t _sourceTypeCode = 0;
  char _term[kMaxTerm + 1];
  std::unique_ptr<char[]> _batch;  // terms gathered by store(), each NUL-terminated
  size_t _batchLen = 0;
  size_t _batchCap = 0;
  size_t _batchCount = 0;
  bool _inIndex = false;
  bool _direct = false;  // in index(), with a handle and this class's own store()
};

// FillNullProcessor: `fillnull [value=<v>] <field>...` gives every row the
// named fields, with <v> (default "0") where a row lacks one. With no field
// names every key of every row is filled, which needs the union of the keys
// of all spill files: that form is not streamable and walks the files
// itself (headers first, then the rows). One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class FillNullProcessor : public SearchProcessor {
 public:
  explicit FillNullProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new FillNullProcessor(name); }

  bool isStreamable() const override { return !_fields.empty(); }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;
  // The fields named (empty: every key).
  const std::vector<Str>& fields() const { return _fields; }

 private:
  void fill(SearchResults& results, const std::vector<Str>& fields);

  Str _value = "0";
  std::vector<Str> _fields;
};

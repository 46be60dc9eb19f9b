// TagsGenerateProcessor: `tagcreate`, `tagdelete` and `tagset`
// `<field>=<value> <tag>...`: edit the tags of one field value in the
// `local` bundle of the property file `tags` (stanza "<field>=<value>", see
// TagsAnnotateProcessor):
//   tagcreate  enables the named tags, keeping the others;
//   tagdelete  disables the named tags;
//   tagset     enables exactly the named tags and disables every other tag
//              the value has in any bundle (no tags: disables them all).
// The rows pass untouched; an INFO message tells the tags that now apply.
// The edit is made once per search, on the first run. Not streamable.
// One thread at a time (the property file has its own lock).
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class TagsGenerateProcessor : public SearchProcessor {
 public:
  explicit TagsGenerateProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new TagsGenerateProcessor(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  Str _field, _value;
  std::vector<Str> _tags;
  bool _done = false;
};

// TagsAnnotateProcessor: `tags [outputfield=<name>] [<field>...]`. Adds to
// each row the tags of its field values. Tags live in the property file
// `tags`: stanza "<field>=<value>", one key per tag whose value "enabled"
// gives the tag (any other value, "disabled" for one, withholds it, so a
// higher bundle can switch a tag off). For each named field (default host,
// source, sourcetype, eventtype) a row with tags gets "tag::<field>" with
// them, blank separated in name order, and `outputfield` (default "tag")
// gets the union. Lookups are cached per field and value for the life of
// the command. Streamable. One thread at a time.
#pragma once

#include <map>
#include <vector>

#include "search/SearchProcessor.h"

class TagsAnnotateProcessor : public SearchProcessor {
 public:
  explicit TagsAnnotateProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new TagsAnnotateProcessor(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // The enabled tags of field=value, in name order.
  static void lookupTags(const Str& field, const Str& value, std::vector<Str>& out);

 private:
  const std::vector<Str>& tagsOf(const Str& field, const Str& value);

  std::vector<Str> _fields;
  Str _output = "tag";
  std::map<std::pair<Str, Str>, std::vector<Str>> _cache;
};

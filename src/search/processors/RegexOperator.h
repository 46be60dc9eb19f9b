// RegexOperator: `regex [field=<field>] <regex>` or `regex <field>=<regex>`
// or `regex <field>!=<regex>` keeps the rows whose field (default "_raw")
// matches the expression, or with "!=" those that do not (a row lacking
// the field counts as not matching). The argument text is read whole, so a
// pattern may hold blanks. One thread at a time.
#pragma once

#include <memory>

#include "search/SearchProcessor.h"
#include "util/Regex.h"

class RegexOperator : public SearchProcessor {
 public:
  explicit RegexOperator(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new RegexOperator(name); }

  void parseArguments() override {}
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

 private:
  Str _field = "_raw";
  bool _negate = false;
  std::unique_ptr<Regex> _re;
};

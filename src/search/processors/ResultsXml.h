// ResultsXml: the XML texts that the output commands put into "_xml".
//
// The results document, one <result> per row:
//   <?xml version="1.0"?>
//   <results>
//   <result offset='0'>
//   <field k='host'>
//   <value><text>web01</text></value>
//   </field>
//   <field k='_raw'><v xml:space='preserve'>text of the event</v></field>
//   </result>
//   </results>
// A field with several values (a multi-value field) has one <value> each; a
// value equal to one of the search's keywords is marked <value h='1'>. With
// segmentation the words of "_raw" are wrapped as <sg>word</sg>, keywords as
// <sg h='1'>. Fields whose names start with "_" are left out, except "_raw"
// and "_time"; internal fields never appear.
//
// The message form, for runs that end with messages instead of rows:
//   <results type="message">
//   <msg type="WARN">text</msg>
//   </results>
//
// Stateless; any thread.
#pragma once

#include <set>
#include <vector>

#include "search/SearchResult.h"
#include "util/Str.h"

class SearchResults;
class SearchResultsInfo;

class ResultsXml {
 public:
  // Appends `in` to `out` as element text: "&", "<" and ">" escaped, and
  // the bytes below 0x20 other than tab, newline and return dropped (they
  // are not allowed in XML 1.0).
  static void escape(const Str& in, Str& out) { escape(in, out, false); }
  // The same for an attribute value: quote marks are escaped too.
  static void escapeAttribute(const Str& in, Str& out) { escape(in, out, true); }
  static void escape(const Str& in, Str& out, bool quotes);

  // The columns shown for a set of rows: info's column order first (names
  // known to `results`), then the other public keys by index; hidden "_"
  // names only for "_raw" and "_time".
  static void columns(const SearchResults& results, const SearchResultsInfo& info, std::vector<Str>& names,
                      std::vector<sr_index_t>& keys);

  // Appends one <result> element.
  static void appendResult(const SearchResult& row, size_t offset, const std::vector<Str>& names,
                           const std::vector<sr_index_t>& keys, const std::set<Str>& keywords, bool segment,
                           Str& out);

  // Appends the message form for the messages of `info`; false (nothing
  // appended) when there are none.
  static bool appendMessages(const SearchResultsInfo& info, Str& out);

  // Appends "_raw" text cut into <sg> words at the word breakers.
  static void appendSegmented(const Str& raw, const std::set<Str>& keywords, Str& out);

  // Replaces the rows of `results` with one row holding `xml` in "_xml"
  // (the spill files are dropped too).
  static void replaceWithXmlRow(SearchResults& results, const Str& xml);
};

// JobResultsFormatter: writes the rows of a search job in the output modes a
// REST client may ask for:
//   "xml"   <?xml version="1.0"?> <results>, per row <result>, per field
//           <field k='name'><value><text>v</text></value></field> (a value
//           per element of a multi-value field); _raw as
//           <field k='_raw'><v xml:space='preserve'>segmented text</v></field>
//   "json"  "[\n\t{\n\t\t\"k\": \"v\",\n\t\t\"k2\": \"v2\"\n\t},\n\t{...}\n]",
//           with every value escaped (control bytes, quotes, backslashes, and
//           bytes that are not UTF-8 become U+FFFD) so any JSON reader takes it
//   "csv"   the result file format: a header of field names, a line per row
//   "raw"   the _raw of each row, one line each
// `fields` picks the fields and their order; empty means every public field
// (names not starting with "__"). xml and json leave out the fields a row
// does not have; csv writes every chosen column.
//
// Segmentation of _raw in xml: "none" and "raw" write the text as it is;
// "inner", "outer" and "full" wrap each run of letters, digits and '_' in
// <sg>...</sg>.
//
// Stateless; any thread.
#pragma once

#include <vector>

#include "util/Str.h"

class SearchResults;

class JobResultsFormatter {
 public:
  static bool isOutputMode(const Str& mode);
  static bool isSegmentation(const Str& segmentation);
  // The Content-Type of a mode's reply ("text/xml", "application/json", ...).
  static const char* contentType(const Str& mode);

  // Appends the rows in `mode` to `out`. REQUIRES: isOutputMode(mode).
  static void format(const SearchResults& rows, const Str& mode, const std::vector<Str>& fields,
                     const Str& segmentation, Str& out);

  // A JSON string's inside (no quotes) for `in`.
  static void jsonEscape(const Str& in, Str& out);

 private:
  static void chooseFields(const SearchResults& rows, const std::vector<Str>& fields, std::vector<Str>& names,
                           std::vector<size_t>& inds);
  static void toXML(const SearchResults& rows, const std::vector<Str>& names, const std::vector<size_t>& inds,
                    const Str& segmentation, Str& out);
  static void toJSON(const SearchResults& rows, const std::vector<Str>& names, const std::vector<size_t>& inds,
                     Str& out);
};

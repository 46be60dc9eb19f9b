// ConversionProcessor: `convert [timeformat=<fmt>] <func>(<field>) [AS
// <new>]...` rewrites field values by a conversion function (ConvertType):
//   auto    numbers stay; otherwise the leading number if there is one
//   num     the value if it is a number, else the leading number, else the
//           field is left alone
//   rmunit  the leading number ("10kb" -> "10")
//   rmcomma commas removed ("1,234" -> "1234")
//   memk    memory sizes in kilobytes: "10m" -> "10240", "2g", "512k"
//   dur2sec "[D+]HH:MM:SS" -> seconds
//   ctime   epoch seconds -> text in timeformat (default
//           "%m/%d/%Y %H:%M:%S", UTC)
//   mktime  text in timeformat -> epoch seconds (UTC)
//   none    leaves the field (and keeps it from a later wildcard)
// The field may hold "*" wildcards; "**" alone means every field. With AS
// the result goes to <new> (stars filled from the field's). Keys starting
// "__" are never touched. One thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"
#include "search/processors/FieldPattern.h"

enum ConvertType { CONV_AUTO, CONV_NUM, CONV_RMUNIT, CONV_RMCOMMA, CONV_MEMK, CONV_DUR2SEC, CONV_CTIME, CONV_MKTIME, CONV_NONE };

class ConversionProcessor : public SearchProcessor {
 public:
  explicit ConversionProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new ConversionProcessor(name); }

  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // One value through one function; false when it does not convert.
  static bool convert(ConvertType type, const Str& in, const Str& timeformat, Str& out);

 private:
  struct Conversion {
    ConvertType type;
    FieldPattern field;
    Str as;  // empty: in place
  };
  Str _timeformat = "%m/%d/%Y %H:%M:%S";
  std::vector<Conversion> _convs;
};

// AccessCsv: a CSV file of the generated web access events, one row per
// request, with the header
//   _time,host,source,sourcetype,status,method,uri,bytes,clientip,useragent,duration
// `_time` is whole seconds since the epoch and `duration` milliseconds.
// Fields that hold a comma, a double quote or a line break are quoted, with
// inner quotes doubled.
//
// Several access sources may write to one AccessCsv, one after another, on
// one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "LineBuffer.h"

class AccessCsv {
 public:
  struct Row {
    int64_t millis;
    std::string_view host, source, sourcetype;
    unsigned status;
    std::string_view method, uri;
    uint64_t bytes;
    std::string_view clientip, useragent;
    uint64_t durationMs;
  };

  // Opens the file and writes the header. False on failure (errno set).
  bool open(const std::string& path);
  bool close() { return _out.close(); }
  void write(const Row& row);
  uint64_t rows() const { return _out.lines() > 0 ? _out.lines() - 1 : 0; }

 private:
  void field(std::string_view value);

  LineBuffer _out;
};

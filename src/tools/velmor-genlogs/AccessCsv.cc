#include "AccessCsv.h"

bool AccessCsv::open(const std::string& path) {
  if (!_out.open(path)) return false;
  _out.put("_time,host,source,sourcetype,status,method,uri,bytes,clientip,useragent,duration");
  _out.endLine();
  return true;
}

void AccessCsv::field(std::string_view value) {
  if (value.find_first_of(",\"\r\n") == std::string_view::npos) {
    _out.put(value);
    return;
  }
  _out.put('"');
  for (char c : value) {
    if (c == '"') _out.put('"');
    _out.put(c);
  }
  _out.put('"');
}

void AccessCsv::write(const Row& row) {
  // Floor division, so that times before 1970 still round down.
  const int64_t secs = row.millis / 1000 - (row.millis % 1000 < 0);
  _out.putInt(secs);
  _out.put(',');
  field(row.host);
  _out.put(',');
  field(row.source);
  _out.put(',');
  field(row.sourcetype);
  _out.put(',');
  _out.putUint(row.status);
  _out.put(',');
  field(row.method);
  _out.put(',');
  field(row.uri);
  _out.put(',');
  _out.putUint(row.bytes);
  _out.put(',');
  field(row.clientip);
  _out.put(',');
  field(row.useragent);
  _out.put(',');
  _out.putUint(row.durationMs);
  _out.endLine();
}

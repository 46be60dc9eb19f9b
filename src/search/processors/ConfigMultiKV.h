// ConfigMultiKV: a table described by a stanza of the `multikv` file, for
// `multikv conf=<stanza>`.
//
// The event's lines are walked in four sections (see TableSection for the
// keys and which of them work):
//   pre     lines before the header; pre.end, when given, must match before
//           a header is looked for;
//   header  the line matching header.start (then header.offset lines on);
//           without header.start the header is found by the automatic
//           scoring of MultiKVTransformer. header.tokens cuts it (white
//           space by default); _token_list_ gives the names outright and
//           reads no header line;
//   body    the lines after the header, from the first matching body.start
//           if given, up to (not including) a line matching body.end or
//           post.start, a blank line when the search asks for several
//           tables, body.linecount lines, or the end; body.member and
//           body.ignore choose lines, body.replace edits them, body.tokens
//           cuts them (by default under the header's columns);
//   post    what follows; only post.start is read.
// Read-only after load(); one thread.
#pragma once

#include <memory>
#include <vector>

#include "search/processors/TableSection.h"
#include "util/Str.h"

class ConfigMultiKV {
 public:
  ConfigMultiKV();
  ~ConfigMultiKV();

  // Reads the stanza of `multikv`. False with the user's message in
  // `error`: "FAILED to find multikv.conf configuration file!" or
  // "FAILED to find valid config for multikv stanza = '<name>'" (plus the
  // reason of a bad key).
  bool load(const Str& stanza, Str& error);

  const TableSection& pre() const { return *_pre; }
  const TableSection& header() const { return *_header; }
  const TableSection& body() const { return *_body; }
  const TableSection& post() const { return *_post; }

 private:
  std::unique_ptr<TableSection> _pre, _header, _body, _post;
};

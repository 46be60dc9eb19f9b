// IndexableEvent: the parts of one event that IndexableValue turns into
// terms, as non-owning views.
//
// `meta` is the indexer's meta string ("host::h source::s sourcetype::t ...",
// tokens at single blanks); `fields` are the values of the event's other
// non-internal keys, in the order they are walked; `raw` is the event text;
// `indexTerms` is extra text segmented like the raw text (empty when the
// event has none). The caller owns every byte viewed here and keeps it alive
// for the duration of IndexableValue::index.
#pragma once

#include <span>
#include <utility>

#include "util/StrSegment.h"

struct IndexableEvent {
  StrSegment meta;
  std::span<const std::pair<StrSegment, StrSegment>> fields;
  StrSegment raw;
  StrSegment indexTerms;
};

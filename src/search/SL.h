// SL: the well-known names of the result model.
//
// Field names that commands, output formats and the dispatcher agree on, and
// the keys of the `limits` property file read by the result model. These are
// immutable after static initialisation, so any thread may read them.
// (SL::getLimit, the reader of `limits`, lives in SLLimits.h.)
#pragma once

#include "util/Str.h"

namespace SL {

inline const Str CancelID("cancel_id");
inline const Str ColumnOrder("_columnOrder");
inline const Str Count("_c");
inline const Str CountPublic("count");
inline const Str Datatype("_data_type");
inline const Str Dummy("dummy");
inline const Str Duration("_d");
inline const Str DurationPublic("duration");
inline const Str DurationKey("_duration");
inline const Str EventTypes("eventtype");
inline const Str Host("host");
inline const Str KeySet("_keyset");
inline const Str MaxResults("maxresults");
inline const Str Meta("_meta");
inline const Str MetaInclude("_metainclude");
inline const Str MsgType("_msg_type");
inline const Str MultiValueKeys("_multiValueKeys");
inline const Str Query("_query");
inline const Str Raw("_raw");
inline const Str Region("region");
inline const Str Related("_related");
inline const Str ResultCount("_count");
inline const Str Scale("_scale");
inline const Str Searchable("_searchable");
inline const Str Segs("_segs");
inline const Str Server("_server");
inline const Str Source("source");
inline const Str SourceType("sourcetype");
inline const Str StartEndRequest("startEndRequest");
inline const Str Summary("_summary");
inline const Str Timestamp("_time");
inline const Str XML("_xml");

// Keys of the `limits` property file.
inline const Str maxresultrows_key("maxresultrows");
inline const Str maxvalues_key("maxvalues");
inline const Str maxvaluesize_key("maxvaluesize");
inline const Str maxfields_key("maxfields");
// The name of the limits property file.
inline const Str limits_file("limits");

}  // namespace SL

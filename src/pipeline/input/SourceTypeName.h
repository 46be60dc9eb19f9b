// sourceTypeFromPath: the source type a file gets when its input or the command
// line names none, taken from the file's name as users name their logs:
// the base name without directories, without trailing rotation numbers and
// compression suffixes (".1", ".2.gz", ".gz", ".bz2", ".xz", ".zst") and
// then without one extension (".log", ".txt", any other with a letter), e.g.
// "/var/log/auth.log.1" -> "auth", "web_access.log" -> "web_access",
// "syslog.2.gz" -> "syslog". An empty result gives "unknown".
//
// A pure function; any thread.
#pragma once

#include "util/Str.h"

Str sourceTypeFromPath(const Str& path);

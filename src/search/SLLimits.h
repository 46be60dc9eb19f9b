// SL::getLimit: typed reads of one key of the merged `limits` property file.
//
// Each form answers true and sets `value` when the key exists and its text
// parses; on a bad text it logs a warning naming the value, stanza and key
// and answers false, leaving the caller's default in `value`. A missing key
// answers false silently. Callers keep the value in a static and read it once.
// Any thread may call (PropertyPages has its own lock).
#pragma once

#include "util/Str.h"

namespace SL {

bool getLimit(const Str& stanza, const Str& key, Str& value);
// Any integer strtol accepts in base 10, whole text.
bool getLimit(const Str& stanza, const Str& key, int& value);
// Non-negative integer: no empty text, no minus, no overflow, no trailing text.
bool getLimit(const Str& stanza, const Str& key, unsigned long& value);
bool getLimit(const Str& stanza, const Str& key, double& value);

}  // namespace SL

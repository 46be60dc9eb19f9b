// substituteEnvs: environment variables in configuration values.
//
// Every "$NAME", NAME being the longest run of letters, digits and
// underscores after the "$", is replaced by the value of that environment
// variable. An unset variable stays as written, and so does a "$" with no
// name behind it; "${NAME}" is not a recognised form and stays as it is.
//
// Reads the process environment; safe from any thread that does not race
// with setenv.
#pragma once

#include "util/Str.h"

Str substituteEnvs(const Str& text);

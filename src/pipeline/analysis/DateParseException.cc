// DateParseException is header-only; this file keeps one source per class.
#include "pipeline/analysis/DateParseException.h"

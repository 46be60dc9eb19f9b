// DateParseException: a datetime.xml that cannot be used, or a TIME_PREFIX
// that does not compile. The text reaches the user as it stands. The class
// itself is declared with the other exceptions of the system in
// util/Exceptions.h; this header is where the date parser's users find it.
#pragma once

#include "util/Exceptions.h"

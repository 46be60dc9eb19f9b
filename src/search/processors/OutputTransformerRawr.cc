// All of outputrawr lives in its header: it only turns the order around.
#include "search/processors/OutputTransformerRawr.h"

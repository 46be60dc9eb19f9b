#include "pipeline/analysis/JointLineCountHash.h"

// Everything is inline; this file keeps the one-pair-per-class layout.

// IdProvider: unique ids for search runs and jobs.
//
// getNextId() answers "<unix seconds>.<n>" where n counts calls in this
// process from 1 upwards. Ids are unique within a process, grow in the order
// they were handed out, contain only digits and one dot (safe as a file
// name), and a restart a second or more later cannot repeat an id of the
// previous run. Any thread may call; the counter is atomic.
#pragma once

#include "util/Str.h"

class IdProvider {
 public:
  static Str getNextId();
};

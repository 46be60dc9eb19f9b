// PSKey: the key of a persistent store entry: a primary key and three
// optional secondary keys that enumerate() can select on. A plain value.
#pragma once

#include "util/Str.h"

struct PSKey {
  Str primary;
  Str secondary1;
  Str secondary2;
  Str secondary3;
};

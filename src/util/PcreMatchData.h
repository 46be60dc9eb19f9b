// PcreMatchData: the PCRE2 match data of the calling thread, shared by every
// RE and Regex of that thread so that matching allocates nothing once the
// buffer is big enough.
//
// A caller matches and reads the offsets back before it starts another match
// on the same thread; nothing else is needed, as no other thread sees the
// buffer. The buffer is freed when the thread ends.
#pragma once

#include <cstdint>

struct pcre2_real_match_data_8;

class PcreMatchData {
 public:
  // Match data with room for at least `pairs` offset pairs (groups + 1), or
  // null if the library could not allocate it.
  static pcre2_real_match_data_8* forThread(uint32_t pairs);
};

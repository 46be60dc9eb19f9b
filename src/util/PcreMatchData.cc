#include "util/PcreMatchData.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace {

class ThreadBuffer {
 public:
  ~ThreadBuffer() {
    if (md_) pcre2_match_data_free(md_);
  }
  pcre2_match_data* get(uint32_t pairs) {
    if (pairs > pairs_ || md_ == nullptr) {
      if (md_) pcre2_match_data_free(md_);
      // Grow in steps so that a mix of patterns settles on one buffer.
      uint32_t want = pairs < 16 ? 16 : pairs;
      md_ = pcre2_match_data_create(want, nullptr);
      pairs_ = md_ ? want : 0;
    }
    return md_;
  }

 private:
  pcre2_match_data* md_ = nullptr;
  uint32_t pairs_ = 0;
};

thread_local ThreadBuffer tlBuffer;

}  // namespace

pcre2_match_data* PcreMatchData::forThread(uint32_t pairs) { return tlBuffer.get(pairs); }

// SocketCommandConsumer: reads a stream of messages from a socket on the
// event loop and hands the buffered bytes to consumeData() until it takes
// no more. A message that is not complete yet makes consumeData() return 0;
// its bytes stay buffered until the rest arrives, so a message may be split
// across any number of reads.
//
// Ownership: the buffer belongs to the object; the descriptor to its owner.
// Threads: the loop's thread.
#pragma once

#include "util/PolledSocket.h"
#include "util/Str.h"

class SocketCommandConsumer : public PolledSocket {
 public:
  // Bytes taken from the socket per read.
  static constexpr size_t kReadSize = 4096;

  // Reads once, then consumes; true (finished) at end of file or on a read
  // error other than EAGAIN and EINTR. Bytes left unconsumed at end of file
  // are dropped (logged).
  bool when_readable(PollableDescriptor fd) override;
  // The number of bytes of complete messages consumed from the front of
  // data, or 0 when the first message is not complete.
  // REQUIRES: the result is not larger than data.
  virtual size_t consumeData(const Str& data) = 0;

  size_t buffered() const { return _buffer.size(); }

 private:
  Str _buffer;
};

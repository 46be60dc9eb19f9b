// STPersistentRecord: one entry of the "values" log of an
// STPersistentStorageImpl store (a write or a removal of a primary key), and
// its byte form. The log is the durable truth of the store; the engine index
// beside it only says where in the log each key's records lie.
//
// Log file "values", little-endian throughout:
//
//   File head
//   OFFSET  SIZE  MEANING
//   0       8     magic "VelmorPS"
//   8       4     format version, 1
//   12      4     zero
//
//   Records follow from offset 16, each starting at a multiple of 8:
//   OFFSET  SIZE  MEANING
//   0       4     marker "VRec"
//   4       4     CRC-32 (zlib) of bytes 8 .. 36+P+S1+S2+S3+V (padding excluded)
//   8       4     sequence number: 1 for the first record, +1 for each next
//   12      1     kind: 1 write, 2 removal
//   13      3     zero
//   16      4     P, bytes of the primary key
//   20      4     S1, bytes of secondary key 1
//   24      4     S2, bytes of secondary key 2
//   28      4     S3, bytes of secondary key 3
//   32      4     V, bytes of the value
//   36      P     primary key, then S1, S2, S3 and V bytes in that order
//   ...     0-7   zero bytes up to the next multiple of 8
//
// A removal carries only its primary key. Keys and values are bytes (a NUL
// is allowed). A record whose marker, kind, lengths or checksum do not hold
// is not a record: decode() says whether it is cut short by the end of the
// bytes given or damaged. A plain value; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pipeline/indexer/PSKey.h"
#include "util/Str.h"

struct STPersistentRecord {
  enum Kind : uint8_t { kWrite = 1, kRemove = 2 };
  enum Status { kOk, kShort, kBad };

  static const size_t kFileHeadSize = 16;
  static const size_t kHeadSize = 36;
  static const size_t kAlign = 8;
  // Largest record (head, keys, value and padding) accepted either way.
  static const uint64_t kMaxRecordSize = 1ull << 30;

  uint32_t seq = 0;
  Kind kind = kWrite;
  PSKey key;
  Str value;

  // The 16 bytes that open a log file.
  static Str fileHead();
  // True if `data` (at least kFileHeadSize bytes) opens a log file.
  static bool isFileHead(const char* data, size_t size);

  // Bytes encode() appends, padding included.
  uint64_t encodedSize() const;
  // Appends the record in its byte form. REQUIRES: encodedSize() <= kMaxRecordSize.
  void encode(Str& out) const;

  // Reads the head of a record (kHeadSize bytes): kOk with the padded size of
  // the whole record, or kBad for a head that cannot start a record.
  static Status sizeFromHead(const char* head, uint64_t& size);
  // Decodes the record at the start of data[0, size). kOk fills `out` and
  // `used` (padded size); kShort when the bytes end inside it; kBad otherwise.
  static Status decode(const char* data, size_t size, STPersistentRecord& out, uint64_t& used);
};

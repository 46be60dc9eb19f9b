#include "pipeline/indexer/STPersistentRecord.h"

#include <zlib.h>

#include <cstring>

namespace {

const char kMagic[8] = {'V', 'e', 'l', 'm', 'o', 'r', 'P', 'S'};
const uint32_t kVersion = 1;
const char kMarker[4] = {'V', 'R', 'e', 'c'};

void putLE32(char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = char((v >> (8 * i)) & 0xFF);
}

uint32_t getLE32(const char* p) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(p[i]);
  return v;
}

uint64_t padded(uint64_t n) { return (n + STPersistentRecord::kAlign - 1) & ~uint64_t(STPersistentRecord::kAlign - 1); }

uint32_t crcOf(const char* p, size_t n) {
  uLong c = crc32(0L, Z_NULL, 0);
  // zlib takes uInt lengths; records are far below 4 GiB.
  return uint32_t(crc32(c, reinterpret_cast<const Bytef*>(p), uInt(n)));
}

}  // namespace

Str STPersistentRecord::fileHead() {
  char head[kFileHeadSize] = {};
  memcpy(head, kMagic, 8);
  putLE32(head + 8, kVersion);
  return Str(head, kFileHeadSize);
}

bool STPersistentRecord::isFileHead(const char* data, size_t size) {
  return size >= kFileHeadSize && memcmp(data, kMagic, 8) == 0 && getLE32(data + 8) == kVersion &&
         getLE32(data + 12) == 0;
}

uint64_t STPersistentRecord::encodedSize() const {
  return padded(kHeadSize + uint64_t(key.primary.size()) + key.secondary1.size() + key.secondary2.size() +
                key.secondary3.size() + value.size());
}

void STPersistentRecord::encode(Str& out) const {
  size_t at = out.size();
  uint64_t total = encodedSize();
  out.resize(at + total, '\0');
  char* p = out.data() + at;
  memcpy(p, kMarker, 4);
  putLE32(p + 8, seq);
  p[12] = char(kind);
  const Str* parts[5] = {&key.primary, &key.secondary1, &key.secondary2, &key.secondary3, &value};
  size_t pos = kHeadSize;
  for (int i = 0; i < 5; ++i) {
    putLE32(p + 16 + 4 * i, uint32_t(parts[i]->size()));
    memcpy(p + pos, parts[i]->data(), parts[i]->size());
    pos += parts[i]->size();
  }
  putLE32(p + 4, crcOf(p + 8, pos - 8));
}

STPersistentRecord::Status STPersistentRecord::sizeFromHead(const char* head, uint64_t& size) {
  if (memcmp(head, kMarker, 4) != 0) return kBad;
  uint8_t kind = uint8_t(head[12]);
  if ((kind != kWrite && kind != kRemove) || head[13] || head[14] || head[15]) return kBad;
  uint64_t body = 0;
  for (int i = 0; i < 5; ++i) body += getLE32(head + 16 + 4 * i);
  if (kind == kRemove && body != getLE32(head + 16)) return kBad;  // a removal has only its key
  size = padded(kHeadSize + body);
  return size <= kMaxRecordSize ? kOk : kBad;
}

STPersistentRecord::Status STPersistentRecord::decode(const char* data, size_t size, STPersistentRecord& out,
                                                      uint64_t& used) {
  if (size < kHeadSize) return kShort;
  uint64_t total;
  if (sizeFromHead(data, total) != kOk) return kBad;
  if (total > size) return kShort;
  size_t end = kHeadSize;
  for (int i = 0; i < 5; ++i) end += getLE32(data + 16 + 4 * i);
  if (crcOf(data + 8, end - 8) != getLE32(data + 4)) return kBad;
  for (size_t i = end; i < total; ++i)
    if (data[i]) return kBad;
  out.seq = getLE32(data + 8);
  out.kind = Kind(uint8_t(data[12]));
  Str* parts[5] = {&out.key.primary, &out.key.secondary1, &out.key.secondary2, &out.key.secondary3, &out.value};
  size_t pos = kHeadSize;
  for (int i = 0; i < 5; ++i) {
    uint32_t n = getLE32(data + 16 + 4 * i);
    parts[i]->assign(data + pos, n);
    pos += n;
  }
  used = total;
  return kOk;
}

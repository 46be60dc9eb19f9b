// ValueWrapper: names one event of an index: the bucket that holds it, its
// raw data address there, its time and the bucket's codes of its host,
// source, source type and event type. A plain value.
//
// The event's "_cd" field, its seek address, is "<bucket id>:<address>".
#pragma once

#include <cstdint>

#include "searchthing/st_types.h"
#include "util/Str.h"
#include "util/StrSegment.h"

struct ValueWrapper {
  uint32_t bucketId = 0;
  uint32_t address = 0;
  int32_t time = 0;
  uint32_t type = 0;
  uint32_t source = 0;
  uint32_t sourceType = 0;
  uint32_t host = 0;

  ValueWrapper() = default;
  ValueWrapper(uint32_t id, const st_tsval& v)
      : bucketId(id), address(v.address), time(v.time), type(v.type), source(v.source),
        sourceType(v.source_type), host(v.host) {}

  // "<bucket id>:<address>".
  Str cd() const;
  // The same text into buf (NUL-terminated, 22 bytes are always enough);
  // returns its length. For per-event use: no allocation.
  size_t cdInto(char* buf, size_t size) const;
  // Reads a "_cd" text back; false unless it is two decimal numbers joined
  // by one colon.
  static bool parseCd(const StrSegment& text, uint32_t& bucketId, uint32_t& address);

  // Newest first: time descending, then bucket id and address descending.
  bool operator<(const ValueWrapper& o) const {
    if (time != o.time) return time > o.time;
    if (bucketId != o.bucketId) return bucketId > o.bucketId;
    return address > o.address;
  }
  bool operator==(const ValueWrapper& o) const { return bucketId == o.bucketId && address == o.address; }
};

// BlockSigner: cuts the events of each source into blocks of `blockSize`
// events and signs each block, so that a later read can tell whether an
// event's text was changed.
//
// An event's hash is its signature key's value when it has one; otherwise
// the Base64 of the first 20 bytes of the SHA-256 of its raw text (the
// truncation is part of the format). A block is two texts: the seek
// addresses ("<bucket id>:<address>") of its events and their hashes, each
// followed by a blank. Its signature is the same hash taken over the text of
// hashes, passed through the private key when there is one (the bare hash
// stands otherwise).
//
// Threads: add/flush take the signer's own mutex; hashing and verifying are
// reentrant.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <vector>

#include "pipeline/indexer/RSAPrivateKey.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class BlockSigner {
 public:
  struct Block {
    Str source;     // the signed source
    Str addresses;  // "<cd> " per event
    Str hashes;     // "<hash> " per event
    Str signature;
    size_t count = 0;
  };
  enum Audit { kValid, kTampered, kCantValidate };
  static const char* auditName(Audit a);  // "audit_valid", "audit_tampered", "audit_cantValidate"

  explicit BlockSigner(size_t blockSize);
  // False when the key cannot be loaded (blocks stay unkeyed).
  bool setPrivateKey(const Pathname& pemFile);
  bool setPrivateKeyText(const StrSegment& pem);
  bool hasKey() const { return _key.isLoaded(); }

  // Base64 of the first 20 bytes of SHA-256(text).
  static Str hash20(const StrSegment& text);
  // The hash of one event: its signature when given, else hash20(raw). An
  // event with neither gives an empty text (logged).
  static Str eventHash(const StrSegment& raw, const StrSegment& signature);

  // Adds an event to its source's block; when that block is full it is
  // signed, handed out in `full` and true returned.
  bool add(const Str& source, const Str& cd, const Str& hash, Block& full);
  // Signs and hands out every partial block.
  std::vector<Block> flush();
  // Signature over a block's hashes.
  Str sign(const Str& hashes) const;

  // Checks one event read back (its cd and the hash of what was read)
  // against a block: kCantValidate when the block does not name the event,
  // kTampered when the hash or the block's signature does not match.
  Audit verify(const Block& block, const StrSegment& cd, const Str& hash) const;

 private:
  struct Pending {
    Str addresses;
    Str hashes;
    size_t count = 0;
  };
  Block seal(const Str& source, Pending& p);

  size_t _blockSize;
  RSAPrivateKey _key;
  Mutex _mutex;
  std::map<Str, Pending> _pending;
};

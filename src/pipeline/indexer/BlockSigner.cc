#include "pipeline/indexer/BlockSigner.h"

#include <openssl/sha.h>

#include "util/Base64.h"
#include "util/Logger.h"

static Logger gLogger("DatabasePartitionPolicy");

const char* BlockSigner::auditName(Audit a) {
  switch (a) {
    case kValid:
      return "audit_valid";
    case kTampered:
      return "audit_tampered";
    default:
      return "audit_cantValidate";
  }
}

BlockSigner::BlockSigner(size_t blockSize) : _blockSize(blockSize ? blockSize : 1) {}

bool BlockSigner::setPrivateKey(const Pathname& pemFile) { return _key.loadPemFile(pemFile); }
bool BlockSigner::setPrivateKeyText(const StrSegment& pem) { return _key.loadPemText(pem); }

Str BlockSigner::hash20(const StrSegment& text) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256((const unsigned char*)text.data(), text.size(), digest);
  return Base64::encode(digest, 20);
}

Str BlockSigner::eventHash(const StrSegment& raw, const StrSegment& signature) {
  if (!signature.empty()) return Str(signature);
  if (raw.empty()) {
    gLogger.warn("Got an event for block signing that had no raw text.");
    return Str();
  }
  return hash20(raw);
}

Str BlockSigner::sign(const Str& hashes) const {
  Str h = hash20(StrSegment(hashes));
  return _key.isLoaded() ? _key.encrypt(StrSegment(h)) : h;
}

BlockSigner::Block BlockSigner::seal(const Str& source, Pending& p) {
  Block b;
  b.source = source;
  b.addresses.swap(p.addresses);
  b.hashes.swap(p.hashes);
  b.count = p.count;
  b.signature = sign(b.hashes);
  p = Pending();
  p.addresses.reserve(_blockSize * 20);
  p.hashes.reserve(_blockSize * 10);
  return b;
}

bool BlockSigner::add(const Str& source, const Str& cd, const Str& hash, Block& full) {
  ScopedLock l(_mutex);
  Pending& p = _pending[source];
  if (p.count == 0 && p.addresses.capacity() < _blockSize * 20) {
    p.addresses.reserve(_blockSize * 20);
    p.hashes.reserve(_blockSize * 10);
  }
  p.addresses += cd;
  p.addresses += ' ';
  p.hashes += hash;
  p.hashes += ' ';
  if (++p.count < _blockSize) return false;
  full = seal(source, p);
  return true;
}

std::vector<BlockSigner::Block> BlockSigner::flush() {
  ScopedLock l(_mutex);
  std::vector<Block> out;
  for (auto& [source, p] : _pending)
    if (p.count > 0) out.push_back(seal(source, p));
  _pending.clear();
  return out;
}

BlockSigner::Audit BlockSigner::verify(const Block& block, const StrSegment& cd, const Str& hash) const {
  // Position of the event in the block.
  size_t index = 0, at = 0;
  bool found = false;
  for (size_t sp; (sp = block.addresses.find(' ', at)) != Str::npos; at = sp + 1, ++index) {
    if (StrSegment(block.addresses.data() + at, sp - at) == cd) {
      found = true;
      break;
    }
  }
  if (!found) return kCantValidate;
  at = 0;
  for (size_t i = 0; i < index; ++i) {
    at = block.hashes.find(' ', at);
    if (at == Str::npos) return kTampered;
    ++at;
  }
  size_t end = block.hashes.find(' ', at);
  if (end == Str::npos || block.hashes.compare(at, end - at, hash) != 0) return kTampered;
  Str h = hash20(StrSegment(block.hashes));
  bool sigOk = _key.isLoaded() ? _key.verify(StrSegment(h), StrSegment(block.signature)) : h == block.signature;
  return sigOk ? kValid : kTampered;
}

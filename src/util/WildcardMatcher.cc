#include "util/WildcardMatcher.h"

#include <cstring>
#include <string.h>

namespace {
const Str kEmpty;
}

void WildcardMatcher::init(const StrSegment& pattern) {
  _pattern = Str(pattern);
  _pieces.clear();
  const size_t n = _pattern.size();
  if (_pattern.find('*') == Str::npos) {
    _type = TYPE_EXACT_WORD;
    _hardStart = _hardEnd = true;
    return;
  }
  _hardStart = n > 0 && _pattern.front() != '*';
  _hardEnd = n > 0 && _pattern.back() != '*';
  size_t i = 0;
  while (i < n) {
    const size_t star = _pattern.find('*', i);
    const size_t end = star == Str::npos ? n : star;
    if (end > i) {
      if (_pieces.size() == kMaxPieces) {
        _hardEnd = false;
        break;
      }
      _pieces.emplace_back(_pattern.substr(i, end - i));
    }
    i = end + 1;
  }
  _type = _pieces.empty() ? TYPE_MATCH_ALL : TYPE_WILDCARD;
}

const Str& WildcardMatcher::getWord() const {
  if (_type == TYPE_EXACT_WORD) return _pattern;
  return _pieces.empty() ? kEmpty : _pieces.front();
}

Str WildcardMatcher::getPatternPrefix() const {
  if (_type == TYPE_EXACT_WORD) return _pattern;
  return _hardStart ? _pieces.front() : Str();
}

bool WildcardMatcher::isMatch(const char* text) const {
  if (!text) text = "";
  if (_type == TYPE_EXACT_WORD) return std::strcmp(text, _pattern.c_str()) == 0;
  return match(text, std::strlen(text), nullptr, nullptr, nullptr);
}

bool WildcardMatcher::isMatch(const StrSegment& text) const {
  return match(text.data(), text.size(), nullptr, nullptr, nullptr);
}

bool WildcardMatcher::isMatch(const StrSegment& text, size_t* from, size_t* to) const {
  return match(text.data(), text.size(), from, to, nullptr);
}

bool WildcardMatcher::isMatch(const StrSegment& text, std::vector<StrSegment>& stars) const {
  stars.clear();
  return match(text.data(), text.size(), nullptr, nullptr, &stars);
}

bool WildcardMatcher::match(const char* text, size_t len, size_t* from, size_t* to,
                            std::vector<StrSegment>* stars) const {
  if (!text) text = "";
  if (_type == TYPE_EXACT_WORD) {
    if (len != _pattern.size() || (len && std::memcmp(text, _pattern.data(), len) != 0))
      return false;
    if (from) *from = 0;
    if (to) *to = len;
    return true;
  }
  if (_pieces.empty()) {  // only stars
    if (from) *from = 0;
    if (to) *to = len;
    if (stars) stars->emplace_back(text, len);
    return true;
  }

  const size_t count = _pieces.size();
  size_t pos = 0;  // everything before pos is consumed
  size_t first = 0;
  size_t i = 0;
  if (_hardStart) {
    const Str& p = _pieces[0];
    if (!mem_startswith(text, len, p.data(), p.size())) return false;
    pos = p.size();
    i = 1;
  }
  // With a hard end the last piece is matched against the tail below, unless
  // it is also the (already matched) first piece.
  const size_t middleEnd = (_hardEnd && count > i) ? count - 1 : count;
  for (; i < middleEnd; ++i) {
    const Str& p = _pieces[i];
    const void* hit = memmem(text + pos, len - pos, p.data(), p.size());
    if (!hit) return false;
    const size_t at = static_cast<size_t>(static_cast<const char*>(hit) - text);
    if (i == 0) first = at;
    if (stars) stars->emplace_back(text + pos, at - pos);
    pos = at + p.size();
  }
  if (middleEnd < count) {
    const Str& p = _pieces[count - 1];
    if (len - pos < p.size() || std::memcmp(text + len - p.size(), p.data(), p.size()) != 0)
      return false;
    const size_t at = len - p.size();
    if (count == 1) first = at;
    if (stars) stars->emplace_back(text + pos, at - pos);
    pos = len;
  } else if (stars) {
    stars->emplace_back(text + pos, len - pos);  // the trailing star
  }
  if (from) *from = first;
  if (to) *to = pos;
  return true;
}

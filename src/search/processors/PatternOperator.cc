#include "search/processors/PatternOperator.h"

#include "libbundle/StringMgr.h"
#include "search/SL.h"
#include "search/SearchResults.h"
#include "search/processors/PatternBuilder.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

namespace {
Logger gLogger("transaction");
}

PatternOperator::PatternOperator(const std::vector<std::pair<Str, Str>>& aliases, const Str& pattern) {
  if (aliases.size() > kMaxAliases)
    throw SearchProcessorException(
        Str::fromFormat(StringMgr::str("TRANSAM_TOO_MANY_ALIASES__LU").c_str(), static_cast<unsigned long>(kMaxAliases))
            .c_str());
  std::map<Str, char> letters;
  for (size_t i = 0; i < aliases.size(); ++i) {
    char l = static_cast<char>(i < 26 ? 'A' + i : 'a' + (i - 26));
    letters[aliases[i].first] = l;
    if (_typeLetter.emplace(aliases[i].second, l).second) _typeOrder.push_back(aliases[i].second);
  }
  _regex = PatternBuilder::convert(pattern, letters);
  gLogger.debug("Converted: %s", _regex.c_str());
  _re = std::make_unique<RE>("(" + _regex + ")", RE_Options().set_dotall(true));
  if (!_re->error().empty())
    throw SearchProcessorException(
        Str::fromFormat(StringMgr::str("TRANSAM_BAD_PATTERN__S_S").c_str(), pattern.c_str(), _re->error().c_str())
            .c_str());
}

void PatternOperator::prepare(SearchResults& results) { _typeKey = results.keyIndex(SL::EventTypes); }

void PatternOperator::getEventTypeStream(const Candidate& c, Str& text) const {
  text.clear();
  std::vector<Str> types;
  for (const CandidateEvent& e : c.events) {
    char letter = '_';
    if (_typeKey != 0 && e.row->getMultiValues(_typeKey, types)) {
      // A value may also list several types separated by blanks.
      std::vector<Str> names;
      for (const Str& t : types) {
        size_t i = 0;
        while (i < t.size()) {
          size_t j = t.find(' ', i);
          if (j == Str::npos) j = t.size();
          if (j > i) names.push_back(Str(t.substr(i, j - i)));
          i = j + 1;
        }
      }
      for (const Str& want : _typeOrder) {
        bool has = false;
        for (const Str& n : names) has = has || n == want;
        if (has) {
          letter = _typeLetter.at(want);
          break;
        }
      }
    }
    text += letter;
  }
}

void PatternOperator::processCandidate(const Candidate& in, std::vector<Candidate>& out) {
  Str stream;
  getEventTypeStream(in, stream);
  gLogger.debug("EventTypeStream: %s", stream.c_str());
  const int groups = _re->NumberOfCapturingGroups();
  std::vector<StringPiece> caps(static_cast<size_t>(groups));
  std::vector<RE::Arg> argv;
  std::vector<const RE::Arg*> argp;
  argv.reserve(caps.size());
  for (StringPiece& sp : caps) argv.emplace_back(&sp);
  for (const RE::Arg& a : argv) argp.push_back(&a);
  std::vector<char> gap(stream.size());
  size_t pos = 0;
  while (pos < stream.size()) {
    StringPiece text(stream.data() + pos, stream.size() - pos);
    int consumed = 0;
    for (StringPiece& sp : caps) sp = StringPiece();
    bool matched = _re->DoMatch(text, RE::UNANCHORED, &consumed, argp.data(), groups);
    gLogger.debug("Matched? %s", matched ? "yes" : "no");
    if (!matched) break;
    size_t start = static_cast<size_t>(caps[0].data() - stream.data());
    size_t end = start + caps[0].size();
    gLogger.debug("Match: '%.*s' Location: %d Count: %d Position: %d", static_cast<int>(caps[0].size()),
                  caps[0].data(), static_cast<int>(start), static_cast<int>(caps[0].size()), static_cast<int>(pos));
    if (end == start) {  // an empty match takes no event
      pos = start + 1;
      continue;
    }
    for (size_t g = 1; g < caps.size(); ++g) {
      if (caps[g].data() == nullptr || caps[g].size() == 0) continue;
      size_t s = static_cast<size_t>(caps[g].data() - stream.data());
      for (size_t k = s; k < s + caps[g].size(); ++k) gap[k] = 1;
    }
    out.emplace_back();
    Candidate& c = out.back();
    c.values = in.values;
    c.present = in.present;
    for (size_t k = start; k < end; ++k)
      if (!gap[k]) CandidateOperator::updateCandidate(in.events[k], c);
    pos = end;
  }
}

#include "pipeline/indexer/GetHelp.h"

#include <algorithm>
#include <cstdio>

#include "pipeline/indexer/CompiledQueryLanguage.h"
#include "pipeline/indexer/Query.h"

namespace {

Str joined(const std::vector<Str>& v) {
  Str out;
  for (const Str& s : v) {
    if (!out.empty()) out += ',';
    out += s;
  }
  return out;
}

}  // namespace

void GetHelp::runModule() {
  CompiledQueryLanguage& lang = CompiledQueryLanguage::getInstance();
  const Str asked = getArg("help");
  std::vector<Str> keywords;
  if (asked.empty() || asked == "all") {
    for (const char* control : {"SEARCH", "GET", "OUTPUT"})
      for (const Str& k : lang.getKeywords(control)) keywords.push_back(k);
    std::sort(keywords.begin(), keywords.end());
    keywords.erase(std::unique(keywords.begin(), keywords.end()), keywords.end());
  } else {
    keywords.push_back(asked);
  }
  Str out;
  for (const Str& k : keywords) {
    const auto found = lang.getHelp(k);
    if (found.empty()) {
      _query->addMessage("INFO", "Unable to find help for " + k);
      out += "<help keyword=\"" + CompiledQueryLanguage::xmlEscape(k) + "\"></help>\n";
    }
    for (const auto& [control, def] : found)
      out += "<help keyword=\"" + CompiledQueryLanguage::xmlEscape(k) + "\" control=\"" + control + "\" module=\"" +
             CompiledQueryLanguage::xmlEscape(def->name) + "\" required=\"" +
             CompiledQueryLanguage::xmlEscape(joined(def->requiredArgs)) + "\" optional=\"" +
             CompiledQueryLanguage::xmlEscape(joined(def->optionalArgs)) + "\">" +
             CompiledQueryLanguage::xmlEscape(def->helpText) + "</help>\n";
  }
  if (FILE* f = _query->output()) std::fwrite(out.data(), 1, out.size(), f);
}

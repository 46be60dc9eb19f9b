#include "search/processors/TagsGenerateProcessor.h"

#include <set>

#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/TagsAnnotateProcessor.h"
#include "util/Logger.h"

namespace {
Logger gLogger("tags");
}

void TagsGenerateProcessor::processArguments() {
  Str usage = "usage: " + name + " <field>=<value> <tag>...";
  bool found = false;
  for (size_t i = 0; i < args.size() && !found; ++i) {
    StringArg* a = unconsumedString(i);
    if (a && a->isOption()) {
      _field = a->getOptionName();
      _value = a->getOptionValue();
      a->setConsumed();
      found = true;
    }
  }
  if (!found || _field.empty()) throw searchError(this, gLogger, "%s", usage.c_str());
  std::set<Str> tags;
  getFieldSet(tags);
  _tags.assign(tags.begin(), tags.end());
  if (_tags.empty() && name != "tagset") throw searchError(this, gLogger, "%s", usage.c_str());
  for (const Str& t : _tags)
    if (t.find_first_of(" =[]") != Str::npos)
      throw searchError(this, gLogger, "Invalid tag name '%s'", t.c_str());
  refuseLeftovers();
}

void TagsGenerateProcessor::execute(SearchResults&, SearchResultsInfo& info) {
  if (_done) return;
  _done = true;
  PropertyPages& pages = PropertyPages::instance("tags");
  Str stanza = _field + "=" + _value;
  PropertiesMap edit;
  if (name == "tagset") {
    PropertiesMap old;
    pages.pushLayer(old, stanza, false);
    for (const auto& kv : old) edit.put(kv.first, Str("disabled"));
  }
  for (const Str& t : _tags) edit.put(t, Str(name == "tagdelete" ? "disabled" : "enabled"));
  if (!pages.putLocal(stanza, edit, false))
    throw searchError(this, gLogger, "Could not save the tags of %s", stanza.c_str());
  std::vector<Str> now;
  TagsAnnotateProcessor::lookupTags(_field, _value, now);
  Str text = "Tags of " + stanza + ":";
  for (const Str& t : now) text += " " + t;
  info.addInfo(text);
}

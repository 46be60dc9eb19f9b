#include "framework/SavedVelmor.h"

#include <strings.h>

#include <cstring>

#include <set>

#include "libbundle/PropertiesMap.h"
#include "util/Logger.h"
#include "util/xml/XmlNode.h"

static Logger gLogger("SavedVelmor");

const char* const SavedVelmor::kFieldNames[] = {
    "query",    "name",        "isGlobal", "notifyIfExist", "userid",      "role",         "isEventType",
    "tags",     "priority",    "description", "schedule",   "relation",    "quantity",     "group",
    "nextrun",  "counttype",   "enableSched", "action_email", "action_rss", "action_script", "sendresults"};
const size_t SavedVelmor::kFieldCount = sizeof(kFieldNames) / sizeof(kFieldNames[0]);

namespace {

// The member of each field, in kFieldNames order.
Str SavedVelmor::* const kMembers[] = {
    &SavedVelmor::query,       &SavedVelmor::name,         &SavedVelmor::isGlobal,   &SavedVelmor::notifyIfExist,
    &SavedVelmor::userid,      &SavedVelmor::role,         &SavedVelmor::isEventType, &SavedVelmor::tags,
    &SavedVelmor::priority,    &SavedVelmor::description,  &SavedVelmor::schedule,   &SavedVelmor::relation,
    &SavedVelmor::quantity,    &SavedVelmor::group,        &SavedVelmor::nextrun,    &SavedVelmor::counttype,
    &SavedVelmor::enableSched, &SavedVelmor::action_email, &SavedVelmor::action_rss, &SavedVelmor::action_script,
    &SavedVelmor::sendresults};
static_assert(sizeof(kMembers) / sizeof(kMembers[0]) == 21);

// Keys of the property form that are not fields written as they are.
bool isStanzaOnlyField(const char* f) { return strcmp(f, "name") == 0 || strcmp(f, "isEventType") == 0; }

}  // namespace

Str* SavedVelmor::field(const Str& fieldName) {
  for (size_t i = 0; i < kFieldCount; ++i)
    if (fieldName == kFieldNames[i]) return &(this->*kMembers[i]);
  return nullptr;
}

const Str* SavedVelmor::field(const Str& fieldName) const { return const_cast<SavedVelmor*>(this)->field(fieldName); }

void SavedVelmor::appendXmlEscaped(Str& out, const Str& text) {
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
}

bool SavedVelmor::isTrue(const Str& flag) {
  return strcasecmp(flag.c_str(), "true") == 0 || strcasecmp(flag.c_str(), "yes") == 0 || flag == "1";
}

std::vector<Str> SavedVelmor::tagList() const {
  std::vector<Str> out;
  std::set<Str> seen;
  Str t;
  auto flush = [&] {
    if (!t.empty() && seen.insert(t).second) out.push_back(t);
    t.clear();
  };
  for (char c : tags) {
    if (c == ',' || c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      flush();
    } else {
      t += c;
    }
  }
  flush();
  return out;
}

void SavedVelmor::toxml(Str& out) const {
  out = "<savedVelmor>";
  for (size_t i = 0; i < kFieldCount; ++i) {
    const Str& v = this->*kMembers[i];
    out += '<';
    out += kFieldNames[i];
    out += '>';
    appendXmlEscaped(out, v);
    out += "</";
    out += kFieldNames[i];
    out += '>';
  }
  out += "</savedVelmor>";
}

Str SavedVelmor::templateXml() {
  Str out;
  SavedVelmor().toxml(out);
  return out;
}

void SavedVelmor::fromxml(const xml::node& node) {
  for (size_t i = 0; i < kFieldCount; ++i) {
    std::string v;
    if (node.child_content(kFieldNames[i], v)) this->*kMembers[i] = Str(v);
  }
  gLogger.debug("[fromxml] Got userid: [%s]", userid.c_str());
}

void SavedVelmor::toPropMap(PropertiesMap* out) const {
  for (size_t i = 0; i < kFieldCount; ++i) {
    if (isStanzaOnlyField(kFieldNames[i])) continue;
    const Str& v = this->*kMembers[i];
    if (!v.empty()) out->put(Str(kFieldNames[i]), v);
  }
}

void SavedVelmor::fromPropMap(const PropertiesMap* in) {
  if (in == nullptr) return;
  for (size_t i = 0; i < kFieldCount; ++i) {
    if (isStanzaOnlyField(kFieldNames[i])) continue;
    Str v;
    if (in->get(kFieldNames[i], v)) this->*kMembers[i] = v;
  }
  Str alias;
  if (query.empty() && in->get("search", alias)) query = alias;
}

bool SavedVelmor::operator==(const SavedVelmor& o) const {
  for (size_t i = 0; i < kFieldCount; ++i)
    if (this->*kMembers[i] != o.*kMembers[i]) return false;
  return true;
}

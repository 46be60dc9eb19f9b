// SavedVelmor: one stored search or event type, as the saved search store
// keeps it. Every field is a public Str named as its key in the property
// files and its element in the XML form; an empty field is "not set" (which
// is what query by example relies on).
//
// Flags are Str as well, so that "not given" can be told from "false":
// isEventType, isGlobal and enableSched read as true for "true", "yes" and
// "1" in any case (see the helpers eventType(), global(), scheduled()).
// "tags" holds the tags separated by blanks or commas.
//
// Forms:
//   XML       <savedVelmor><query>..</query><name>..</name>...</savedVelmor>,
//             each field an element; templateXml() is the empty form.
//   property  one stanza per name, the stanza name being the name; each set
//             field is a key except "name" and "isEventType" (the file says
//             which store it is: savedsearches.conf or eventtypes.conf).
//             Reading accepts "search" for "query" (older event type files).
//
// Where a search is written is chosen by BundleType. ConfigTypeEnum names the
// two stores.
//
// A plain value: no locking; one thread at a time per object.
#pragma once

#include <cstddef>
#include <vector>

#include "util/Str.h"

class PropertiesMap;
namespace xml {
class node;
}

// Which layer a search is saved to. Both go to the bundle "local" (there are
// no per-user bundles); a user's own search carries its "userid".
enum class BundleType { global, user };

// The two stores.
enum class ConfigTypeEnum { savedsearches, eventtypes };

struct SavedVelmor {
  Str query;
  Str name;
  Str isGlobal;
  Str notifyIfExist;
  Str userid;
  Str role;
  Str isEventType;
  Str tags;
  Str priority;
  Str description;
  Str schedule;
  Str relation;
  Str quantity;
  Str group;
  Str nextrun;
  Str counttype;
  Str enableSched;
  Str action_email;
  Str action_rss;
  Str action_script;
  Str sendresults;

  // The field names, in the order of the XML template.
  static const char* const kFieldNames[];
  static const size_t kFieldCount;

  // The field of that name, or null.
  Str* field(const Str& fieldName);
  const Str* field(const Str& fieldName) const;

  bool eventType() const { return isTrue(isEventType); }
  bool global() const { return isTrue(isGlobal); }
  bool scheduled() const { return isTrue(enableSched); }
  // "savedsearch" or "eventtype".
  const char* typeName() const { return eventType() ? "eventtype" : "savedsearch"; }
  // The tags, split at blanks and commas, empty ones dropped, in order,
  // each once.
  std::vector<Str> tagList() const;

  // Conversions. toxml replaces `out`; fromxml reads the children of a
  // <savedVelmor> element (fields absent from it are left as they were) and
  // logs "[fromxml] Got userid: [%s]".
  void toxml(Str& out) const;
  void fromxml(const xml::node& node);
  // toPropMap adds the keys to `out` (REQUIRES non-null); fromPropMap reads
  // them, "search" standing in for an absent or empty "query". "name" comes
  // from the stanza name, so fromPropMap leaves it untouched.
  void toPropMap(PropertiesMap* out) const;
  void fromPropMap(const PropertiesMap* in);
  // The empty XML form: <savedVelmor> with each field an empty element.
  static Str templateXml();

  bool operator==(const SavedVelmor& o) const;

  // "true", "yes", "1" in any case.
  static bool isTrue(const Str& flag);
  // Appends `text` with & < > " as XML entities.
  static void appendXmlEscaped(Str& out, const Str& text);
};

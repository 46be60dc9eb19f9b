// PersistentMapManager: one named persistent map of keys to tags (a sorted
// set of words per key), held in the PersistentHashManager: the key k is
// stored as "<prefix>k" with its tags, sorted and each ended by "\n", as the
// value. A key whose last tag goes is removed.
//
// The maps of the process sit in numbered slots, made on first request by
// get_instance(); the five known ones have fixed slots and prefixes:
//   globalTagMapInstance()   "globaltag-"      tags of "tag::<field>::<value>"
//                                              and "tag::<value>" keys
//   globaltypeMapInstance()  "globaltypeid-"
//   sourcenameMapInstance()  "sourcetypename-"
//   hosttagMapInstance()     "hosttag-"
//   typetagMapInstance()     "typetag-"
// A map lives to the end of the process.
//
// Tags are non-empty and hold no newline; such a tag is refused. Each change
// is saved by the hash manager before it returns (false when it could not
// be). Threads: a map's read-modify-write steps run under its mutex; any
// thread may call any member.
#pragma once

#include <utility>
#include <vector>

#include "util/Mutex.h"
#include "util/Str.h"

class PersistentMapManager {
 public:
  enum Slot : unsigned {
    kGlobalTagSlot,
    kGlobalTypeSlot,
    kSourceNameSlot,
    kHostTagSlot,
    kTypeTagSlot,
    kSlotCount = 16,  // slots past the known ones are free for other maps
  };

  // The map in `slot`. With create, a missing one is made with `prefix`;
  // without, null. Null also for a slot out of range or already holding a
  // map of another prefix (logged).
  static PersistentMapManager* get_instance(unsigned slot, const char* prefix, bool create);
  static PersistentMapManager* globalTagMapInstance();
  static PersistentMapManager* globaltypeMapInstance();
  static PersistentMapManager* sourcenameMapInstance();
  static PersistentMapManager* hosttagMapInstance();
  static PersistentMapManager* typetagMapInstance();

  const Str& getPrefix() const { return _prefix; }

  // The key's tags in order; false (out empty) when it has none.
  bool getTags(const Str& key, std::vector<Str>& out);
  bool hasTag(const Str& key, const Str& tag);
  // Adding a tag the key has, or removing one it lacks, changes nothing and
  // is no failure.
  bool addTag(const Str& key, const Str& tag);
  bool removeTag(const Str& key, const Str& tag);
  // Replaces the key's tags (repeats fold; none removes the key).
  bool setTags(const Str& key, const std::vector<Str>& tags);
  bool removeKey(const Str& key);
  // Keys starting with keyPrefix, with their tags, in key order.
  std::vector<std::pair<Str, std::vector<Str>>> enumerate(const Str& keyPrefix = Str());
  // Keys starting with keyPrefix that carry tag, in key order.
  std::vector<Str> getKeysWithTag(const Str& tag, const Str& keyPrefix = Str());

  // The stored value of a sorted tag list, and back (sorted, repeats and
  // empty lines dropped).
  static Str encodeTags(const std::vector<Str>& sortedTags);
  static void decodeTags(const Str& value, std::vector<Str>& out);

 private:
  explicit PersistentMapManager(const Str& prefix) : _prefix(prefix) {}
  bool Locked_store(const Str& key, const std::vector<Str>& tags);

  Mutex _mutex;
  Str _prefix;
};

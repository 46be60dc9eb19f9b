// PropertiesMapConfig: one .conf file of one bundle.
//
// A bundle is a directory <common>/bundles/<bundle>/ or an archive
// <common>/bundles/<bundle>.bundle; the object holds the stanzas of
// <pagesName>.conf from it, parsed with the rules below, and writes them back
// with save() (directories only).
//
// File syntax. Lines are read with fgets into 65534 bytes, so a longer line is
// cut there and its rest reads as a new line. Only the first byte decides:
//   NUL or "\n"  empty line, passed over, not kept in _raw;
//   "#" or ";"   comment, kept in _raw of the current stanza;
//   "["          stanza head: the name runs to the last "]" of the line (with
//                none: warning "Missing ] for %s, reading to EOL" and the name
//                runs to the newline); a leading "sourcetype::" is removed; an
//                empty name is passed over. A stanza met again is continued;
//   other        a key line if it holds "=": key = text before the first "="
//                with white space stripped, value = the rest. While the value
//                is longer than one byte and ends in backslash-newline (or
//                backslash-CR-newline), those bytes become one newline and the
//                next line is appended whole. The value is then stripped.
//                Lines without "=" are kept in _raw and otherwise ignored.
// The first occurrence of a key within a stanza wins. Keys before any head
// belong to "default", which is always present. Each raw line is kept with its
// newline (one is added to a last line that has none).
//
// Pattern stanzas. With patterns in force, a stanza such as
// "source::/var/log/.../*.log" (a "::" with "*" or "..." after it) is also
// compiled into a regular expression over whole names; get(name, true) falls
// back to the patterns, in byte order of their stanza names, when no stanza
// has the exact name.
//
// Overlay (used to merge layers): see overlay().
//
// Threads: every member locks the object's mutex. Pointers into the stanzas
// (get, getDefault, propsByPrefix) stay valid only until the object is changed
// or reloaded. Lock order: PropertyPages before PropertiesMapConfig.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include "libbundle/MConfigFileReadCallback.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/SettingsMap.h"
#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

class FileStar;
class Regex;

class PropertiesMapConfig {
 public:
  // Loads <bundlePath>/<pagesName>.conf when bundlePath is a directory, or
  // the matching entries when it is a regular file (an archive). A file that
  // can't be read counts as empty.
  PropertiesMapConfig(const Pathname& bundlePath, const Str& pagesName, bool usePatterns);
  // Loads one .conf file given by its own path (no bundle around it).
  static std::unique_ptr<PropertiesMapConfig> fromFile(const Pathname& confFile, bool usePatterns);
  ~PropertiesMapConfig();
  PropertiesMapConfig(const PropertiesMapConfig&) = delete;
  PropertiesMapConfig& operator=(const PropertiesMapConfig&) = delete;

  // The .conf file (for an archive: <archive>/<pagesName>.conf, which save()
  // cannot write).
  const Pathname& getPath() const { return _path; }
  const Pathname& getBundlePath() const { return _bundlePath; }
  bool isArchive() const { return _isArchive; }
  bool usesPatterns() const { return _usePatterns; }

  // --- reading --------------------------------------------------------------
  // The live stanza, or null. With useRegex, pattern stanzas are tried when no
  // stanza has the exact name.
  PropertiesMap* get(const Str& stanza, bool useRegex);
  // A copy of the stanza into `out` (replacing it); false when absent.
  bool getCopy(const Str& stanza, bool useRegex, PropertiesMap& out);
  PropertiesMap* getDefault();
  void setDefault(const PropertiesMap& map);
  void keys(std::set<Str>& out);
  size_t size();
  bool propsExist(const Str& stanza);
  // Live stanzas whose name begins with `prefix` (all for "").
  void propsByPrefix(const Str& prefix, std::map<Str, PropertiesMap*>& out);
  // Copies of the stanzas whose name begins with `prefix`, added to `out`.
  void propsObjByPrefix(const Str& prefix, SettingsMap& out);
  void getSettings(SettingsMap& out);
  void setSettings(const SettingsMap& settings);
  // Re-reads the file from disk, dropping unsaved changes.
  void reset();
  // reset() if the file (or archive) changed on disk since it was read.
  // True when it was re-read.
  bool reloadIfChanged();

  // --- changing -------------------------------------------------------------
  // Adds or replaces a whole stanza, its _raw rewritten (see ConfRawEditor).
  void put(const Str& stanza, const PropertiesMap& map);
  // Changes the keys of `map` in a stanza (created if absent), keeping its
  // other keys.
  void edit(const Str& stanza, const PropertiesMap& map);
  // Writes "default"'s _raw, then "[name]\n<_raw>\n" for each other stanza,
  // into <path>.tmp, and renames it over the file. On failure logs
  // "Properties file (%s) cannot be written." and leaves the old file.
  bool save();

  // --- merging --------------------------------------------------------------
  // For each key of src: absent in dest -> added; "_raw" with mergeRaw ->
  // appended to dest's; a dest value of 3 bytes or more ending in "$+" -> the
  // "$+" removed and src's value appended; otherwise dest keeps its value.
  static void overlay(PropertiesMap& dest, const PropertiesMap& src, bool mergeRaw);
  // The same with this file's stanza as src; false when it has none.
  bool overlay(PropertiesMap& dest, const Str& stanzaName, bool mergeRaw, bool useRegex = false);

  // --- parsing --------------------------------------------------------------
  // Parse a file into `settings` (added to what it holds); "default" is made
  // present. False when the file cannot be opened.
  static bool loadSettings(SettingsMap& settings, const Pathname& file);
  static void loadSettings(SettingsMap& settings, FILE* file);
  static void loadSettings(SettingsMap& settings, const FileStar& file);

  static void registerCallback(MConfigFileReadCallback* cb);
  static void unregisterCallback(MConfigFileReadCallback* cb);

  // Stanza names that are file patterns (have "::" and then "*" or "...").
  static bool isPatternStanza(const Str& name);
  // The leading text of a pattern stanza name that its regular expression
  // matches literally (up to the first wildcard or regex special byte).
  static Str patternLiteralPrefix(const Str& name);

 private:
  struct OneFile {};
  PropertiesMapConfig(OneFile, const Pathname& confFile, bool usePatterns);
  void Locked_load();
  void Locked_compilePatterns();
  void Locked_clearPatterns();
  PropertiesMap* Locked_get(const Str& stanza, bool useRegex);

  Pathname _bundlePath;
  Pathname _path;
  Str _fileName;  // <pagesName>.conf
  bool _isArchive = false;
  bool _usePatterns;
  SettingsMap _settings;
  // A compiled pattern stanza, with the literal text every name it matches
  // begins with (checked first, so most names never reach the regex).
  struct Pattern {
    Regex* re;
    Str literalPrefix;
  };
  std::map<Str, Pattern> _patterns;
  // What the file looked like when read: size, mtime, inode (0s if absent).
  off_t _loadedSize = -1;
  long long _loadedMtimeNs = -1;
  ino_t _loadedIno = 0;
  Mutex _mutex;
};

#include "libbundle/ConfRawEditor.h"

#include <set>

#include "util/Logger.h"

static Logger gLogger("PropertiesMapConfig");

namespace {

bool endsWithContinuation(const Str& value) {
  if (value.size() <= 1) return false;
  size_t n = value.size();
  if (value[n - 1] != '\n') return false;
  if (value[n - 2] == '\\') return true;
  return n >= 3 && value[n - 2] == '\r' && value[n - 3] == '\\';
}

// The next physical line of `raw` from `pos`, with its newline if it has one.
Str nextLine(const Str& raw, size_t& pos) {
  size_t nl = raw.find('\n', pos);
  size_t end = nl == Str::npos ? raw.size() : nl + 1;
  Str line = raw.substr(pos, end - pos);
  pos = end;
  return line;
}

Str withoutNewline(const Str& line) {
  Str s = line;
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

}  // namespace

void ConfRawEditor::appendKeyLine(Str& out, const Str& key, const Str& value) {
  // A key that starts like a head or a comment is only read back as a key
  // from a line that starts with a blank.
  if (!key.empty() && (key[0] == '[' || key[0] == '#' || key[0] == ';')) out += ' ';
  out += key;
  out += " = ";
  // Reading strips a value, so blanks at either end cannot be kept; a
  // trailing newline in particular would become a continuation that swallows
  // the next line.
  Str v = value.trim();
  for (char c : v) {
    if (c == '\n') out += '\\';
    out += c;
  }
  // A value ending in a backslash gets a blank behind it, so that the line
  // does not read as continued (the blank is stripped again on reading).
  if (!v.empty() && v.back() == '\\') out += ' ';
  out += '\n';
}

Str ConfRawEditor::regenerate(const Str& oldRaw, const PropertiesMap& map, bool dropAbsent) {
  Str out;
  std::set<Str, std::less<>> written;
  size_t pos = 0;
  while (pos < oldRaw.size()) {
    Str line = nextLine(oldRaw, pos);
    char first = line[0];
    if (first == '\n') continue;
    if (first == '#' || first == ';') {
      out += line;
      continue;
    }
    size_t eq = line.find('=');
    if (eq == Str::npos) {
      gLogger.warn("missing '=' in conf line: %s", withoutNewline(line).c_str());
      continue;
    }
    // Gather the continued lines that belong to this one.
    Str value = line.substr(eq + 1);
    while (endsWithContinuation(value) && pos < oldRaw.size()) {
      Str more = nextLine(oldRaw, pos);
      line += more;
      value += more;
    }
    Str key = Str(line.substr(0, eq)).trim();
    if (key.empty()) {
      gLogger.warn("empty key in conf line: %s", withoutNewline(line).c_str());
      continue;
    }
    if (!line.empty() && line.back() != '\n') line += '\n';
    Str newValue;
    if (written.count(key) == 0 && map.get(key, newValue) && key != PropertiesMap::RAW_KEY) {
      // Keep the key as written (leading blanks included: a key line that
      // began with a blank must not start to look like a head or comment).
      appendKeyLine(out, Str(line.substr(0, eq)).trim(CharacterClass::whitespace(), false, true), newValue);
      written.insert(key);
    } else if (written.count(key) || !dropAbsent) {
      out += line;
    }
  }
  for (const auto& [key, value] : map) {
    if (key == PropertiesMap::RAW_KEY || written.count(key)) continue;
    appendKeyLine(out, key, value);
  }
  return out;
}

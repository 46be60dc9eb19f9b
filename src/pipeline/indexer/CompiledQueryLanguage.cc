#include "pipeline/indexer/CompiledQueryLanguage.h"

#include <algorithm>
#include <ctime>

#include "pipeline/indexer/Query.h"
#include "pipeline/indexer/QueryLanguageParser.h"
#include "search/SearchCancel.h"
#include "util/Exceptions.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/xml/XmlTreeParser.h"

static Logger gLogger("CompiledQueryLanguage");

namespace {

const char* const kControls[] = {"SEARCH", "GET", "OUTPUT"};
const char kEndInput[] = "##ENDINPUT##";

xml::node getRequiredNode(const xml::node& parent, const char* name, const Str& parentName) {
  xml::node n = parent.find(name);
  if (n.empty()) throw LanguageParseException("Unable to find required <" + Str(name) + "> in " + parentName);
  return n;
}

Str trimmed(const std::string& s) { return Str(s).trim(); }

std::vector<Str> readArgs(const xml::node& module, const char* listName) {
  std::vector<Str> out;
  xml::node list = module.find(listName);
  if (list.empty()) return out;
  for (const xml::node& arg : list.elements("arg")) {
    Str a = trimmed(arg.get_content());
    if (!a.empty() && std::find(out.begin(), out.end(), a) == out.end()) out.push_back(a);
  }
  return out;
}

Str joined(const std::vector<Str>& v) {
  Str out;
  for (const Str& s : v) {
    if (!out.empty()) out += ',';
    out += s;
  }
  return out;
}

void addMessageOnce(Query& q, const Str& level, const Str& text) {
  const auto& all = q.getMessages();
  auto it = all.find(level);
  if (it != all.end() && std::find(it->second.begin(), it->second.end(), text) != it->second.end()) return;
  q.addMessage(level, text);
}

// Length of the valid UTF-8 sequence at p (1 to 4), or 0.
size_t utf8Length(const unsigned char* p, size_t left) {
  size_t len;
  if (p[0] < 0x80) return 1;
  if (p[0] >= 0xC2 && p[0] <= 0xDF)
    len = 2;
  else if (p[0] >= 0xE0 && p[0] <= 0xEF)
    len = 3;
  else if (p[0] >= 0xF0 && p[0] <= 0xF4)
    len = 4;
  else
    return 0;
  if (len > left) return 0;
  for (size_t i = 1; i < len; ++i)
    if ((p[i] & 0xC0) != 0x80) return 0;
  return len;
}

}  // namespace

// --- the singleton ------------------------------------------------------------------------

CompiledQueryLanguage& CompiledQueryLanguage::getInstance() {
  static Mutex classMutex;
  static CompiledQueryLanguage* inst = nullptr;
  ScopedLock lock(classMutex);
  if (!inst) inst = new CompiledQueryLanguage();
  return *inst;
}

CompiledQueryLanguage::CompiledQueryLanguage() {
  for (const auto& [name, factory] : factoryTable()) _factories.emplace(name, factory);
}

CompiledQueryLanguage::~CompiledQueryLanguage() = default;

std::shared_ptr<const CompiledQueryLanguage::Tables> CompiledQueryLanguage::tables() {
  ScopedLock lock(_mutex);
  return _tables;
}

bool CompiledQueryLanguage::isLoaded() { return tables() != nullptr; }

// --- container and cancel -------------------------------------------------------------------

void CompiledQueryLanguage::setContainer(DatabaseContainer* c) {
  ScopedLock lock(_mutex);
  _container = c;
}

DatabaseContainer* CompiledQueryLanguage::getContainer() {
  {
    ScopedLock lock(_mutex);
    if (_container) return _container;
  }
  DatabaseContainer* c = DatabaseContainer::getProcessContainer();
  return c == this ? nullptr : c;
}

IPartitionPolicy* CompiledQueryLanguage::getPolicyByDomain(const Str& name) {
  DatabaseContainer* c = getContainer();
  return c ? c->getPolicyByDomain(name) : nullptr;
}

Str CompiledQueryLanguage::getDefaultDomain() {
  DatabaseContainer* c = getContainer();
  return c ? c->getDefaultDomain() : Str("main");
}

void CompiledQueryLanguage::enumerateDomains(std::vector<Str>& out) {
  DatabaseContainer* c = getContainer();
  if (c) c->enumerateDomains(out);
}

int CompiledQueryLanguage::isQueryCancelled(const Str& cancelId) {
  return 1 - (SearchCancel::instance()->cont(cancelId) ? 1 : 0);
}

// --- settings --------------------------------------------------------------------------------

bool CompiledQueryLanguage::getUseAdvancedQuery() {
  ScopedLock lock(_mutex);
  return _useAdvancedQuery;
}

void CompiledQueryLanguage::setUseAdvancedQuery(bool on) {
  ScopedLock lock(_mutex);
  _useAdvancedQuery = on;
}

unsigned long CompiledQueryLanguage::getMaxQueryIds() {
  ScopedLock lock(_mutex);
  return _maxQueryIds;
}

void CompiledQueryLanguage::setMaxQueryIds(unsigned long n) {
  ScopedLock lock(_mutex);
  _maxQueryIds = n;
}

bool CompiledQueryLanguage::isControl(const Str& word) {
  for (const char* c : kControls)
    if (word == c) return true;
  return false;
}

// --- the definition file ---------------------------------------------------------------------

void CompiledQueryLanguage::compileLanguage(const Str& path) {
  if (!Pathname(path).isFile())
    throw LanguageParseException("Could not find search language definition at " + path);
  Str text;
  FileStar f = Pathname(path).fopen("r");
  if (!f.isValid()) throw LanguageParseException("Could not find search language definition at " + path);
  char buf[8192];
  size_t n;
  while ((n = f.read(buf, sizeof buf)) > 0) text.append(buf, n);
  f.close();
  compileLanguageText(text, path);
}

void CompiledQueryLanguage::compileLanguageText(const Str& text, const Str& where) {
  xml::tree_parser parser(text.data(), text.size(), false);
  if (parser.failed())
    throw LanguageParseException("Unable to parse search language definition " + where + ": " +
                                 trimmed(parser.get_error_message()));
  xml::node root = parser.get_document().get_root_node();
  auto t = std::make_shared<Tables>();

  bool useAdvanced = true;
  xml::node options = root.find("options");
  std::string advanced;
  if (!options.empty() && options.child_content("useAdvancedQueryNode", advanced)) {
    if (!trimmed(advanced).tryToBool(useAdvanced))
      throw LanguageParseException("Invalid value '" + trimmed(advanced) + "' for <useAdvancedQueryNode> in " +
                                   where);
  }

  xml::node controls = getRequiredNode(root, "controls", where);
  for (const xml::node& control : controls.elements("control")) {
    Str token = trimmed(getRequiredNode(control, "token", "control").get_content());
    if (!isControl(token)) throw LanguageParseException("Unknown control '" + token + "' found");
    xml::node modules = getRequiredNode(control, "modules", "control");
    ControlTable& table = t->controls[token];
    for (const xml::node& module : modules.elements("module")) {
      auto def = std::make_shared<ModuleDefinition>();
      def->name = trimmed(getRequiredNode(module, "name", "module").get_content());
      std::string help;
      if (module.child_content("helptext", help))
        def->helpText = trimmed(help);
      else
        gLogger.debug("Unable to find help for %s in control %s", def->name.c_str(), token.c_str());
      def->requiredArgs = readArgs(module, "requiredArgs");
      def->optionalArgs = readArgs(module, "optionalArgs");
      xml::node defaults = module.find("defaults");
      if (!defaults.empty())
        for (const xml::node& d : defaults.elements())
          t->defaults.emplace(token + "::" + d.get_name(), trimmed(d.get_content()));

      if (!hasFactory(def->name))
        gLogger.warn("No module class is registered for %s (control %s)", def->name.c_str(), token.c_str());
      for (const Str& a : def->requiredArgs) table.known.insert(a);
      for (const Str& a : def->optionalArgs) table.known.insert(a);
      const std::vector<Str>& defining = def->definingArgs();
      if (defining.empty())
        gLogger.debug("Module definition %s in control %s has no arguments: no query reaches it", def->name.c_str(),
                      token.c_str());
      for (const Str& a : defining) {
        auto [it, fresh] = table.byKeyword.emplace(a, def);
        if (!fresh)
          throw LanguageParseException("Argument '" + a + "' defines both " + it->second->name + " and " +
                                       def->name + " in control " + token);
        if (def->requiredArgs.empty() || def->optionalArgs.empty())
          gLogger.debug("Compiled module definition %s in control %s with defining arg %s", def->name.c_str(),
                        token.c_str(), a.c_str());
        else
          gLogger.debug("Compiled module definition %s in control %s with defining arg %s and optional args %s",
                        def->name.c_str(), token.c_str(), a.c_str(), joined(def->optionalArgs).c_str());
      }
      table.modules.push_back(def);
    }
  }

  ScopedLock lock(_mutex);
  _tables = t;
  _useAdvancedQuery = useAdvanced;
}

Str CompiledQueryLanguage::getDefaultForArg(const Str& control, const Str& arg) {
  std::shared_ptr<const Tables> t = tables();
  if (!t) return Str();
  auto it = t->defaults.find(control + "::" + arg);
  return it == t->defaults.end() ? Str() : it->second;
}

std::vector<std::pair<Str, std::shared_ptr<const ModuleDefinition>>> CompiledQueryLanguage::getHelp(
    const Str& keyword) {
  std::vector<std::pair<Str, std::shared_ptr<const ModuleDefinition>>> out;
  std::shared_ptr<const Tables> t = tables();
  if (!t) return out;
  for (const char* control : kControls) {
    auto ct = t->controls.find(control);
    if (ct == t->controls.end()) continue;
    auto byKw = ct->second.byKeyword.find(keyword);
    if (byKw != ct->second.byKeyword.end()) {
      out.emplace_back(control, byKw->second);
      continue;
    }
    for (const auto& def : ct->second.modules)
      if (def->takes(keyword)) {
        out.emplace_back(control, def);
        break;
      }
  }
  return out;
}

std::vector<Str> CompiledQueryLanguage::getKeywords(const Str& control) {
  std::vector<Str> out;
  std::shared_ptr<const Tables> t = tables();
  if (!t) return out;
  auto ct = t->controls.find(control);
  if (ct != t->controls.end()) out.assign(ct->second.known.begin(), ct->second.known.end());
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<Str> CompiledQueryLanguage::getModuleNames() {
  std::vector<Str> out;
  std::shared_ptr<const Tables> t = tables();
  if (!t) return out;
  for (const auto& [control, table] : t->controls)
    for (const auto& def : table.modules) out.push_back(def->name);
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

// --- compiling a query --------------------------------------------------------------------

void CompiledQueryLanguage::compile(const std::shared_ptr<Query>& query, bool expandSavedSearches,
                                    bool wholeStringIsSearch) {
  std::shared_ptr<const Tables> t = tables();
  if (!t) throw QueryParseException("No search language definition is loaded");
  Query& q = *query;
  // 1. Stamps.
  q.stampSubmitted();
  q.setCpuStart(clock());
  for (const Str& c : Query::controlOrder()) q.modules(c).clear();
  q.searchEcho().clear();

  // 2-5. Text passes.
  Str text = QueryLanguageParser::indexify(q.getText());
  text += ' ';
  text = QueryLanguageParser::handleParensInQuery(text);
  if (expandSavedSearches) {
    std::vector<Str> info;
    QueryLanguageParser::handleSavedVelmorsInSearch(text, q.getUser(), info);
    for (const Str& m : info) addMessageOnce(q, "INFO", m);
  }

  // 6-7. Tokens.
  std::vector<Str> tokens;
  if (char quote = QueryLanguageParser::tokenizeString(text, tokens))
    throw QueryParseException(Str(" unable to parse search string. Expected ") + quote + ", got end of input");
  tokens.push_back(kEndInput);

  // 8-11. Pairs by control.
  Str control = wholeStringIsSearch ? "SEARCH" : "";
  std::vector<Pair> pairs;
  for (const Str& tok : tokens) {
    if (tok == kEndInput) {
      if (!control.empty()) closeControl(query, *t, control, pairs);
      break;
    }
    if (!wholeStringIsSearch && isControl(tok)) {
      if (!control.empty()) closeControl(query, *t, control, pairs);
      pairs.clear();
      control = tok;
      gLogger.debug("Found control %s", control.c_str());
      continue;
    }
    if (control.empty()) throw QueryParseException("Found token with no control '" + tok + "'");
    const bool search = control == "SEARCH";
    if (search) {
      Str& echo = q.searchEcho();
      echo += '"';
      if (tok.startswith("user::")) echo += "search";
      echo += tok;
      echo += "\" ";
    }
    const size_t sep = tok.find("::");
    if (sep == Str::npos) {
      if (!search) throw QueryParseException("Unrecognized token : " + tok);
      gLogger.debug("Didn't recognize %s assuming a search term", tok.c_str());
      pairs.emplace_back("_term", tok);
      continue;
    }
    Str keyword = tok.substr(0, sep);
    Str value = tok.substr(sep + 2);
    gLogger.debug("Found token and arg %s :: %s in control %s ", keyword.c_str(), value.c_str(), control.c_str());
    auto ct = t->controls.find(control);
    if (ct != t->controls.end() && ct->second.known.count(keyword))
      pairs.emplace_back(keyword, value);
    else if (search)
      pairs.emplace_back("_term", tok);
    else
      throw QueryParseException("Unrecognized argument " + keyword + " in " + control);
  }
}

// 12-15: the pairs of one control become its modules, in order.
void CompiledQueryLanguage::closeControl(const std::shared_ptr<Query>& query, const Tables& t, const Str& control,
                                         const std::vector<Pair>& pairs) {
  static const ControlTable kEmpty;
  auto ct = t.controls.find(control);
  const ControlTable& table = ct == t.controls.end() ? kEmpty : ct->second;
  std::vector<std::shared_ptr<Module>>& list = query->modules(control);
  const bool search = control == "SEARCH";

  auto append = [&](const std::shared_ptr<Module>& m) {
    if (!m) return;
    if (search && m->getName() == "domainFinder") {
      // In front of everything, after the index modules already there, so
      // the one written first sets the index.
      size_t pos = 0;
      while (pos < list.size() && list[pos]->getName() == "domainFinder") ++pos;
      list.insert(list.begin() + pos, m);
    } else {
      list.push_back(m);
    }
  };

  std::vector<bool> consumed(pairs.size(), false);
  std::vector<std::unordered_set<Str>> seen(1);
  // The first unused pair with that keyword, or -1.
  auto take = [&](const Str& keyword) -> long {
    for (size_t j = 0; j < pairs.size(); ++j) {
      if (consumed[j] || pairs[j].first != keyword) continue;
      Str key = pairs[j].first + "::" + pairs[j].second;
      if (seen.back().count(key)) continue;
      consumed[j] = true;
      seen.back().insert(key);
      return static_cast<long>(j);
    }
    return -1;
  };

  for (size_t i = 0; i < pairs.size(); ++i) {
    if (consumed[i]) continue;
    const auto& [keyword, value] = pairs[i];
    if (keyword == "_term") {
      consumed[i] = true;
      if (value == "(")
        seen.emplace_back();
      else if (value == ")" && seen.size() > 1)
        seen.pop_back();
      auto def = table.byKeyword.find("_term");
      Str name = def == table.byKeyword.end() ? Str("_term") : def->second->name;
      auto args = std::make_shared<ModuleArgs>();
      (*args)["_term"] = value;
      append(makeModule(query.get(), control, name, args));
      continue;
    }
    Str key = keyword + "::" + value;
    if (seen.back().count(key)) {
      consumed[i] = true;
      gLogger.debug("%s was already used in this parenthesis", key.c_str());
      continue;
    }
    auto defIt = table.byKeyword.find(keyword);
    if (defIt == table.byKeyword.end()) continue;  // an argument of some module: taken below, or refused
    const ModuleDefinition& def = *defIt->second;
    consumed[i] = true;
    seen.back().insert(key);
    auto args = std::make_shared<ModuleArgs>();
    (*args)[keyword] = value;
    for (const Str& r : def.requiredArgs) {
      if (args->count(r)) continue;
      long j = take(r);
      if (j < 0) throw QueryParseException("Unable to find required arg '" + r + "' for module " + def.name);
      (*args)[r] = pairs[j].second;
    }
    for (const Str& o : def.optionalArgs) {
      if (args->count(o)) continue;
      long j = take(o);
      if (j >= 0) (*args)[o] = pairs[j].second;
    }
    append(makeModule(query.get(), control, def.name, args));
  }
  for (size_t i = 0; i < pairs.size(); ++i)
    if (!consumed[i]) throw QueryParseException("Unrecognized argument " + pairs[i].first + " in " + control);

  if (search && (list.empty() || list.front()->getName() != "domainFinder")) {
    Str domain = getDefaultDomain();
    gLogger.info("Index was not supplied we are going to use \"%s\"", domain.c_str());
    auto args = std::make_shared<ModuleArgs>();
    (*args)["index"] = domain;
    append(makeModule(query.get(), control, "domainFinder", args));
  }
}

std::shared_ptr<Module> CompiledQueryLanguage::makeModule(Query* query, const Str& control, const Str& name,
                                                          std::shared_ptr<ModuleArgs> args) {
  auto f = _factories.find(name);
  if (f == _factories.end()) throw QueryParseException("Unable to find a module for " + name + "  in " + control);
  std::shared_ptr<Module> m = f->second(query, std::move(args), name);
  if (m) m->validate();
  return m;
}

// --- result document text -------------------------------------------------------------

Str CompiledQueryLanguage::xmlEscape(const StrSegment& text) {
  Str out;
  out.reserve(text.size() + 16);
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const unsigned char c = p[i];
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default:
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
          out += '?';  // not allowed in an XML document, even as a reference
        } else if (c >= 0x80) {
          size_t len = utf8Length(p + i, n - i);
          if (len == 0) {
            out += '?';
          } else {
            out.append(reinterpret_cast<const char*>(p + i), len);
            i += len;
            continue;
          }
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  return out;
}

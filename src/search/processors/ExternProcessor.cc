#include "search/processors/ExternProcessor.h"

#include "libbundle/StringMgr.h"
#include "loaderinfo/LoaderInfo.h"
#include "search/SearchResults.h"
#include "search/SearchResultsInfo.h"
#include "search/processors/OutputCSV.h"
#include "util/ExternalProcessGroup.h"
#include "util/Logger.h"
#include "util/PortableRand.h"
#include "util/ScopedFileDescriptor.h"

namespace {
Logger gLogger("script");

bool safeName(const Str& n) { return !n.empty() && n.find('/') == Str::npos && n.find("..") == Str::npos; }

Str langOfSuffix(const Str& file) {
  if (file.endswith(".py")) return "python";
  if (file.endswith(".pl")) return "perl";
  return Str();
}

// The last non-empty line of a small text file.
Str lastLine(const Pathname& p) {
  FileStar f = p.fopen("r");
  if (!f.isValid()) return Str();
  Str line, last;
  while (f.readline(line)) {
    line.trimInPlace();
    if (!line.empty()) last = line;
  }
  f.close();
  return last;
}

// Removes the temporary files of one run, whatever happens.
struct TempFiles {
  Pathname in, out, err;
  ~TempFiles() {
    in.unlink();
    out.unlink();
    err.unlink();
  }
};
}  // namespace

ExternProcessor::ExternProcessor(const Str& n, const Str& scriptName, const Str& lang, unsigned long maxInputs)
    : SearchProcessor(n), _scriptName(scriptName), _lang(lang), _maxInputs(maxInputs) {}

SearchProcessor* ExternProcessor::create(const Str& name) {
  return new ExternProcessor(name, Str(), Str(), kDefaultMaxInputs);
}

SearchProcessor* ExternProcessor::createForScriptName(const Str& name) {
  Str lang;
  if (!isExternProcessor(name, lang)) return nullptr;
  return new ExternProcessor("script:" + name, name, lang, kDefaultMaxInputs);
}

std::vector<Pathname> ExternProcessor::scriptDirs() {
  Pathname home = LoaderInfo::getInstance().getHomePath();
  return {home / "etc/bundles/local/searchscripts", home / "etc/searchscripts"};
}

bool ExternProcessor::findScript(const Str& name, Pathname& path, Str& lang) {
  if (!safeName(name)) return false;
  std::vector<Str> candidates;
  if (!langOfSuffix(name).empty())
    candidates.push_back(name);
  else
    candidates = {name + ".py", name + ".pl"};
  for (const Pathname& dir : scriptDirs()) {
    for (const Str& c : candidates) {
      Pathname p = dir / c;
      if (p.isFile()) {
        path = p;
        lang = langOfSuffix(c);
        return true;
      }
    }
  }
  return false;
}

bool ExternProcessor::isExternProcessor(const Str& name, Str& lang) {
  Pathname path;
  return findScript(name, path, lang);
}

void ExternProcessor::processArguments() {
  getOption("maxinputs", _maxInputs);
  std::vector<Str> words;
  for (size_t i = 0; i < args.size(); ++i) {
    StringArg* a = unconsumedString(i);
    if (!a) continue;
    words.push_back(a->getText());
    a->setConsumed();
  }
  size_t first = 0;
  if (_scriptName.empty()) {
    // script <language> <script> [args]
    if (words.size() < 2) throw searchError(this, gLogger, "%s", StringMgr::str("SCRIPT_USAGE_ARG_COUNT").c_str());
    Str lang = words[0];
    lowercaseInPlace(lang);
    if (lang != "python" && lang != "perl")
      throw searchError(this, gLogger, "%s", StringMgr::str("SCRIPT_USAGE_LANG").c_str());
    _lang = lang;
    _scriptName = words[1];
    first = 2;
  }
  if (!safeName(_scriptName))
    throw searchError(this, gLogger, StringMgr::str("SCRIPT_SECURITY_ERROR__S").c_str(), _scriptName.c_str());
  Str found;
  Str want = _lang;
  Str nameToFind = _scriptName;
  if (langOfSuffix(nameToFind).empty()) nameToFind += want == "perl" ? ".pl" : ".py";
  if (!findScript(nameToFind, _path, found) || found != want) {
    Str dirs;
    for (const Pathname& d : scriptDirs()) dirs += (dirs.empty() ? "" : ":") + d;
    throw searchError(this, gLogger, StringMgr::str("SCRIPT_CANNOT_FIND__S_S").c_str(), _scriptName.c_str(),
                      dirs.c_str());
  }
  _scriptArgs.assign(words.begin() + static_cast<long>(first), words.end());
}

void ExternProcessor::runScript(const Pathname& in, const Pathname& out, const Pathname& err) {
  std::vector<Str> argv{_lang == "perl" ? Str("perl") : Str("python3"), _path};
  argv.insert(argv.end(), _scriptArgs.begin(), _scriptArgs.end());
  ScopedFileDescriptor inFd(in.openReadOnly());
  ScopedFileDescriptor outFd(out.openCreateOrReplace());
  ScopedFileDescriptor errFd(err.openCreateOrReplace());
  if (!inFd.isValid() || !outFd.isValid() || !errFd.isValid())
    throw searchError(this, gLogger, StringMgr::str("SCRIPT_SCRIPT_ERROR__S_S").c_str(), _scriptName.c_str(),
                      "cannot create its temporary files");
  ExternalProcessStatus status = ExternalProcessStatus::running();
  try {
    ExternalProcessGroup group;
    ExternalProcessToken token = group.start(argv, inFd, outFd, errFd);
    inFd.close();
    outFd.close();
    errFd.close();
    status = token.getStatus(true);
  } catch (const std::exception& e) {
    throw searchError(this, gLogger, StringMgr::str("SCRIPT_SCRIPT_ERROR__S_S").c_str(), _scriptName.c_str(),
                      e.what());
  }
  if (!status.statusOk()) {
    Str why = status.describeStatus();
    Str last = lastLine(err);
    if (!last.empty()) why += ": " + last;
    throw searchError(this, gLogger, StringMgr::str("SCRIPT_SCRIPT_ERROR__S_S").c_str(), _scriptName.c_str(),
                      why.c_str());
  }
}

void ExternProcessor::execute(SearchResults& results, SearchResultsInfo& info) {
  // The rows this call may still send; the rest are dropped.
  unsigned long allowed = _sent < _maxInputs ? _maxInputs - _sent : 0;
  while (results.size() > allowed) {
    delete results.back();
    results.pop_back();
  }
  _sent += results.size();

  Pathname dir = OutputCSV::secureDir();
  TempFiles files;
  ScopedFileDescriptor created;
  for (int attempt = 0; attempt < 100 && !created.isValid(); ++attempt) {
    Str base = Str::fromFormat("run_script_%lu", static_cast<unsigned long>(portable_rand()));
    files.in = dir / (base + "_in.csv");
    created.reset(files.in.openCreateOnly().release());
    files.out = dir / (base + "_out.csv");
    files.err = dir / (base + "_err.txt");
  }
  if (!created.isValid()) {
    files.in.clear();
    throw searchError(this, gLogger, StringMgr::str("SCRIPT_SCRIPT_ERROR__S_S").c_str(), _scriptName.c_str(),
                      "cannot create its temporary files");
  }
  created.close();
  {
    FileStar f = files.in.fopen("w");
    if (f.isValid()) {
      results.toCSV(f, false, false);
      f.close();
    }
  }
  runScript(files.in, files.out, files.err);

  SearchResults back;
  back.fromCSV(files.out);
  if (back.getBadLineCount())
    info.addWarning(Str::fromFormat("While reading the output of script '%s', encountered %lu inconsistent number "
                                    "of column errors.",
                                    _scriptName.c_str(), static_cast<unsigned long>(back.getBadLineCount())));
  // Keep the dictionary (and the spill chain) of `results`; only the rows change.
  results.free(true);
  for (const SearchResult* r : back) {
    SearchResult* c = results.addNewResult();
    results.copyResult(*r, *c);
  }
}

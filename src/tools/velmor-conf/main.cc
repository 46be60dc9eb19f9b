// velmor-conf: prints the merged view of one property file.
//
//   velmor-conf [--layers] <name> [stanza|path]
//
// With VELMOR_HOME (and VELMOR_DB) set, it runs the start-up checks every
// program runs, then prints either every stanza of <name>.conf merged across
// bundles, or the merged lookup of one stanza or "|"-separated path, in .conf
// syntax. --layers adds after each value the bundles it came from.
#include <cstdio>
#include <cstring>
#include <set>

#include "LayerOrigins.h"
#include "libbundle/BundlePaths.h"
#include "libbundle/ConfRawEditor.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/SettingsMap.h"
#include "loaderinfo/LoaderInfo.h"

namespace {

const char kUsage[] =
    "Usage: velmor-conf [--layers] <name> [stanza|path]\n"
    "\n"
    "Prints the merged view of the property file <name>.conf over all bundles\n"
    "under $VELMOR_HOME/etc/bundles (local, other bundles by name, default,\n"
    "learned), in .conf syntax.\n"
    "\n"
    "  <name>          the property file, e.g. props (for props.conf)\n"
    "  stanza|path     one stanza, or several separated by \"|\", most specific\n"
    "                  first (e.g. \"host::web1|source::/var/log/x.log|syslog\");\n"
    "                  file patterns such as [source::/var/log/.../*.log] apply.\n"
    "                  Without it, every stanza is printed, with the merged\n"
    "                  [default] stanza overlaid into each.\n"
    "  --layers        after each value, the bundles it came from\n"
    "                  (with --layers, stanza names are shown as written)\n"
    "  -h, --help      this text\n"
    "\n"
    "Exit status: 0 when the stanza (or file) was found, 1 when it was not or\n"
    "the installation is not usable, 2 on a usage error.\n";

int usageError(const char* fmt, const char* arg) {
  fprintf(stderr, "velmor-conf: ");
  fprintf(stderr, fmt, arg);
  fprintf(stderr, "\n\n%s", kUsage);
  return 2;
}

void printStanza(const Str& name, const PropertiesMap& map, const LayerOrigins* origins) {
  printf("[%s]\n", name.c_str());
  for (const auto& [key, value] : map) {
    if (key == PropertiesMap::RAW_KEY) continue;
    Str line;
    ConfRawEditor::appendKeyLine(line, key, value);
    if (origins != nullptr) {
      line.pop_back();
      line += "    # ";
      const std::vector<Str>& from = origins->originsOf(key);
      for (size_t i = 0; i < from.size(); ++i) {
        if (i > 0) line += " + ";
        line += from[i];
      }
      line += '\n';
    }
    fputs(line.c_str(), stdout);
  }
  printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  bool layers = false;
  const char* name = nullptr;
  const char* path = nullptr;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
      fputs(kUsage, stdout);
      return 0;
    }
    if (strcmp(a, "--layers") == 0) {
      layers = true;
    } else if (a[0] == '-' && a[1] != '\0') {
      return usageError("unknown option %s", a);
    } else if (name == nullptr) {
      name = a;
    } else if (path == nullptr) {
      path = a;
    } else {
      return usageError("unexpected argument %s", a);
    }
  }
  if (name == nullptr || *name == '\0') return usageError("%s", "missing the property file name");

  Str pagesName(name);
  if (pagesName.endswith(".conf")) pagesName.resize(pagesName.size() - 5);
  if (pagesName.empty() || pagesName.find('/') != Str::npos) {
    return usageError("bad property file name %s (give e.g. props for props.conf)", name);
  }

  LoaderInfo::common_main_setup(true);
  Str fault = LoaderInfo::getInstance().validate();
  if (!fault.empty()) {
    fprintf(stderr, "velmor-conf: %s\n", fault.c_str());
    return 1;
  }

  PropertyPages& pages = PropertyPages::instance(pagesName);
  bool anyFile = false;
  for (PropertiesMapConfig* c : pages.getConfigs()) {
    if (c->isArchive() || c->getPath().exists()) anyFile = true;
  }
  if (!anyFile) {
    fprintf(stderr, "velmor-conf: no bundle under %s has %s.conf\n", get_bundles_path().c_str(), pagesName.c_str());
    return 1;
  }

  if (path != nullptr) {
    LayerOrigins origins(pages, path, true);
    PropertiesMap merged;
    pages.fillLayers(merged, path, true);
    printStanza(path, merged, layers ? &origins : nullptr);
    if (!origins.anyStanzaFound()) {
      fprintf(stderr, "velmor-conf: no bundle has a stanza %s in %s.conf (defaults shown)\n", path,
              pagesName.c_str());
      return 1;
    }
    return 0;
  }

  if (layers) {
    std::set<Str> names;
    pages.keys(names);
    for (const Str& stanza : names) {
      LayerOrigins origins(pages, stanza, false);
      printStanza(stanza, origins.merged(), &origins);
    }
    return 0;
  }
  SettingsMap all;
  pages.propsObjByPrefix("", all);
  for (const auto& [stanza, map] : all) printStanza(stanza, map, nullptr);
  return 0;
}

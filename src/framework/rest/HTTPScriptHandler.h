// HTTPScriptHandler: the handler of "script:<name>" stanzas. It writes the
// request as an XML document, runs the stanza's "script" with that document
// on its standard input, and sends back what the script prints on standard
// output as text/xml. A script that fails (exit status other than 0, or a
// signal) gives a 500 with the last line it wrote to standard error.
//
// The request document:
//   <request>
//     <method>POST</method> <path>/services/x</path> <user>admin</user>
//     <params><param name="k">v</param>...</params>   (query, then body)
//     <body>raw body text</body>
//   </request>
//
// A script still running after the stanza's "scriptTimeout" seconds (default
// kDefaultTimeoutSecs) is killed and the request gets a 500.
//
// A relative script name is looked for under "bin" of each bundle directory
// given by setScriptDirs(), in order; names with ".." are refused. The script
// is started through the process runner (directly when there is none).
//
// Threads: handleRequest from many request threads at once; setScriptDirs
// before requests arrive.
#pragma once

#include <vector>

#include "framework/rest/MRestHandler.h"
#include "util/Mutex.h"
#include "util/Pathname.h"

class HTTPScriptHandler : public MRestHandler {
 public:
  static const long kDefaultTimeoutSecs = 60;

  HTTPReply* handleRequest(const FdConnectionData& conn, const HTTPRequest* req, const Str& path,
                           const RestMapData& stanza) override;

  // Builds the request document into `out`; `path` is the full request path.
  static void createXMLRequest(const FdConnectionData& conn, const Str& path, const Str& user,
                               const HTTPRequest* req, Str& out);
  // The directories (bundles) whose "bin" may hold scripts, highest first.
  void setScriptDirs(const std::vector<Pathname>& dirs);
  // The script to run for `script`, or "" when none is found.
  Pathname resolveScript(const Str& script);

 private:
  Mutex _mutex;
  std::vector<Pathname> _dirs;
};

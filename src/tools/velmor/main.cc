// velmor: the command for people. Searches, follows and fills the indexes
// of VELMOR_HOME in this process, or works against a running velmord over
// REST with --server.
//
//   velmor search '<search>' [--earliest T] [--latest T] [-n N] [-o table|raw|json|csv]
//   velmor tail '<search>' [--earliest T] [--max-events N] [-o table|raw|json]
//   velmor add <file>... [--index I] [--sourcetype T] [--host H]
//   velmor status
//   global: --server URL [--user U] [--password P] [-k]
//
// The command line is read with CLI11; each subcommand is a class of its
// own (SearchCommand, TailCommand, AddCommand, StatusCommand) that answers
// the exit status: 0 done, 1 failed (the reason on standard error), 2 bad
// usage (every CLI11 error; --help prints and exits 0).
#include <signal.h>
#include <stdio.h>

#include <CLI/CLI.hpp>

#include "tools/velmor/AddCommand.h"
#include "tools/velmor/CliOptions.h"
#include "tools/velmor/SearchCommand.h"
#include "tools/velmor/StatusCommand.h"
#include "tools/velmor/TailCommand.h"

namespace {

const char* const kFooter =
    "\nWithout --server every command works in this process over $VELMOR_HOME (VELMOR_DB defaults to\n"
    "$VELMOR_HOME/var/lib/velmor/db). With --server URL (http[s]://host:port) it logs in as --user\n"
    "(VELMOR_USER, else admin) with --password (VELMOR_PASSWORD, else asked on the terminal).\n"
    "Exit status: 0 done, 1 failed, 2 bad usage.";

const char* const kSearchFooter =
    "\nA search whose first word is not a command is searched for: 'error host=web1' runs\n"
    "'search error host=web1'. Events print as time, host and text (terms coloured on a terminal\n"
    "unless NO_COLOR is set); reports as a table. -n: 100 events by default, every row of a report;\n"
    "-n 0 lifts the limit (max_count of limits.conf still holds for events). Times: -15m, -1d@d,\n"
    "now, 2026-11-24, 2026-11-24T10:00:00Z, seconds since 1970 (write --earliest=-15m).";

const char* const kTailFooter =
    "\nPrints matching events as they are indexed until interrupted (status 0). In this process the\n"
    "indexes are polled every --interval seconds over the last --window; an event indexed with a\n"
    "time older than the window is not shown. With --server the service's live tail is read.";

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  CliOptions o;
  CLI::App app{"velmor: search, follow and fill the indexes of a Velmor installation"};
  app.name("velmor");
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--server", o.server, "a velmord to work against, e.g. https://127.0.0.1:8089");
  app.add_option("--user", o.user, "user of --server (VELMOR_USER, else admin)");
  app.add_option("--password", o.password, "password of --server (VELMOR_PASSWORD, else asked)");
  app.add_flag("-k,--insecure", o.insecure, "accept any certificate of an https --server");

  CLI::App* search = app.add_subcommand("search", "runs a search and prints its events or report");
  search->footer(kSearchFooter);
  search->add_option("search", o.words, "the search (words are joined by blanks)")->required();
  search->add_option("--earliest", o.earliest, "events from this time on");
  search->add_option("--latest", o.latest, "events up to this time");
  search->add_option("-n,--count", o.count, "rows to show (default: 100 events, every row of a report)")
      ->check(CLI::NonNegativeNumber);
  search->add_option("-o,--output", o.output, "table (default), raw, json or csv")
      ->check(CLI::IsMember({"table", "raw", "json", "csv"}));

  CLI::App* tail = app.add_subcommand("tail", "prints matching events as they are indexed");
  tail->footer(kTailFooter);
  tail->add_option("search", o.words, "the search: terms, then commands that work event by event")->required();
  tail->add_option("--earliest", o.earliest, "first show the matching events indexed since this time");
  tail->add_option("--max-events", o.maxEvents, "stop after this many events (default: never)")
      ->check(CLI::NonNegativeNumber);
  tail->add_option("-o,--output", o.output, "table (default), raw or json (one object per line)")
      ->check(CLI::IsMember({"table", "raw", "json"}));
  tail->add_option("--interval", o.interval, "seconds between polls of the index (0.5)")
      ->check(CLI::Range(0.05, 60.0));
  tail->add_option("--window", o.window, "how far back each poll looks (-1h)");

  CLI::App* add = app.add_subcommand("add", "adds log files to an index, as velmor-index add does");
  add->add_option("files", o.files, "the files")->required()->check(CLI::ExistingFile);
  add->add_option("--index", o.index, "the index (default: defaultDatabase of indexes.conf)");
  add->add_option("--sourcetype", o.sourceType, "source type (default: from each file's name)");
  add->add_option("--host", o.host, "host of the events (default: this machine's name)");

  CLI::App* status = app.add_subcommand("status", "indexes, buckets, sizes and whether the service runs");
  (void)status;

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }
  if (search->parsed()) return SearchCommand(o).run();
  if (tail->parsed()) return TailCommand(o).run();
  if (add->parsed()) return AddCommand(o).run();
  return StatusCommand(o).run();
}

// MIndexSide: what the search tool needs from the index side at start-up:
// open the configured indexes for reading and register the index-side
// commands with SearchFactory. The tool calls init() once, before any parse,
// on its main thread, and destroys the object during shutdown.
#pragma once

namespace xml {
class node;
}

class MIndexSide {
 public:
  virtual ~MIndexSide() = default;
  // `registerHandlers` false: no HTTP or REST handlers; `readSide` is kept
  // for the read path.
  virtual void init(const xml::node& config, const xml::node& extra, bool registerHandlers, bool readSide) = 0;
};

// Used while no index processor is linked into the tool: opens no index and
// registers no command, so index-reading commands are unknown names.
class NoIndexSide : public MIndexSide {
 public:
  void init(const xml::node&, const xml::node&, bool, bool) override {}
};

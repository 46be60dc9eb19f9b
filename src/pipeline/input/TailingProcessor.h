// TailingProcessor: the source processor that follows files, directories and
// wildcards named by `[tail:<absolute path>]` stanzas of the `inputs`
// property files, and sends one record per line.
//
// Keys of a `[tail:...]` stanza (etc/bundles/default/inputs.conf documents
// them for users):
//   index            target index of the lines (default: the indexer's)
//   sourcetype       source type; default: named from the file's name
//                    ("/var/log/auth.log.1" -> "auth")
//   host             host of the lines; default: the host name of the
//                    service, or the machine's
//   disabled         true: the stanza is not followed
//   crcSalt          added to the hash that recognises a file; the text
//                    <SOURCE> stands for the file's path
//   whitelist        regular expression; only files whose full path it
//                    matches (anywhere in the path) are followed
//   blacklist        regular expression; files whose full path it matches
//                    are not followed
//   ignoreOlderThan  a time span ("7d", "12h", "30m", "90s", "600"): files
//                    not modified within it are passed over until they change
//   followTail       true: files already there when the input starts that the
//                    file tracker does not know are read from their end
//   recursive        false: a directory's subdirectories are not followed
//                    (default true)
//   scanInterval     seconds between looks for new files (default 1)
// A stanza with a relative path, a bad regular expression or a bad value is
// logged in one line naming it and is passed over; the others run.
//
// Records: `_raw` is the line without its newline; with it the file's source
// ("source::<path>"), host, source type, index (when set), `_path`,
// `_channel` (the path), `_conf` and `seekaddr` (the offset just past the
// line). A final line without a newline is held until the file ends (renamed
// away, truncated, deleted) or has stayed unchanged for 3 seconds. Lines over
// 1 MiB are cut into pieces of 1 MiB. Each line carries the read position up
// to its end, which the indexer stores with the slice that holds the line.
// A file that has stayed unchanged for 1 second (a writer has finished its
// event by then; a shorter wait would cut slow multi-line writes, a longer
// one keeps the last event from search), or is finished (renamed
// away or deleted and read to its end, or a compressed file read whole),
// gets a record holding `_done` "1" and its source and channel, which ends
// the event the line merger holds open for it, and then the file tracker's
// position record. The position record never comes before the done record:
// it must not overtake lines still held in an open event.
//
// DESIGN: everything runs on the pipeline's thread inside
// createPipelineData(); there are no threads of its own. Each call hands out
// a record made earlier, or does one round of work: look for new files
// (each stanza at its scanInterval), stat every followed file (every 250 ms),
// and read what has grown (at most 1 MiB per file per round). Records wait in
// a queue in the order they were made; a round stops early when the queue is
// long. With nothing to hand out the call waits on a condition for at most
// 100 ms, so requestStop() from another thread is seen promptly.
// Descriptors: a file is recognised by device and inode; at most
// maxOpenFiles (256) descriptors stay open; the least recently grown file
// that has been read to its end is closed and reopened by path later, its
// identity checked. Rotation: a path that names another file, or none, sends
// the old file to be read to its end through its descriptor (for a second
// after its last growth) and finished, while the new file at the path is
// checked by the file tracker as any new file. A size below the read
// position is a truncation: the tracker is asked again. A new ".gz" file is
// unpacked into an unlinked file under $VELMOR_HOME/var/run/velmor and
// checked by the tracker under the ".gz" path, so that the part already read
// of its original is not read again.
//
// Ownership: made by its factory and owned by its pipeline. Threads:
// createPipelineData(), init() and execute() on the pipeline's thread;
// requestStop() from any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "framework/MShutdownHandler.h"
#include "framework/PluginFactory.h"
#include "framework/Processor.h"
#include "pipeline/input/TailStanza.h"
#include "pipeline/input/TailedFile.h"
#include "util/ConditionBaseClass.h"
#include "util/Mutex.h"
#include "util/Str.h"

class PropertiesMap;
class ShutdownLevel;
class SettingsMap;

class TailingProcessor : public Processor, public MShutdownHandler {
 public:
  static const PluginFactory& factory();  // "tailingprocessor"
  // "batchfileloaderprocessor": the XML config names <batchDir>, a drop
  // directory whose files are read once each (optionally <crcSalt>); the
  // `inputs` stanzas are not read.
  static const PluginFactory& batchFactory();

  TailingProcessor();
  ~TailingProcessor() override;

  // Reads the `[tail:...]` stanzas. The XML config may hold
  // <maxOpenFiles>N</maxOpenFiles>; nothing is required.
  void init(const xml::node& config, const xml::node& global) override;
  int execute(std::shared_ptr<PipelineData>&) override { return eOk; }
  // The next record, or null after at most about 100 ms with none (and at
  // once after requestStop()).
  std::shared_ptr<PipelineData> createPipelineData() override;

  // Any thread: makes createPipelineData() return null from now on.
  void requestStop();
  // The "Input" level of the shutdown: stops at once.
  bool signalShutdown() override;

  // Re-reads the stanzas from the `inputs` property files (init() does it).
  // Returns how many stanzas are followed.
  size_t loadStanzas();
  // Takes the stanzas from `stanzas` instead (names "tail:..." only).
  size_t loadStanzas(const SettingsMap& stanzas);

  void setMaxOpenFiles(size_t n) { _maxOpen = n < 1 ? 1 : n; }
  size_t followedCount() const { return _files.size() + _draining.size(); }
  size_t openDescriptorCount() const { return _openCount; }

 private:
  struct StanzaState {
    std::shared_ptr<const TailStanza> stanza;
    int64_t nextScanMs = 0;
    bool scanned = false;  // the first look (followTail applies to it) is done
  };
  // What a passed-over file looked like, so that it is looked at again only
  // when it changes.
  struct Skipped {
    ino_t ino = 0;
    off_t size = 0;
    int64_t mtime = 0;
    int64_t ctime = 0;
    bool operator==(const Skipped&) const = default;
  };

  void round(int64_t nowMs);
  void scan(StanzaState& s, int64_t nowMs);
  void follow(const Str& path, const std::shared_ptr<const TailStanza>& stanza, bool firstLook, int64_t nowMs);
  void followGz(const Str& path, const struct stat& st, const std::shared_ptr<const TailStanza>& stanza,
                bool firstLook, int64_t nowMs);
  // Handles one followed file; false when it is to be dropped from _files.
  bool poll(std::unique_ptr<TailedFile>& f, int64_t nowMs);
  bool pollDraining(TailedFile& f, int64_t nowMs);
  // Reads at most 1 MiB. False on a read error.
  bool readChunk(TailedFile& f, int64_t nowMs);
  bool reopen(TailedFile& f);
  void finish(TailedFile& f);
  void startDraining(std::unique_ptr<TailedFile> f, int64_t nowMs);
  void skip(const Str& path, const struct stat& st);
  bool wasSkipped(const Str& path, const struct stat& st) const;
  bool openDescriptor(const Str& path, FileDescriptor& fd);
  void closeDescriptor(TailedFile& f);
  void makeRoom();
  bool outputFull() const { return _out.size() >= kMaxQueued; }

  static constexpr size_t kMaxQueued = 20000;

  Str _host;
  Str _tempDir;
  std::vector<StanzaState> _stanzas;
  std::map<Str, std::unique_ptr<TailedFile>> _files;       // by path
  std::vector<std::unique_ptr<TailedFile>> _draining;      // read to end, then finished
  std::set<std::pair<dev_t, ino_t>> _identities;           // of everything followed
  std::map<Str, Skipped> _skipped;                         // binary, old, unreadable
  std::map<Str, Skipped> _gzDone;                          // compressed files handled
  std::deque<std::shared_ptr<PipelineData>> _out;
  std::vector<char> _buf;
  size_t _maxOpen = 256;
  size_t _openCount = 0;
  int64_t _nextPollMs = 0;
  bool _moreToRead = false;

  std::atomic<bool> _stop{false};
  ShutdownLevel* _shutdownLevel = nullptr;
  Mutex _waitMutex;
  ConditionBaseClass _wake;
};

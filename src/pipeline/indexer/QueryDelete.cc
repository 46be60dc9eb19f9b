#include "pipeline/indexer/QueryDelete.h"

#include <climits>

#include "framework/UserManager.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/GetModule.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/Query.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("QueryDelete");

namespace {

const char* const kFileSeeksIndex = "_thefileseeks";

// Splits "<kind>::<value>" at the first "::".
bool splitKey(const Str& text, Str& kind, Str& value) {
  size_t at = text.find("::");
  if (at == Str::npos) return false;
  kind = text.substr(0, at);
  value = text.substr(at + 2);
  return true;
}

bool isMetaKind(const Str& kind) { return kind == "host" || kind == "source" || kind == "sourcetype"; }

std::vector<WordPositionData> tableOf(IPartitionPolicy& p, const Str& kind) {
  return kind == "host" ? p.getHosts() : kind == "source" ? p.getSources() : p.getSourceTypes();
}

// The row of the word in the table of its kind (case-blind), or null.
const WordPositionData* findWord(const std::vector<WordPositionData>& rows, const Str& word) {
  Str lower = lowercase(StrSegment(word));
  for (const WordPositionData& r : rows)
    if (lowercase(StrSegment(r.word)) == lower) return &r;
  return nullptr;
}

int32_t clip(int64_t t) { return int32_t(t < INT32_MIN ? INT32_MIN : t > INT32_MAX ? INT32_MAX : t); }

size_t deleteIn(IPartitionPolicy& p, const Str& term, int32_t start, int32_t end, bool allowed) {
  try {
    return p.deleteByKeyword(term, start, end, allowed);
  } catch (const DatabasePartitionPolicyException& e) {
    throw QueryException(e.what());
  }
}

}  // namespace

void QueryDelete::runModule() {
  const Str key = getArg("delete");
  Str kind, value;
  if (!splitKey(key, kind, value) || (!isMetaKind(kind) && kind != "eventtype"))
    throw QueryException(Str("Unrecognised deletion key ") + key);
  IPartitionPolicy* p = GetModule::policyOf(*_query);
  if (kind == "eventtype" || !findWord(tableOf(*p, kind), value))
    throw QueryException(Str("Unable to find ") + kind + " to delete : " + value);

  const Str restriction = getArg("deleterestrict");
  if (!restriction.empty()) {
    Str rkind, rvalue;
    if (!splitKey(restriction, rkind, rvalue) || !isMetaKind(rkind))
      throw QueryException(Str("Unrecognised deletion restriction ") + restriction);
    if (rkind == kind) throw QueryException(Str("you may not restrict delete::") + kind + ":: by " + kind);
    throw QueryException("Restricted deletes are not supported by this index");
  }

  const bool allowed = UserManager::checkUserPerms("delete_by_keyword", _query->getUser()) == 1;
  const TimeParser& tp = _query->stateMachine().getTimeParser();
  const Str term = kind + "::" + value;
  size_t n = deleteIn(*p, term, clip(tp.getMinTime()), clip(tp.getMaxTime()), allowed);
  gLogger.info("Deleted %zu ids from %s in %s", n, term.c_str(), p->getName().c_str());
  _query->addMessage("INFO", Str("Deleted ") + ToString((unsigned long)n) + " ids from " + key);

  if (kind != "source") return;
  const WordPositionData* left = nullptr;
  std::vector<WordPositionData> sources = p->getSources();
  left = findWord(sources, value);
  if (left && left->count > 0) return;
  DatabaseContainer* c = _query->stateMachine().getContainer();
  IPartitionPolicy* seeks = c ? c->getPolicyByDomain(kFileSeeksIndex) : nullptr;
  if (!seeks || seeks == p) return;
  size_t m = deleteIn(*seeks, term, INT32_MIN, INT32_MAX, allowed);
  gLogger.info("Deleted %zu seek records of %s from %s", m, value.c_str(), kFileSeeksIndex);
}

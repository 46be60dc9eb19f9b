#include "pipeline/indexer/QueryStateMachine.h"

#include <algorithm>
#include <chrono>

#include "framework/UserManager.h"
#include "pipeline/indexer/ConnectedByTypeQueryPart.h"
#include "pipeline/indexer/DatabaseContainer.h"
#include "pipeline/indexer/GenericCleaner.h"
#include "pipeline/indexer/IPartitionPolicy.h"
#include "pipeline/indexer/IdListQueryPart.h"
#include "pipeline/indexer/NewRelatedQueryPart.h"
#include "pipeline/indexer/QSMSetAcceptor.h"
#include "pipeline/indexer/QueryCancelChecker.h"
#include "pipeline/indexer/QueryPart.h"
#include "pipeline/indexer/TermQueryPart.h"
#include "util/Exceptions.h"
#include "util/Logger.h"

static Logger gLogger("QueryStateMachine");

namespace {

const char kEnd[] = "++END++";
const char kEndOfSearch[] = "++END++!!";
const char kAccessControlNext[] = " ACCESS_CONTROL_NEXT ";

const char kBudgetText[] =
    "we reached the maximum number of events available to a search. Try setting a time range, simplifying your "
    "search terms, setting a lower maxresults:: modifier (the default is 10,000) or change the maxQueryIds setting "
    "in indexes.conf. ";
const char kTimeText[] =
    "it exceeded the maximum time limit to complete the search.  The default is 60 seconds.  You can change it by "
    "adding maxtime::120 to your search to increase it to two minutes, or maxtime::-1 to turn off the time limit.";

bool startsWith(const Str& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

Str lowercase(const Str& s) {
  Str out = s;
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = char(c + 32);
  return out;
}

// An index with nothing in it but the default segmenter, for tokens that
// arrive before the machine knows its index.
class NoIndex : public IPartitionPolicy {
 public:
  bool write(const WritableEvent&) override { return false; }
  bool query(const std::vector<Str>&, const std::vector<Str>&, const std::vector<Str>&, int32_t, int32_t, size_t,
             std::vector<ValueWrapper>& out, size_t) override {
    out.clear();
    return false;
  }
  bool read(const ValueWrapper&, DataWrapper&) override { return false; }
};

}  // namespace

QueryStateMachine::QueryStateMachine(const Str& queryId, const Str& cancelId)
    : _queryId(queryId), _cancelId(cancelId) {
  _root = std::make_shared<QueryPart>(this);
  _current = _root;
  _startTime = nowMs();
}

QueryStateMachine::~QueryStateMachine() = default;

int64_t QueryStateMachine::nowMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

IPartitionPolicy* QueryStateMachine::getPolicy() const {
  return _container && !_domain.empty() ? _container->getPolicyByDomain(_domain) : nullptr;
}

const GenericCleaner* QueryStateMachine::searchCleaner() {
  if (IPartitionPolicy* p = getPolicy()) return p->cleanerByName("search");
  static NoIndex none;
  return none.cleanerByName("search");
}

// --- accepting tokens -------------------------------------------------------------

void QueryStateMachine::accept(const Str& token) {
  gLogger.debug("Got Token %s", token.c_str());
  QueryPart& cur = *_current;
  if (token.empty() || token == "AND") return;  // an empty term would match every event
  if (token == "OR") {
    cur._previousJoin = cur._joinMode;
    cur._joinMode = QueryPart::kJoinOr;
    return;
  }
  if (token == "NOT") {
    if (cur._negationMode == QueryPart::kNot) throw QueryParseException("Query parse failure : NOT NOT");
    cur._previousNegation = cur._negationMode;
    cur._negationMode = QueryPart::kNot;
    return;
  }
  const Str t = token == "*" ? Str("meta::all") : token;
  if (startsWith(t, kEnd) && cur._negationMode == QueryPart::kNot)
    throw QueryParseException("Query parse failure: trailing NOT");
  if (t == kAccessControlNext || t == "ACCESS_CONTROL_NEXT") {
    // The access filter that follows is ANDed, whatever the search ended
    // with. (A query text split at blanks hands the marker in trimmed.)
    cur._negationMode = QueryPart::kNegationNone;
    cur._joinMode = QueryPart::kJoinNone;
    return;
  }
  if (startsWith(t, "idlist::")) {
    attach(std::make_shared<IdListQueryPart>(t, this));
    return;
  }
  if (startsWith(t, "related::")) {
    std::vector<Str> words;
    const Str rest = t.substr(9);
    for (size_t at = 0; at < rest.size();) {
      size_t blank = rest.find(' ', at);
      if (blank == Str::npos) blank = rest.size();
      if (blank > at) words.push_back(rest.substr(at, blank - at));
      at = blank + 1;
    }
    _useScore = true;
    attach(std::make_shared<NewRelatedQueryPart>(words, this));
    return;
  }
  if (startsWith(t, "eventtypeconnected::")) {
    attach(std::make_shared<ConnectedByTypeQueryPart>(t.substr(20), this));
    return;
  }
  if (t == kEnd || t == kEndOfSearch) {
    gLogger.debug(t == kEnd ? "Reached end of paren" : "Reached end of search");
    endGroup(t == kEndOfSearch);
    return;
  }
  if (t == "(") {
    auto group = std::make_shared<QueryPart>(this);
    attach(group);
    if (++_depth > kMaxParenDepth) throw QueryParseException("Maximum paren depth exceeded");
    gLogger.debug("STEPPING DOWN");
    _current = group;
    return;
  }
  if (t == ")") {
    accept(kEnd);
    return;
  }
  acceptTerm(t);
}

// A search word, a phrase, or a key::value term.
void QueryStateMachine::acceptTerm(const Str& token) {
  const Str lower = lowercase(token);
  std::vector<Str> words;
  // Words are cut as events were.
  if (lower[0] != '+' && lower.find("::") == Str::npos) words = QSMSetAcceptor::searchWords(*searchCleaner(), lower);
  if (words.size() < 2) {
    if (token == "+")
      throw QueryParseException("+ is not a valid search term. If you want to search for \"+\" you can use ++");
    // One word: the word as the index holds it ("[error]" is "error").
    attach(std::make_shared<TermQueryPart>(words.size() == 1 ? words[0] : token, this));
    return;
  }
  if (_current != _root)
    throw QueryParseException("Velmor detected " + token +
                              " as a phrase search, which is not supported within parentheses.");
  if (_current->_joinMode == QueryPart::kJoinOr || _current->_negationMode == QueryPart::kNot)
    throw QueryParseException("Velmor detected " + token + " as a phrase search, which does not support NOT or OR.");
  auto group = std::make_shared<QueryPart>(this);
  group->_parent = _current;
  for (const Str& w : words) {
    auto term = std::make_shared<TermQueryPart>(w, this);
    term->_parent = group;
    group->_andParts.push_back(term);
  }
  attach(group);
  Str phrase = lower;
  if (phrase.size() >= 2 && phrase.front() == '"' && phrase.back() == '"') phrase = phrase.substr(1, phrase.size() - 2);
  addPhraseFilter(WildcardMatcher(StrSegment(Str("*" + phrase + "*"))));
}

void QueryStateMachine::attach(const std::shared_ptr<QueryPart>& part) {
  QueryPart& cur = *_current;
  part->_parent = _current;
  part->setNegated(cur._negationMode == QueryPart::kNot);
  cur._negationMode = QueryPart::kNegationNone;
  const Str desc = part->toString();
  if (cur._joinMode == QueryPart::kJoinOr) {
    cur._joinMode = QueryPart::kJoinNone;
    static const char kOrNot[] = "OR NOT is unsupported. If you REALLY mean this try doing OR ( meta::all NOT key )";
    if (part->isNegated()) throw QueryParseException(kOrNot);
    std::shared_ptr<QueryPart> prev = cur._next;
    auto& ands = cur._andParts;
    auto inAnd = prev ? std::find(ands.begin(), ands.end(), prev) : ands.end();
    if (inAnd != ands.end()) {
      // A new OR chain starts with the member before the OR.
      if (prev->isNegated()) throw QueryParseException(kOrNot);
      std::shared_ptr<QueryPart> holder = _current;
      if (!cur._orParts.empty()) {
        // The group's OR list holds an earlier chain: this one gets a group
        // of its own, so that "a OR b c OR d" is (a OR b) AND (c OR d).
        holder = std::make_shared<QueryPart>(this);
        holder->_parent = _current;
        *inAnd = holder;
      } else {
        ands.erase(inAnd);
      }
      holder->_orParts.push_back(prev);
      cur._orHolder = holder.get();
    } else if (!cur._orHolder) {
      cur._orHolder = &cur;  // "OR a" with nothing before it
    }
    cur._orHolder->_orParts.push_back(part);
    gLogger.info(" OR %s", desc.c_str());
  } else {
    cur._andParts.push_back(part);
    gLogger.info(" AND %s", desc.c_str());
  }
  cur._next = part;
}

// Leaves the current group (")" or the end of the search).
void QueryStateMachine::endGroup(bool finalizing) {
  if (finalizing) {
    if (_current != _root) throw QueryParseException("Mismatched parens");
    gLogger.debug("ABOUT TO HIT THE END !!");
    return;
  }
  if (_current == _root) {
    gLogger.error("Trailing closing paren. Open count is %ld", _depth);
    throw QueryParseException("Trailing closing paren.");
  }
  std::shared_ptr<QueryPart> group = _current;
  std::shared_ptr<QueryPart> parent = group->_parent.lock();
  bool positive = false;
  for (auto& p : group->_andParts) positive = positive || !p->isNegated();
  if (!group->hasMembers()) {
    // "( )" stands for nothing: it goes.
    auto drop = [&](std::vector<std::shared_ptr<QueryPart>>& l) { l.erase(std::remove(l.begin(), l.end(), group), l.end()); };
    drop(parent->_andParts);
    drop(parent->_orParts);
    for (auto& p : parent->_andParts)
      if (!p->isLeaf()) drop(p->_orParts);
    if (parent->_next == group) parent->_next = nullptr;
  } else if (!positive && group->_orParts.empty()) {
    // Only negated members: they are subtracted from every event.
    auto all = std::make_shared<TermQueryPart>("meta::all", this);
    all->_parent = group;
    group->_andParts.insert(group->_andParts.begin(), all);
  }
  gLogger.debug("STEPPING UP");
  _current = parent;
  --_depth;
}

void QueryStateMachine::finalize() {
  if (_finalized) return;
  gLogger.debug("FINALIZING !!");
  accept(kEndOfSearch);
  _finalized = true;
  if (!_root->_orParts.empty()) return;
  bool positive = false;
  for (auto& p : _root->_andParts) positive = positive || !p->isNegated();
  if (!positive) {
    auto all = std::make_shared<TermQueryPart>("meta::all", this);
    all->_parent = _root;
    _root->_andParts.insert(_root->_andParts.begin(), all);
  }
}

// --- running -----------------------------------------------------------------------------

void QueryStateMachine::applyAccessRule(IPartitionPolicy*) {
  if (_user.empty()) return;
  if (_domain == "history" && !UserManager::checkUserPerms("search_history", _user)) {
    auto own = std::make_shared<TermQueryPart>("user::" + _user, this);
    own->_parent = _root;
    _root->_andParts.push_back(own);
  }
  if ((startsWith(_domain, "_") || _domain == "velmorlogger") &&
      !UserManager::checkUserPerms("search_admin_index", _user))
    throw QueryException("Only admins may search the index " + _domain);
  if (!UserManager::checkIndexAccess(_user, _domain)) throw QueryException(UserManager::indexRefusal(_domain));
}

void QueryStateMachine::execute(std::vector<ValueWrapper>& out) {
  _startTime = nowMs();
  if (!_finalized) finalize();
  gLogger.debug("About to run search.");
  gLogger.debug("%s", toString().c_str());
  _keySet.clear();
  _root->populateKeySet(_keySet);
  IPartitionPolicy* policy = getPolicy();
  if (!policy) throw QueryException("\"%s\" does not appear to be a valid index", _domain.c_str());
  _root->dedupeQuery();
  _root->sortAndParts();
  applyAccessRule(policy);
  if (_optimize) {
    gLogger.debug("Before OptimizeSubQueries : %s", toString().c_str());
    _root->optimizeSubQueries();
    gLogger.debug("After OptimizeSubQueries : %s", toString().c_str());
    gLogger.debug("Before OptimizeMultiTerm : %s", toString().c_str());
    _root->optimizeToMultiTermQueryPart();
    gLogger.debug("After OptimizeMultiTerm : %s", toString().c_str());
    _root->sortAndParts();
  }
  const unsigned long want = _resultLimit + 1;
  const size_t before = out.size();
  _root->getIds(out, 0, want, _timeParser.getMinTime(), _timeParser.getMaxTime());
  if (out.size() - before > want) out.resize(before + want);
  _totalIds = 0;  // the tree is spent; its lists no longer count
  _finished = true;
}

void QueryStateMachine::canGetMoreIds() {
  if (_maxQueryIds >= 1 && _totalIds > _maxQueryIds * kIdsPerQueryIdUnit) throw QueryException(kBudgetText);
}

void QueryStateMachine::hasQueryTimedOut() {
  if (_timeLimit > 0 && nowMs() - _startTime > _timeLimit * 1000) throw QueryException(kTimeText);
}

void QueryStateMachine::testQueryCancelled() {
  if (startsWith(_domain, "_")) return;
  if (_cancelChecker && _cancelChecker->isQueryCancelled(_cancelId)) throw QueryException("it was cancelled.");
}

Str QueryStateMachine::toString() const {
  Str s = _root->toString();
  for (const WildcardMatcher& m : _phraseFilters) s += " PHRASE(" + m.getPattern() + ")";
  for (const auto& r : _regexFilters) s += " REGEX(" + r->getPattern() + ")";
  return s;
}

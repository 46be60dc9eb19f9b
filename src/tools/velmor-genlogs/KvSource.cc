#include "KvSource.h"

#include "CivilTime.h"
#include "LineBuffer.h"
#include "Rng.h"
#include "Vocabulary.h"

namespace {

const char* const kActions[][4] = {
    {"create_order", "get_order", "cancel_order", "list_orders"},          // orders
    {"authorize", "capture", "refund", "void"},                            // payments
    {"reserve", "release", "restock", "count"},                            // inventory
    {"login", "logout", "refresh_token", "reset_password"},                // auth
    {"query", "suggest", "reindex", "facet"},                              // search
    {"quote", "label", "track", "dispatch"},                               // shipping
    {"get_product", "update_price", "list_category", "import"},            // catalog
    {"send_email", "send_sms", "render_template", "unsubscribe"}};         // notifications

const char* const kErrors[] = {
    "connection refused by db-01:5432",
    "timeout after 5000 ms waiting for payments gateway",
    "card declined: insufficient funds",
    "deadlock detected, transaction rolled back",
    "upstream returned HTTP 503",
    "rate limit exceeded for key checkout-web",
    "invalid state transition SHIPPED -> PENDING"};

}  // namespace

void KvSource::emit(int64_t millis, LineBuffer& out, Rng& rng) {
  static const unsigned kLevels[] = {8, 80, 9, 3};
  static const char* const kLevelNames[] = {"DEBUG", "INFO", "WARN", "ERROR"};
  const uint32_t level = rng.weighted(kLevels);
  const uint32_t component = rng.below(8);

  CivilTime(millis).appendIsoZ(out);
  out.put(" level=");
  out.put(kLevelNames[level]);
  out.put(" component=");
  out.put(Vocabulary::kComponents[component]);
  out.put(" user=");
  out.put(Vocabulary::kUsers[rng.skewed(20)]);
  out.put(" action=");
  out.put(kActions[component][rng.below(4)]);
  if (component <= 2) {
    out.put(" order_id=");
    out.putUint(40000 + rng.skewed(60000));
  }
  if (component == 1) {
    out.put(" amount=");
    out.putCents(static_cast<uint64_t>(rng.lognormal(4500, 0.9)));
    out.put(" currency=");
    static const char* const kCurrencies[] = {"EUR", "EUR", "USD", "GBP"};
    out.put(rng.pick(kCurrencies));
  }
  out.put(" status=");
  out.put(level < 2 ? "ok" : (level == 2 ? "retry" : "error"));
  out.put(" duration_ms=");
  out.putUint(static_cast<uint64_t>(rng.lognormal(level == 3 ? 2500 : 60, 0.9)) + 1);
  if (level >= 2) {
    out.put(" error=\"");
    out.put(rng.pick(kErrors));
    out.put('"');
  }
  out.put(" request_id=");
  out.putHex(rng.next(), 8);
  out.endLine();
}

#include "JsonSource.h"

#include "CivilTime.h"
#include "LineBuffer.h"
#include "Rng.h"
#include "Vocabulary.h"

namespace {

struct EventKind {
  const char* service;
  const char* event;
  const char* level;
  const char* msg;  // already JSON-escaped
};

const EventKind kKinds[] = {
    {"payments", "payment_authorized", "info", "authorization approved"},
    {"payments", "payment_declined", "warn", "card declined: \\\"insufficient funds\\\""},
    {"orders", "order_created", "info", "order accepted"},
    {"orders", "order_shipped", "info", "label printed and handed to carrier"},
    {"auth", "login_succeeded", "info", "session started"},
    {"auth", "login_failed", "warn", "bad credentials for \\\"remember me\\\" token"},
    {"search", "query_executed", "info", "query served from index shard 3"},
    {"inventory", "stock_low", "warn", "stock below threshold in warehouse C:\\\\north"},
    {"notifications", "email_bounced", "error", "550 5.1.1 mailbox unavailable"},
    {"orders", "order_failed", "error", "checkout failed; see trace"}};
const unsigned kKindWeights[] = {20, 3, 22, 10, 18, 4, 15, 2, 1, 2};

}  // namespace

void JsonSource::emit(int64_t millis, LineBuffer& out, Rng& rng) {
  const EventKind& k = kKinds[rng.weighted(kKindWeights)];
  out.put("{\"time\":\"");
  CivilTime(millis).appendIsoZ(out);
  out.put("\",\"level\":\"");
  out.put(k.level);
  out.put("\",\"host\":\"");
  out.put(_ctx.host);
  out.put("\",\"service\":\"");
  out.put(k.service);
  out.put("\",\"event\":\"");
  out.put(k.event);
  out.put("\",\"user\":\"");
  out.put(Vocabulary::kUsers[rng.skewed(20)]);
  out.put("\",\"order_id\":");
  out.putUint(40000 + rng.skewed(60000));
  if (k.service[0] == 'p') {
    out.put(",\"amount\":");
    out.putCents(static_cast<uint64_t>(rng.lognormal(4500, 0.9)));
    out.put(",\"currency\":\"EUR\"");
  }
  out.put(",\"latency_ms\":");
  out.putUint(static_cast<uint64_t>(rng.lognormal(k.level[0] == 'e' ? 900 : 40, 0.8)) + 1);
  out.put(",\"success\":");
  out.put(k.level[0] == 'i' ? "true" : "false");
  out.put(",\"tags\":[\"");
  out.put(k.service);
  out.put(rng.chance(0.5) ? "\",\"web\"]" : "\",\"mobile\"]");
  out.put(",\"trace_id\":\"");
  out.putHex(rng.next(), 8);
  out.putHex(rng.next(), 8);
  out.put("\",\"msg\":\"");
  out.put(k.msg);
  out.put("\"}");
  out.endLine();
}

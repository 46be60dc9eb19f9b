#include "JavaSource.h"

#include <string>

#include "CivilTime.h"
#include "LineBuffer.h"
#include "Rng.h"
#include "Vocabulary.h"

namespace {

// Frames every request thread ends with, outermost last.
const char* const kWorkerFrames[] = {
    "com.example.shop.web.Dispatcher.handle(Dispatcher.java:141)",
    "com.example.shop.web.RequestFilter.doFilter(RequestFilter.java:57)",
    "com.example.shop.web.AuthFilter.doFilter(AuthFilter.java:73)",
    "java.base/java.util.concurrent.ThreadPoolExecutor.runWorker(ThreadPoolExecutor.java:1136)",
    "java.base/java.util.concurrent.ThreadPoolExecutor$Worker.run(ThreadPoolExecutor.java:635)",
    "java.base/java.lang.Thread.run(Thread.java:833)"};

struct Trace {
  const char* headBefore;  // exception class and message up to the id
  const char* headAfter;   // rest of the message after the id; null: no id
  const char* frames[5];   // innermost first; null ends
  const char* cause;       // "Caused by" line, or null
  const char* causeFrames[4];
};

const Trace kTraces[] = {
    {"java.lang.IllegalStateException: Order ", " is already shipped",
     {"com.example.shop.orders.OrderService.cancel(OrderService.java:212)",
      "com.example.shop.orders.OrderController.cancelOrder(OrderController.java:88)",
      "jdk.internal.reflect.GeneratedMethodAccessor112.invoke(Unknown Source)",
      "java.base/java.lang.reflect.Method.invoke(Method.java:568)", nullptr},
     nullptr, {nullptr}},
    {"com.example.shop.payments.GatewayException: Payment authorization failed for order ", nullptr,
     {"com.example.shop.payments.GatewayClient.authorize(GatewayClient.java:131)",
      "com.example.shop.payments.PaymentService.authorize(PaymentService.java:64)",
      "com.example.shop.orders.CheckoutService.placeOrder(CheckoutService.java:118)",
      "com.example.shop.orders.OrderController.checkout(OrderController.java:52)", nullptr},
     "java.net.SocketTimeoutException: Read timed out",
     {"java.base/sun.nio.ch.NioSocketImpl.timedRead(NioSocketImpl.java:283)",
      "java.base/sun.nio.ch.NioSocketImpl.implRead(NioSocketImpl.java:309)",
      "java.base/java.net.Socket$SocketInputStream.read(Socket.java:966)",
      "com.example.shop.payments.GatewayClient.post(GatewayClient.java:97)"}},
    {"java.lang.NullPointerException: Cannot invoke \"com.example.shop.catalog.Product.getPrice()\" because \"product\" is null",
     nullptr,
     {"com.example.shop.cart.CartService.total(CartService.java:77)",
      "com.example.shop.cart.CartController.view(CartController.java:41)", nullptr},
     nullptr, {nullptr}},
    {"com.example.shop.db.DataAccessException: could not execute statement for order ", nullptr,
     {"com.example.shop.db.JdbcTemplate.update(JdbcTemplate.java:203)",
      "com.example.shop.inventory.StockRepository.reserve(StockRepository.java:59)",
      "com.example.shop.inventory.InventoryService.reserve(InventoryService.java:88)",
      "com.example.shop.orders.CheckoutService.placeOrder(CheckoutService.java:109)", nullptr},
     "java.sql.SQLException: Deadlock found when trying to get lock; try restarting transaction",
     {"com.example.shop.db.Connection.executeUpdate(Connection.java:412)",
      "com.example.shop.db.JdbcTemplate.update(JdbcTemplate.java:198)", nullptr}},
    {"java.lang.OutOfMemoryError: Java heap space", nullptr,
     {"java.base/java.util.Arrays.copyOf(Arrays.java:3537)",
      "java.base/java.lang.AbstractStringBuilder.ensureCapacityInternal(AbstractStringBuilder.java:228)",
      "com.example.shop.reports.CsvExporter.write(CsvExporter.java:66)", nullptr},
     nullptr, {nullptr}}};

const char* const kLoggers[] = {"com.example.shop.orders.OrderService",
                                "com.example.shop.payments.PaymentService",
                                "com.example.shop.inventory.InventoryService",
                                "com.example.shop.auth.SessionManager",
                                "com.example.shop.search.SearchService",
                                "com.example.shop.shipping.ShippingService",
                                "com.example.shop.catalog.CatalogService",
                                "com.example.shop.notifications.Mailer"};

void frame(LineBuffer& out, const char* text) {
  out.put("\tat ");
  out.put(text);
  out.endLine();
}

}  // namespace

void JavaSource::stackTrace(LineBuffer& out, Rng& rng, uint64_t id) {
  const uint64_t before = out.lines();
  const Trace& t = rng.pick(kTraces);
  out.put(t.headBefore);
  if (t.headBefore[std::char_traits<char>::length(t.headBefore) - 1] == ' ') out.putUint(id);
  if (t.headAfter) out.put(t.headAfter);
  out.endLine();
  for (const char* f : t.frames) {
    if (!f) break;
    frame(out, f);
  }
  for (const char* f : kWorkerFrames) frame(out, f);
  if (t.cause) {
    out.put("Caused by: ");
    out.put(t.cause);
    out.endLine();
    for (const char* f : t.causeFrames) {
      if (!f) break;
      frame(out, f);
    }
    // The cause's outer frames repeat the main trace's, which Java elides.
    out.put("\t... ");
    out.putUint(sizeof kWorkerFrames / sizeof kWorkerFrames[0] + 3);
    out.put(" more");
    out.endLine();
  }
  out.countContinuations(out.lines() - before);
}

void JavaSource::emit(int64_t millis, LineBuffer& out, Rng& rng) {
  static const unsigned kLevels[] = {5, 82, 9, 4};
  static const char* const kLevelNames[] = {"DEBUG", "INFO ", "WARN ", "ERROR"};
  const uint32_t level = rng.weighted(kLevels);
  const uint32_t component = rng.below(8);
  const uint64_t id = 40000 + rng.skewed(60000);

  CivilTime(millis).appendJava(out);
  out.put(' ');
  out.put(kLevelNames[level]);
  out.put(" [");
  out.put(rng.pick(Vocabulary::kThreads));
  out.put("] ");
  out.put(kLoggers[component]);
  out.put(" - ");
  switch (level) {
    case 0:
      out.put("Cache lookup key=");
      out.put(Vocabulary::kComponents[component]);
      out.put(':');
      out.putUint(id);
      out.put(rng.chance(0.8) ? " hit" : " miss");
      break;
    case 1:
      if (rng.chance(0.6)) {
        out.put("Processed request for user ");
        out.put(Vocabulary::kUsers[rng.skewed(20)]);
        out.put(" (order ");
        out.putUint(id);
        out.put(") in ");
        out.putUint(static_cast<uint64_t>(rng.lognormal(60, 0.8)) + 1);
        out.put(" ms");
      } else {
        out.put("Connection pool stats: active=");
        out.putUint(rng.below(20));
        out.put(", idle=");
        out.putUint(rng.below(10));
        out.put(", waiting=");
        out.putUint(rng.skewed(5));
      }
      break;
    case 2:
      out.put("Slow query took ");
      out.putUint(1000 + rng.below(9000));
      out.put(" ms: SELECT * FROM orders WHERE customer_id = ? AND status IN (?, ?)");
      break;
    default:
      out.put("Unhandled exception while processing order ");
      out.putUint(id);
      out.endLine();
      stackTrace(out, rng, id);
      return;
  }
  out.endLine();
}

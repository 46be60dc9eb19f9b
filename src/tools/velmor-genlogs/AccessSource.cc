#include "AccessSource.h"

#include <charconv>

#include "AccessCsv.h"
#include "CivilTime.h"
#include "LineBuffer.h"
#include "Rng.h"
#include "Vocabulary.h"

namespace {

const char* const kSite = "https://shop.example.com";

void appendNumber(std::string& s, uint64_t v) {
  char buf[24];
  s.append(buf, static_cast<size_t>(std::to_chars(buf, buf + sizeof buf, v).ptr - buf));
}

const char* browserAgent(Rng& rng) {
  // The first six agents are browsers; crawlers and command-line clients
  // are left to their own kinds of request.
  static const unsigned kWeights[] = {30, 14, 8, 14, 10, 4};
  return Vocabulary::kUserAgents[rng.weighted(kWeights)];
}

}  // namespace

void AccessSource::page(Rng& rng, Request& r) {
  const char* product = rng.pick(Vocabulary::kProducts);
  static const unsigned kPages[] = {12, 30, 10, 12, 8, 5, 4, 3};
  switch (rng.weighted(kPages)) {
    case 0: _uri = "/"; break;
    case 1: _uri = "/products/"; _uri += product; _uri += '/'; appendNumber(_uri, 1000 + rng.skewed(9000)); break;
    case 2: _uri = "/category/"; _uri += product; _uri += 's'; break;
    case 3: _uri = "/search?q="; _uri += product; _uri += "&page="; appendNumber(_uri, 1 + rng.skewed(5)); break;
    case 4: _uri = "/cart"; break;
    case 5: _uri = "/checkout"; break;
    case 6: _uri = "/account/orders"; break;
    default: _uri = "/help/shipping"; break;
  }
  r.method = "GET";
  static const unsigned kStatus[] = {900, 30, 45, 12, 5, 5, 3};
  static const unsigned kCodes[] = {200, 304, 404, 500, 502, 503, 301};
  r.status = kCodes[rng.weighted(kStatus)];
  r.bytes = r.status == 304 ? 0 : static_cast<uint64_t>(rng.lognormal(r.status == 200 ? 14000 : 1200, 0.6));
  r.durationMs = rng.lognormal(r.status >= 500 ? 900 : 45, 0.8);
  r.agent = browserAgent(rng);
}

void AccessSource::staticFile(Rng& rng, Request& r) {
  static const unsigned kKinds[] = {3, 3, 8, 1};
  switch (rng.weighted(kKinds)) {
    case 0: _uri = "/static/css/site."; break;
    case 1: _uri = "/static/js/app."; break;
    case 2: _uri = "/images/"; _uri += rng.pick(Vocabulary::kProducts); _uri += '-'; appendNumber(_uri, 1 + rng.below(8)); _uri += ".jpg"; break;
    default: _uri = "/favicon.ico"; break;
  }
  if (_uri.back() == '.') {
    // Fingerprinted bundle names change with each release, which is rare.
    _uri += (_uri[8] == 'c') ? "3f9a1c2e.css" : "b71d04aa.js";
  }
  r.method = "GET";
  static const unsigned kStatus[] = {70, 28, 2};
  static const unsigned kCodes[] = {200, 304, 404};
  r.status = kCodes[rng.weighted(kStatus)];
  r.bytes = r.status == 200 ? static_cast<uint64_t>(rng.lognormal(35000, 1.0)) : (r.status == 404 ? 153 : 0);
  r.durationMs = rng.lognormal(2, 0.7);
  r.agent = browserAgent(rng);
}

void AccessSource::api(Rng& rng, Request& r) {
  const uint64_t id = 10000 + rng.skewed(90000);
  static const unsigned kCalls[] = {30, 12, 15, 10, 6, 4};
  unsigned okStatus = 200;
  switch (rng.weighted(kCalls)) {
    case 0: r.method = "GET"; _uri = "/api/v1/products/"; appendNumber(_uri, id % 9000 + 1000); break;
    case 1: r.method = "POST"; _uri = "/api/v1/cart/items"; okStatus = 201; break;
    case 2: r.method = "GET"; _uri = "/api/v1/orders/"; appendNumber(_uri, id); break;
    case 3: r.method = "POST"; _uri = "/api/v1/orders"; okStatus = 201; break;
    case 4: r.method = "PUT"; _uri = "/api/v1/cart/items/"; appendNumber(_uri, id % 500); break;
    default: r.method = "DELETE"; _uri = "/api/v1/cart/items/"; appendNumber(_uri, id % 500); okStatus = 204; break;
  }
  static const unsigned kStatus[] = {880, 30, 25, 30, 8, 15, 8, 4};
  static const unsigned kCodes[] = {0, 400, 401, 404, 409, 500, 502, 504};
  r.status = kCodes[rng.weighted(kStatus)];
  if (r.status == 0) r.status = okStatus;
  r.bytes = r.status == 204 ? 0 : static_cast<uint64_t>(rng.lognormal(r.status < 300 ? 900 : 120, 0.7));
  if (r.status == 504)
    r.durationMs = 30000 + rng.below(200);
  else
    r.durationMs = rng.lognormal(r.status >= 500 ? 1500 : 80, 0.9);
  // Mostly the shop's own pages calling back; some scripted clients.
  if (rng.chance(0.7))
    r.agent = browserAgent(rng);
  else
    r.agent = Vocabulary::kUserAgents[rng.chance(0.67) ? 9 : 10];
}

void AccessSource::login(Rng& rng, Request& r) {
  if (rng.chance(0.3)) {
    r.method = "GET";
    _uri = "/login";
    r.status = 200;
    r.bytes = static_cast<uint64_t>(rng.lognormal(5200, 0.1));
  } else {
    r.method = "POST";
    _uri = "/login";
    static const unsigned kStatus[] = {75, 20, 5};
    static const unsigned kCodes[] = {302, 401, 429};
    r.status = kCodes[rng.weighted(kStatus)];
    r.bytes = r.status == 302 ? 0 : 320;
  }
  r.durationMs = rng.lognormal(r.method[0] == 'P' ? 140 : 20, 0.5);
  r.agent = browserAgent(rng);
}

void AccessSource::crawler(Rng& rng, Request& r) {
  static const char* const kPaths[] = {"/robots.txt", "/sitemap.xml", "/products/lamp/1001", "/"};
  _uri = rng.pick(kPaths);
  r.method = "GET";
  r.status = 200;
  r.bytes = static_cast<uint64_t>(rng.lognormal(6000, 0.9));
  r.durationMs = rng.lognormal(30, 0.6);
  r.agent = Vocabulary::kUserAgents[6 + rng.below(2)];
}

void AccessSource::probe(Rng& rng, Request& r) {
  static const char* const kPaths[] = {"/wp-login.php", "/.env", "/phpmyadmin/index.php", "/.git/config",
                                       "/admin/config.php", "/cgi-bin/luci", "/vendor/phpunit/phpunit/src/Util/PHP/eval-stdin.php",
                                       "/server-status", "/actuator/health"};
  _uri = rng.pick(kPaths);
  r.method = rng.chance(0.85) ? "GET" : "POST";
  r.status = rng.chance(0.9) ? 404 : 403;
  r.bytes = r.status == 404 ? 153 : 146;
  r.durationMs = rng.lognormal(1.5, 0.5);
  r.agent = Vocabulary::kUserAgents[8 + rng.below(4)];
}

void AccessSource::emit(int64_t millis, LineBuffer& out, Rng& rng) {
  Request r{};
  // Most clients come from a large skewed pool; probes from the same small
  // pool of hostile addresses that guesses SSH passwords.
  static const unsigned kKinds[] = {40, 32, 18, 4, 3, 3};
  const uint32_t kind = rng.weighted(kKinds);
  _ip.clear();
  if (kind == 5)
    Vocabulary::appendIp(_ip, rng.skewed(40), _ctx.salt + 11);
  else
    Vocabulary::appendIp(_ip, rng.skewed(20000), _ctx.salt + 5);
  switch (kind) {
    case 0: page(rng, r); break;
    case 1: staticFile(rng, r); break;
    case 2: api(rng, r); break;
    case 3: login(rng, r); break;
    case 4: crawler(rng, r); break;
    default: probe(rng, r); break;
  }
  if (r.durationMs < 0.5) r.durationMs = 0.5;
  const uint64_t durationMs = static_cast<uint64_t>(r.durationMs + 0.5);

  _referrer.clear();
  const bool browser = r.agent != Vocabulary::kUserAgents[9] && r.agent != Vocabulary::kUserAgents[10];
  if (kind <= 3 && browser) {
    const double u = rng.uniform();
    if (u < 0.55) {
      _referrer = kSite;
      _referrer += kind == 1 ? "/products/" : "/";
      if (kind == 1) {
        _referrer += rng.pick(Vocabulary::kProducts);
        _referrer += "/1042";
      }
    } else if (u < 0.65) {
      static const char* const kExternal[] = {"https://www.google.com/", "https://duckduckgo.com/",
                                              "https://www.bing.com/", "https://news.ycombinator.com/"};
      _referrer = rng.pick(kExternal);
    }
  }

  out.put(_ip);
  out.put(" - ");
  const bool authed = kind == 2 && rng.chance(0.5);
  out.put(authed ? rng.pick(Vocabulary::kUsers) : "-");
  out.put(" [");
  CivilTime(millis).appendAccess(out);
  out.put("] \"");
  out.put(r.method);
  out.put(' ');
  out.put(_uri);
  out.put(rng.chance(0.3) ? " HTTP/2.0\" " : " HTTP/1.1\" ");
  out.putUint(r.status);
  out.put(' ');
  out.putUint(r.bytes);
  out.put(" \"");
  out.put(_referrer.empty() ? std::string_view("-") : std::string_view(_referrer));
  out.put("\" \"");
  out.put(r.agent);
  out.put("\" ");
  out.putUint(durationMs);
  out.endLine();

  if (_csv) {
    _csv->write(AccessCsv::Row{millis, _ctx.host, _ctx.source, _ctx.sourcetype, r.status, r.method, _uri,
                               r.bytes, _ip, r.agent, durationMs});
  }
}

#include "tools/velmor/ServerClient.h"

#include <cstring>

#include "framework/http/HTTPRequest.h"
#include "framework/http/HTTPRequestReply.h"
#include "framework/http/HTTPStream.h"
#include "search/SearchResults.h"
#include "tools/velmor/JsonRows.h"
#include "util/Exceptions.h"

ServerClient::ServerClient(const Str& url, bool verifyPeer) : _verify(verifyPeer) {
  Str err;
  if (!normalizeBase(url, _base, err)) _base = url;
}

bool ServerClient::normalizeBase(const Str& url, Str& base, Str& err) {
  HTTPClient::URL u;
  if (!u.parse(url, err)) {
    err = "not a server URL: '" + url + "' (http://host:port or https://host:port)";
    return false;
  }
  base = url;
  while (!base.empty() && base.back() == '/') base.pop_back();
  const Str services = "/services";
  if (base.size() > services.size() && base.compare(base.size() - services.size(), services.size(), services) == 0)
    base.erase(base.size() - services.size());
  while (!base.empty() && base.back() == '/') base.pop_back();
  return true;
}

Str ServerClient::xmlUnescape(const Str& text) {
  static const std::pair<const char*, char> kEntities[] = {
      {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
  Str out;
  for (size_t i = 0; i < text.size();) {
    bool done = false;
    if (text[i] == '&') {
      for (const auto& [name, c] : kEntities) {
        size_t n = strlen(name);
        if (text.compare(i, n, name) == 0) {
          out += c;
          i += n;
          done = true;
          break;
        }
      }
    }
    if (!done) out += text[i++];
  }
  return out;
}

bool ServerClient::element(const Str& body, const Str& tag, Str& out) {
  size_t s = body.find("<" + tag + ">");
  if (s == Str::npos) return false;
  s += tag.size() + 2;
  size_t e = body.find("</" + tag + ">", s);
  if (e == Str::npos) return false;
  out = xmlUnescape(body.substr(s, e - s));
  return true;
}

Str ServerClient::messageOf(const Str& body) {
  size_t s = body.find("<msg");
  if (s == Str::npos) return Str();
  s = body.find('>', s);
  if (s == Str::npos) return Str();
  size_t e = body.find("</msg>", ++s);
  if (e == Str::npos) return Str();
  return xmlUnescape(body.substr(s, e - s)).trim();
}

void ServerClient::parseStatus(const Str& entry, JobState& st) {
  st = JobState();
  // The status lines are the text content of the entry.
  Str text = entry;
  size_t c = entry.find("<content");
  if (c != Str::npos) {
    size_t s = entry.find('>', c);
    size_t e = entry.find("</content>", s);
    if (s != Str::npos && e != Str::npos) text = xmlUnescape(entry.substr(s + 1, e - s - 1));
  }
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == Str::npos) nl = text.size();
    Str line = Str(text.substr(pos, nl - pos)).trim();
    pos = nl + 1;
    size_t eq = line.find('=');
    if (eq == Str::npos) continue;
    Str key = line.substr(0, eq), value = line.substr(eq + 1);
    if (key == "done") st.done = value == "1";
    else if (key == "count") st.count = atol(value.c_str());
    else if (key == "error") st.error = value;
    else if (key == "message") st.messages.push_back(value);
  }
}

Str ServerClient::formBody(const std::vector<std::pair<Str, Str>>& params) {
  Str body;
  for (const auto& [k, v] : params) {
    if (!body.empty()) body += '&';
    body += HTTPRequest::urlEncode(k) + "=" + HTTPRequest::urlEncode(v);
  }
  return body;
}

bool ServerClient::call(const Str& method, const Str& path, const Str& body, HTTPRequestReply& reply, Str& err) {
  HTTPClient client;
  client.setVerifyPeer(_verify);
  std::vector<std::pair<Str, Str>> headers;
  if (!_key.empty()) headers.emplace_back("Authorization", "Velmor " + _key);
  Str why;
  if (!client.execute(method, _base + path, body, body.empty() ? Str() : Str("application/x-www-form-urlencoded"),
                      _timeouts, reply, why, headers)) {
    err = "cannot reach " + _base + ": " + why;
    return false;
  }
  return true;
}

bool ServerClient::login(const Str& user, const Str& password, Str& err) {
  HTTPRequestReply reply;
  if (!call("POST", "/services/auth/login", formBody({{"username", user}, {"password", password}}), reply, err))
    return false;
  Str key;
  if (reply.status() != 200 || !element(reply.body(), "sessionKey", key) || key.empty()) {
    Str msg = messageOf(reply.body());
    err = Str::fromFormat("login as '%s' refused by %s (HTTP %d)%s%s", user.c_str(), _base.c_str(), reply.status(),
                          msg.empty() ? "" : ": ", msg.c_str());
    return false;
  }
  _key = key;
  return true;
}

bool ServerClient::postJob(const Str& search, const std::vector<std::pair<Str, Str>>& params, Str& sid, Str& err) {
  std::vector<std::pair<Str, Str>> all{{"search", search}};
  all.insert(all.end(), params.begin(), params.end());
  HTTPRequestReply reply;
  if (!call("POST", "/services/search/jobs", formBody(all), reply, err)) return false;
  if (reply.status() != 201 || !element(reply.body(), "sid", sid)) {
    Str msg = messageOf(reply.body());
    err = msg.empty() ? Str::fromFormat("the search was refused (HTTP %d)", reply.status()) : msg;
    return false;
  }
  return true;
}

bool ServerClient::jobStatus(const Str& sid, JobState& st, Str& err) {
  HTTPRequestReply reply;
  if (!call("GET", "/services/search/jobs/" + HTTPRequest::urlEncode(sid), Str(), reply, err)) return false;
  if (reply.status() != 200) {
    Str msg = messageOf(reply.body());
    err = Str::fromFormat("the status of job %s could not be read (HTTP %d)%s%s", sid.c_str(), reply.status(),
                          msg.empty() ? "" : ": ", msg.c_str());
    return false;
  }
  parseStatus(reply.body(), st);
  return true;
}

bool ServerClient::fetchRows(const Str& sid, size_t offset, size_t count, SearchResults& out, size_t& got,
                             Str& err) {
  got = 0;
  HTTPRequestReply reply;
  Str path = "/services/search/jobs/" + HTTPRequest::urlEncode(sid) +
             Str::fromFormat("/results?output_mode=json&offset=%zu&count=%zu", offset, count);
  if (!call("GET", path, Str(), reply, err)) return false;
  if (reply.status() == 204) return true;
  if (reply.status() != 200) {
    Str msg = messageOf(reply.body());
    err = Str::fromFormat("the results of job %s could not be read (HTTP %d)%s%s", sid.c_str(), reply.status(),
                          msg.empty() ? "" : ": ", msg.c_str());
    return false;
  }
  size_t before = out.size();
  if (!JsonRows::parse(reply.body(), out, err)) {
    err = "the results of job " + sid + " are not readable: " + err;
    return false;
  }
  got = out.size() - before;
  return true;
}

bool ServerClient::serverInfo(std::map<Str, Str>& fields, Str& err) {
  HTTPRequestReply reply;
  if (!call("GET", "/services/server/info", Str(), reply, err)) return false;
  if (reply.status() != 200) {
    err = Str::fromFormat("%s/services/server/info answered HTTP %d", _base.c_str(), reply.status());
    return false;
  }
  for (const char* tag : {"serverName", "startupTime", "authSystem", "user"}) {
    Str v;
    if (element(reply.body(), tag, v)) fields[tag] = v;
  }
  Str roles;
  for (size_t at = 0; (at = reply.body().find("<role>", at)) != Str::npos;) {
    Str one;
    if (!element(reply.body().substr(at), "role", one)) break;
    if (!roles.empty()) roles += ", ";
    roles += one;
    at += 6;
  }
  fields["roles"] = roles;
  return true;
}

std::unique_ptr<HTTPStream> ServerClient::openTail(const std::vector<std::pair<Str, Str>>& params, int readMs,
                                                   Str& err) {
  std::vector<std::pair<Str, Str>> all = params;
  all.emplace_back("output_mode", "json");
  all.emplace_back("authtoken", _key);
  HTTPClient::Timeouts t = _timeouts;
  t.readMs = readMs;
  try {
    _tailClient.setVerifyPeer(_verify);
    auto stream = std::make_unique<HTTPStream>(_tailClient, _base + "/services/streams/tail", t, formBody(all));
    Str version, reason;
    int status = 0;
    std::map<Str, Str> headers;
    stream->readHeaders(version, status, reason, headers);
    if (status == 200) return stream;
    Str body, piece;
    while (body.size() < 65536 && stream->read(piece)) body += piece;
    Str msg = messageOf(body);
    if (msg.empty()) msg = Str(body.substr(0, 300)).trim();
    if (status == 404)
      err = _base + " has no live tail (/services/streams/tail answered 404)";
    else
      err = msg.empty() ? Str::fromFormat("the tail was refused (HTTP %d %s)", status, reason.c_str()) : msg;
  } catch (const HTTPStreamException& e) {
    err = "cannot reach " + _base + ": " + e.what();
  }
  return nullptr;
}

#include "framework/http/HTTPRequest.h"

#include <cctype>

namespace {

Str lower(const Str& s) {
  Str out(s);
  for (char& c : out) c = char(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// RFC 9110 token characters (method and header names).
bool isTokenChar(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  if (std::isalnum(u)) return true;
  switch (c) {
    case '!': case '#': case '$': case '%': case '&': case '\'': case '*': case '+':
    case '-': case '.': case '^': case '_': case '`': case '|': case '~':
      return true;
    default:
      return false;
  }
}

bool isToken(const Str& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (!isTokenChar(c)) return false;
  return true;
}

Str trimSpaces(const Str& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) --e;
  return Str(s.substr(b, e - b));
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Splits the header block into lines, accepting CRLF or a bare LF. Stops at
// the first empty line.
void splitLines(const Str& header, std::vector<Str>& lines) {
  size_t pos = 0;
  while (pos < header.size()) {
    size_t nl = header.find('\n', pos);
    size_t end = nl == Str::npos ? header.size() : nl;
    size_t stop = end;
    if (stop > pos && header[stop - 1] == '\r') --stop;
    Str line(header.substr(pos, stop - pos));
    if (line.empty()) return;
    lines.push_back(line);
    if (nl == Str::npos) return;
    pos = nl + 1;
  }
}

void parseCookieHeader(const Str& value, std::vector<HTTPRequestCookie>& out) {
  size_t pos = 0;
  while (pos <= value.size()) {
    size_t semi = value.find(';', pos);
    if (semi == Str::npos) semi = value.size();
    Str piece = trimSpaces(Str(value.substr(pos, semi - pos)));
    pos = semi + 1;
    if (piece.empty()) continue;
    size_t eq = piece.find('=');
    HTTPRequestCookie c;
    c.name = trimSpaces(Str(piece.substr(0, eq)));
    if (eq != Str::npos) c.value = trimSpaces(Str(piece.substr(eq + 1)));
    if (c.value.size() >= 2 && c.value.front() == '"' && c.value.back() == '"')
      c.value = Str(c.value.substr(1, c.value.size() - 2));
    if (!c.name.empty()) out.push_back(c);
  }
}

}  // namespace

bool HTTPRequest::parse(const Str& headerText, const Str& body, Str& err) {
  std::vector<Str> lines;
  splitLines(headerText, lines);
  if (lines.empty()) {
    err = "empty request";
    return false;
  }

  // Request line: METHOD SP target SP version, single spaces.
  const Str& rl = lines[0];
  size_t sp1 = rl.find(' ');
  size_t sp2 = sp1 == Str::npos ? Str::npos : rl.find(' ', sp1 + 1);
  if (sp1 == Str::npos || sp2 == Str::npos || rl.find(' ', sp2 + 1) != Str::npos) {
    err = "malformed request line";
    return false;
  }
  _method = Str(rl.substr(0, sp1));
  _rawPath = Str(rl.substr(sp1 + 1, sp2 - sp1 - 1));
  _version = Str(rl.substr(sp2 + 1));
  if (!isToken(_method)) {
    err = "malformed method";
    return false;
  }
  if (_version.size() != 8 || !_version.startswith("HTTP/") || !std::isdigit(static_cast<unsigned char>(_version[5])) ||
      _version[6] != '.' || !std::isdigit(static_cast<unsigned char>(_version[7]))) {
    err = "malformed version";
    return false;
  }
  Str target = _rawPath;
  // The absolute form names the host; only its path counts.
  for (const char* scheme : {"http://", "https://"}) {
    if (lower(target).startswith(scheme)) {
      size_t slash = target.find('/', std::char_traits<char>::length(scheme));
      target = slash == Str::npos ? Str("/") : Str(target.substr(slash));
      break;
    }
  }
  if (target != "*" && !target.startswith('/')) {
    err = "malformed request target";
    return false;
  }
  for (char c : target) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
      err = "malformed request target";
      return false;
    }
  }
  parseGetParams(target, _path, _getParams);

  for (size_t i = 1; i < lines.size(); ++i) {
    const Str& line = lines[i];
    if (line[0] == ' ' || line[0] == '\t') {
      err = "obsolete header line folding";
      return false;
    }
    size_t colon = line.find(':');
    if (colon == Str::npos) {
      err = "malformed header line";
      return false;
    }
    Str name(line.substr(0, colon));
    if (!isToken(name)) {
      err = "malformed header name";
      return false;
    }
    Str value = trimSpaces(Str(line.substr(colon + 1)));
    for (char c : value) {
      if (c == '\0' || c == '\r' || c == '\n') {
        err = "malformed header value";
        return false;
      }
    }
    name = lower(name);
    if (name == "cookie") parseCookieHeader(value, _cookies);
    auto it = _headers.find(name);
    if (it == _headers.end())
      _headers.emplace(name, value);
    else
      it->second += (name == "cookie" ? "; " : ", ") + value;
  }

  _body = body;
  if (const Str* ct = header("content-type")) {
    if (lower(*ct).startswith("application/x-www-form-urlencoded")) parseEncodedString(body, _postParams);
  }
  return true;
}

const Str* HTTPRequest::param(const Str& key) const {
  auto p = _postParams.find(key);
  if (p != _postParams.end() && !p->second.empty()) return &p->second.front();
  auto g = _getParams.find(key);
  if (g != _getParams.end() && !g->second.empty()) return &g->second.front();
  return nullptr;
}

const Str* HTTPRequest::header(const Str& name) const {
  auto it = _headers.find(lower(name));
  return it == _headers.end() ? nullptr : &it->second;
}

void HTTPRequest::getMethodComponents(std::vector<Str>& out) const {
  out.clear();
  size_t pos = 0;
  while (pos <= _path.size()) {
    size_t slash = _path.find('/', pos);
    if (slash == Str::npos) slash = _path.size();
    if (slash > pos) out.push_back(Str(_path.substr(pos, slash - pos)));
    pos = slash + 1;
  }
}

Str HTTPRequest::getHost() const {
  const Str* h = header("host");
  return h ? *h : Str();
}

void HTTPRequest::addCookies(const std::vector<HTTPRequestCookie>& c) {
  _cookies.insert(_cookies.end(), c.begin(), c.end());
}

void HTTPRequest::parseEncodedString(const Str& s, Params& out) {
  size_t pos = 0;
  while (pos <= s.size()) {
    size_t amp = s.find('&', pos);
    if (amp == Str::npos) amp = s.size();
    Str piece(s.substr(pos, amp - pos));
    pos = amp + 1;
    if (piece.empty()) continue;
    size_t eq = piece.find('=');
    Str key = urlDecode(Str(piece.substr(0, eq)), true);
    if (key.empty()) continue;
    Str value = eq == Str::npos ? Str() : urlDecode(Str(piece.substr(eq + 1)), true);
    out[key].push_back(value);
  }
}

void HTTPRequest::parseGetParams(const Str& url, Str& path, Params& out) {
  size_t q = url.find('?');
  path = urlDecode(Str(url.substr(0, q)), false);
  if (q != Str::npos) {
    size_t hash = url.find('#', q);
    parseEncodedString(Str(url.substr(q + 1, hash == Str::npos ? Str::npos : hash - q - 1)), out);
  }
}

Str HTTPRequest::urlDecode(const Str& s, bool plusIsSpace) {
  Str out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '%' && i + 2 < s.size()) {
      int hi = hexValue(s[i + 1]), lo = hexValue(s[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out += char(hi * 16 + lo);
        i += 2;
        continue;
      }
    }
    out += (plusIsSpace && c == '+') ? ' ' : c;
  }
  return out;
}

Str HTTPRequest::urlEncode(const Str& s) {
  static const char kHex[] = "0123456789ABCDEF";
  Str out;
  for (char c : s) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (std::isalnum(u) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += c;
    } else {
      out += '%';
      out += kHex[u >> 4];
      out += kHex[u & 15];
    }
  }
  return out;
}

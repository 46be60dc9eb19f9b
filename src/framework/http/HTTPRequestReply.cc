#include "framework/http/HTTPRequestReply.h"

#include <cctype>

namespace {

Str lower(Str s) {
  for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

Str trimSpaces(const Str& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) --e;
  return Str(s.substr(b, e - b));
}

// The end of the line starting at pos (the index of '\n'), or npos.
size_t lineEnd(const Str& s, size_t pos) { return s.find('\n', pos); }

Str lineAt(const Str& s, size_t pos, size_t nl) {
  size_t stop = nl;
  if (stop > pos && s[stop - 1] == '\r') --stop;
  return Str(s.substr(pos, stop - pos));
}

}  // namespace

void HTTPRequestReply::putRequest(const Str& method, const Str& pathAndQuery, const Str& host) {
  _method = method;
  _target = pathAndQuery.empty() ? Str("/") : pathAndQuery;
  _outHeaders.clear();
  _outBody.clear();
  putHeader("Host", host);
}

void HTTPRequestReply::putHeader(const Str& name, const Str& value) { _outHeaders.emplace_back(name, value); }

void HTTPRequestReply::putHTTPBody(const Str& body, const Str& contentType) {
  _outBody = body;
  if (!contentType.empty()) putHeader("Content-Type", contentType);
}

Str HTTPRequestReply::getFullRequestReply() const {
  Str out = _method + " " + _target + " HTTP/1.1\r\n";
  for (const auto& h : _outHeaders) out += h.first + ": " + h.second + "\r\n";
  if (!_outBody.empty() || _method == "POST" || _method == "PUT")
    out.appendFormat("Content-Length: %lu\r\n", (unsigned long)_outBody.size());
  out += "Connection: close\r\n\r\n";
  out += _outBody;
  return out;
}

const Str* HTTPRequestReply::header(const Str& name) const {
  auto it = _headers.find(lower(name));
  return it == _headers.end() ? nullptr : &it->second;
}

bool HTTPRequestReply::parseHeaderBlock(const Str& block, Str& err) {
  _headers.clear();
  _status = 0;
  size_t pos = 0;
  size_t nl = lineEnd(block, pos);
  _startLine = lineAt(block, pos, nl == Str::npos ? block.size() : nl);
  size_t sp1 = _startLine.find(' ');
  if (sp1 == Str::npos) {
    err = "malformed start line";
    return false;
  }
  size_t sp2 = _startLine.find(' ', sp1 + 1);
  _version = Str(_startLine.substr(0, sp1));
  Str second(_startLine.substr(sp1 + 1, sp2 == Str::npos ? Str::npos : sp2 - sp1 - 1));
  _reason = sp2 == Str::npos ? Str() : Str(_startLine.substr(sp2 + 1));
  if (_version.startswith("HTTP/")) {
    if (second.size() != 3 || !std::isdigit(static_cast<unsigned char>(second[0])) ||
        !std::isdigit(static_cast<unsigned char>(second[1])) || !std::isdigit(static_cast<unsigned char>(second[2]))) {
      err = "malformed status code";
      return false;
    }
    _status = std::stoi(second);
  }
  pos = nl == Str::npos ? block.size() : nl + 1;
  while (pos < block.size()) {
    nl = lineEnd(block, pos);
    size_t end = nl == Str::npos ? block.size() : nl;
    Str line = lineAt(block, pos, end);
    pos = end + 1;
    if (line.empty()) break;
    size_t colon = line.find(':');
    if (colon == Str::npos || colon == 0) {
      err = "malformed header line";
      return false;
    }
    Str name = lower(Str(line.substr(0, colon)));
    Str value = trimSpaces(Str(line.substr(colon + 1)));
    auto it = _headers.find(name);
    if (it == _headers.end()) _headers.emplace(name, value);
    else it->second += ", " + value;
  }
  return true;
}

HTTPRequestReply::Parse HTTPRequestReply::decodeChunked(const Str& data, size_t& pos, Str& out, Str& err) {
  size_t p = pos;
  Str body;
  for (;;) {
    size_t nl = lineEnd(data, p);
    if (nl == Str::npos) return kIncomplete;
    Str sizeLine = lineAt(data, p, nl);
    size_t semi = sizeLine.find(';');  // chunk extensions are ignored
    Str hex = trimSpaces(Str(sizeLine.substr(0, semi)));
    if (hex.empty() || hex.size() > 15) {
      err = "malformed chunk size";
      return kMalformed;
    }
    unsigned long long n = 0;
    for (char c : hex) {
      int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
              : (c >= 'a' && c <= 'f')                    ? c - 'a' + 10
              : (c >= 'A' && c <= 'F')                    ? c - 'A' + 10
                                                          : -1;
      if (v < 0) {
        err = "malformed chunk size";
        return kMalformed;
      }
      n = n * 16 + static_cast<unsigned long long>(v);
    }
    p = nl + 1;
    if (n == 0) {
      // Trailer lines up to an empty one.
      for (;;) {
        size_t tnl = lineEnd(data, p);
        if (tnl == Str::npos) return kIncomplete;
        Str t = lineAt(data, p, tnl);
        p = tnl + 1;
        if (t.empty()) break;
      }
      out += body;
      pos = p;
      return kComplete;
    }
    if (data.size() - p < n) return kIncomplete;
    body.append(data, p, n);
    p += n;
    // The CRLF after the chunk's data.
    if (data.size() - p < 1) return kIncomplete;
    if (data[p] == '\r') {
      if (data.size() - p < 2) return kIncomplete;
      if (data[p + 1] != '\n') {
        err = "missing line end after chunk";
        return kMalformed;
      }
      p += 2;
    } else if (data[p] == '\n') {
      p += 1;
    } else {
      err = "missing line end after chunk";
      return kMalformed;
    }
  }
}

HTTPRequestReply::Parse HTTPRequestReply::parseFull(const Str& data, bool eof, Str& err) {
  _need = 0;
  size_t crlf = data.find("\r\n\r\n");
  size_t lf = data.find("\n\n");
  size_t end = Str::npos;
  if (crlf != Str::npos && (lf == Str::npos || crlf + 2 <= lf)) end = crlf + 4;
  else if (lf != Str::npos) end = lf + 2;
  if (end == Str::npos) {
    if (eof) {
      err = "connection closed inside the header";
      return kMalformed;
    }
    return kIncomplete;
  }
  if (!parseHeaderBlock(Str(data.substr(0, end)), err)) return kMalformed;
  _body.clear();
  const bool bodyless = _status == 204 || _status == 304 || (_status >= 100 && _status < 200);
  if (bodyless) return kComplete;
  const Str* te = header("transfer-encoding");
  if (te != nullptr && lower(*te).find("chunked") != Str::npos) {
    size_t pos = end;
    Parse r = decodeChunked(data, pos, _body, err);
    if (r == kIncomplete && eof) {
      err = "connection closed inside a chunked body";
      return kMalformed;
    }
    return r;
  }
  if (const Str* cl = header("content-length")) {
    unsigned long n = 0;
    if (!cl->tryToUnsignedLong(n)) {
      err = "malformed Content-Length";
      return kMalformed;
    }
    if (data.size() - end < n) {
      if (eof) {
        err = "connection closed before the whole body came";
        return kMalformed;
      }
      _need = end + n;
      return kIncomplete;
    }
    _body = Str(data.substr(end, n));
    return kComplete;
  }
  // A request without a length has no body; a reply runs to the close.
  if (_status == 0) return kComplete;
  if (!eof) return kIncomplete;
  _body = Str(data.substr(end));
  return kComplete;
}

#include "framework/http/HTTPReply.h"

#include "framework/http/AtomEntry.h"
#include "framework/http/AtomFeed.h"
#include "util/XmlEscape.h"

void HTTPReply::addHeader(const Str& name, const Str& value) { _headers.emplace_back(name, value); }

void HTTPReply::toString(Str& out) const {
  Str text;
  getErrorString(_status, text);
  out.appendFormat("HTTP/1.1 %d %s\r\n", _status, text.c_str());
  // A 204 or 1xx reply carries no body and may not announce one.
  const bool bodyless = _status == 204 || (_status >= 100 && _status < 200);
  if (!bodyless) out.appendFormat("Content-Length: %lu\r\n", (unsigned long)_body.size());
  if (_hasData) {
    out += "Content-Type: " + _contentType;
    if (_charset) out += "; charset=utf-8";
    out += "\r\n";
  }
  out += "Connection: close\r\n";
  for (const auto& h : _headers) out += h.first + ": " + h.second + "\r\n";
  for (const HTTPReplyCookie& c : _cookies) {
    out += "Set-Cookie: " + c.name + "=" + c.value;
    if (!c.path.empty()) out += "; Path=" + c.path;
    if (c.maxAgeSeconds >= 0) out.appendFormat("; Max-Age=%ld", c.maxAgeSeconds);
    if (c.secure) out += "; Secure";
    if (c.httpOnly) out += "; HttpOnly";
    out += "\r\n";
  }
  out += "\r\n";
  if (!bodyless) out += _body;
}

HTTPReply* HTTPReply::createReply(int status, const Str& body, char const* contentType, bool isFile) {
  HTTPReply* r = new HTTPReply;
  r->_status = status;
  r->_body = body;
  r->_contentType = contentType ? contentType : "text/plain";
  r->_charset = !isFile;
  return r;
}

HTTPReply* HTTPReply::createReplyNoData() {
  HTTPReply* r = new HTTPReply;
  r->_status = 204;
  r->_hasData = false;
  return r;
}

HTTPReply* HTTPReply::createErrorTextReply(int status) {
  Str text;
  getErrorString(status, text);
  return createReply(status, text + "\n", "text/plain", false);
}

HTTPReply* HTTPReply::createErrorXMLReply(int status, const Str& type, const Str& text) {
  Str body = "<response>\n<messages>\n<msg type=\"" + xmlEscape(type) + "\">" + xmlEscape(text) +
             "</msg>\n</messages>\n</response>\n";
  return createReply(status, body, "text/xml", false);
}

HTTPReply* HTTPReply::createNotFoundErrorReply() { return createErrorXMLReply(404, "ERROR", "Not Found"); }

HTTPReply* HTTPReply::createAtomReply(const AtomFeed& feed) {
  Str body;
  feed.toXML(body);
  return createReply(200, body, "application/atom+xml", false);
}

HTTPReply* HTTPReply::createAtomReply(const AtomEntry& entry) {
  Str body;
  entry.toXML(body, true);
  return createReply(200, body, "application/atom+xml", false);
}

void HTTPReply::getErrorString(int status, Str& out) {
  switch (status) {
    case 100: out = "Continue"; break;
    case 200: out = "OK"; break;
    case 201: out = "Created"; break;
    case 202: out = "Accepted"; break;
    case 204: out = "No Content"; break;
    case 301: out = "Moved Permanently"; break;
    case 302: out = "Found"; break;
    case 303: out = "See Other"; break;
    case 304: out = "Not Modified"; break;
    case 307: out = "Temporary Redirect"; break;
    case 400: out = "Bad Request"; break;
    case 401: out = "Unauthorized"; break;
    case 403: out = "Forbidden"; break;
    case 404: out = "Not Found"; break;
    case 405: out = "Method Not Allowed"; break;
    case 408: out = "Request Timeout"; break;
    case 409: out = "Conflict"; break;
    case 411: out = "Length Required"; break;
    case 413: out = "Payload Too Large"; break;
    case 414: out = "URI Too Long"; break;
    case 415: out = "Unsupported Media Type"; break;
    case 431: out = "Request Header Fields Too Large"; break;
    case 500: out = "Internal Server Error"; break;
    case 501: out = "Not Implemented"; break;
    case 502: out = "Bad Gateway"; break;
    case 503: out = "Service Unavailable"; break;
    case 504: out = "Gateway Timeout"; break;
    case 505: out = "HTTP Version Not Supported"; break;
    default: out = "Unknown"; break;
  }
}

Str HTTPReply::xmlEscape(const Str& s) {
  return xmlEscaped(s);
}

#include "framework/http/StaticFileHandler.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "framework/http/HTTPReply.h"
#include "framework/http/HTTPRequest.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/Logger.h"

static Logger gLogger("StaticFileHandler");

const char* const StaticFileHandler::kVersionMarker = "@ASSET_VERSION@";
const char* const StaticFileHandler::kServicesPrefix = "/services";

namespace {

// Files above this size are not served: the page is a handful of small files.
constexpr off_t kMaxFileBytes = 32 << 20;
constexpr const char* kYear = "public, max-age=31536000, immutable";

bool endsWithNoCase(const Str& s, const char* suffix) {
  const size_t n = strlen(suffix);
  return s.size() >= n && strcasecmp(s.c_str() + s.size() - n, suffix) == 0;
}

bool isHtml(const Str& name) { return endsWithNoCase(name, ".html") || endsWithNoCase(name, ".htm"); }

// 64-bit FNV-1a, for tags of generated bodies.
uint64_t fnv1a(const Str& s, uint64_t h = 1469598103934665603ULL) {
  for (unsigned char c : s) {
    h ^= c;
    h *= 1099511628211ULL;
  }
  return h;
}

Str realPath(const Str& p) {
  char buf[PATH_MAX];
  if (!::realpath(p.c_str(), buf)) return Str();
  return Str(buf);
}

bool readWhole(const Str& path, Str& out, struct stat& st) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxFileBytes;
  if (ok) {
    out.assign(static_cast<size_t>(st.st_size), '\0');
    size_t got = 0;
    while (got < out.size()) {
      ssize_t n = ::read(fd, &out[got], out.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    out.resize(got);  // a file that shrank while read is served as it was read
  }
  ::close(fd);
  return ok;
}

void replaceAll(Str& s, const Str& from, const Str& to) {
  for (size_t at = s.find(from); at != Str::npos; at = s.find(from, at + to.size())) s.replace(at, from.size(), to);
}

Str trim(const Str& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == Str::npos) return Str();
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

}  // namespace

StaticFileHandler::StaticFileHandler(const Pathname& root, MHttpRequestHandler* next) : _root(root), _next(next) {}

Pathname StaticFileHandler::configuredRoot() {
  const Str home = LoaderInfo::getInstance().getHomePath();
  PropertiesMap settings;
  PropertyPages::instance("web").fillLayers(settings, "settings", false);
  Str dir;
  if (!PropertyPages::layeredFind("staticDir", settings, dir) || trim(dir).empty()) return Pathname(home) / "share/web";
  dir = trim(dir);
  if (dir.front() == '/') return Pathname(dir);
  return Pathname(home) / dir;
}

bool StaticFileHandler::isServicesPath(const Str& path) {
  const size_t n = strlen(kServicesPrefix);
  return path.compare(0, n, kServicesPrefix) == 0 && (path.size() == n || path[n] == '/');
}

bool StaticFileHandler::relativePathFor(const Str& urlPath, Str& rel) {
  rel.clear();
  if (urlPath.empty() || urlPath.front() != '/') return false;
  if (urlPath.find('\0') != Str::npos || urlPath.find('\\') != Str::npos) return false;
  size_t at = 1;
  while (at <= urlPath.size()) {
    size_t slash = urlPath.find('/', at);
    if (slash == Str::npos) slash = urlPath.size();
    Str part = urlPath.substr(at, slash - at);
    at = slash + 1;
    if (part.empty()) continue;        // "//" and a trailing "/"
    if (part.front() == '.') return false;  // "..", "." and hidden files
    if (!rel.empty()) rel += '/';
    rel += part;
  }
  return true;
}

const char* StaticFileHandler::contentTypeFor(const Str& name) {
  static const struct {
    const char* ext;
    const char* type;
  } kTypes[] = {
      {".html", "text/html; charset=utf-8"},
      {".htm", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".mjs", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".json", "application/json; charset=utf-8"},
      {".map", "application/json; charset=utf-8"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".ico", "image/x-icon"},
      {".gif", "image/gif"},
      {".jpg", "image/jpeg"},
      {".jpeg", "image/jpeg"},
      {".webp", "image/webp"},
      {".woff2", "font/woff2"},
      {".txt", "text/plain; charset=utf-8"},
  };
  for (const auto& t : kTypes)
    if (endsWithNoCase(name, t.ext)) return t.type;
  return "application/octet-stream";
}

Str StaticFileHandler::httpDate(time_t t) {
  struct tm tm;
  gmtime_r(&t, &tm);
  char buf[64];
  strftime(buf, sizeof buf, "%a, %d %b %Y %H:%M:%S GMT", &tm);
  return Str(buf);
}

bool StaticFileHandler::parseHttpDate(const Str& text, time_t& out) {
  static const char* const kForms[] = {
      "%a, %d %b %Y %H:%M:%S GMT",  // IMF-fixdate
      "%A, %d-%b-%y %H:%M:%S GMT",  // RFC 850
      "%a %b %e %H:%M:%S %Y",       // asctime
  };
  const Str t = trim(text);
  for (const char* form : kForms) {
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    const char* end = strptime(t.c_str(), form, &tm);
    if (end && *end == '\0') {
      out = timegm(&tm);
      return true;
    }
  }
  return false;
}

bool StaticFileHandler::etagMatches(const Str& ifNoneMatch, const Str& etag) {
  const Str want = etag.compare(0, 2, "W/") == 0 ? Str(etag.substr(2)) : etag;
  size_t at = 0;
  while (at <= ifNoneMatch.size()) {
    size_t comma = ifNoneMatch.find(',', at);
    if (comma == Str::npos) comma = ifNoneMatch.size();
    Str tag = trim(ifNoneMatch.substr(at, comma - at));
    at = comma + 1;
    if (tag == "*") return true;
    if (tag.compare(0, 2, "W/") == 0) tag = tag.substr(2);  // weak comparison
    if (!tag.empty() && tag == want) return true;
  }
  return false;
}

Str StaticFileHandler::assetVersion() const {
  std::vector<Str> names;
  if (!_root.readDirectory(names)) return "0";
  std::sort(names.begin(), names.end());
  uint64_t h = 1469598103934665603ULL;
  for (const Str& n : names) {
    struct stat st;
    if (n.empty() || n.front() == '.' || !(_root / n).stat(st) || !S_ISREG(st.st_mode)) continue;
    h = fnv1a(Str::fromFormat("%s:%lld:%lld.%09ld;", n.c_str(), (long long)st.st_size, (long long)st.st_mtim.tv_sec,
                              st.st_mtim.tv_nsec),
              h);
  }
  return Str::fromFormat("%012llx", (unsigned long long)(h & 0xffffffffffffULL));
}

HTTPReply* StaticFileHandler::handleRequest(const FdConnectionData& conn, const HTTPRequest* req) {
  if (isServicesPath(req->path())) {
    if (_next) return _next->handleRequest(conn, req);
    return HTTPReply::createNotFoundErrorReply();
  }
  return serve(*req);
}

HTTPReply* StaticFileHandler::serve(const HTTPRequest& req) const {
  const bool head = req.method() == "HEAD";
  if (req.method() != "GET" && !head) {
    HTTPReply* r = HTTPReply::createErrorTextReply(405);
    r->addHeader("Allow", "GET, HEAD");
    return r;
  }
  Str rel;
  if (!relativePathFor(req.path(), rel)) {
    gLogger.info("refused path %s", req.rawPath().c_str());
    return HTTPReply::createErrorTextReply(404);
  }
  const Str realRoot = realPath(_root);
  if (realRoot.empty()) {
    gLogger.warn("the web directory %s is missing", _root.c_str());
    return HTTPReply::createErrorTextReply(404);
  }
  Pathname file = rel.empty() ? Pathname(realRoot) : Pathname(realRoot) / rel;
  Str real = realPath(file);
  struct stat st;
  if (!real.empty() && ::stat(real.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    real = realPath(Pathname(real) / "index.html");
  }
  // Symbolic links may point anywhere inside the root, never outside it.
  if (real.empty() || (real != realRoot && real.compare(0, realRoot.size() + 1, realRoot + "/") != 0)) {
    return HTTPReply::createErrorTextReply(404);
  }
  Str body;
  if (!readWhole(real, body, st)) return HTTPReply::createErrorTextReply(404);

  Str etag;
  const bool html = isHtml(real);
  if (html) {
    replaceAll(body, kVersionMarker, assetVersion());
    etag = Str::fromFormat("\"h%016llx\"", (unsigned long long)fnv1a(body));
  } else {
    etag = Str::fromFormat("\"%llx-%llx\"", (unsigned long long)st.st_size,
                           (unsigned long long)st.st_mtim.tv_sec * 1000000000ULL + st.st_mtim.tv_nsec);
  }
  const bool versioned = !html && req.getParams().count("v") != 0;
  const Str cacheControl = versioned ? kYear : "no-cache";

  bool notModified = false;
  if (const Str* inm = req.header("If-None-Match")) {
    notModified = etagMatches(*inm, etag);
  } else if (const Str* ims = req.header("If-Modified-Since")) {
    time_t since;
    notModified = !html && parseHttpDate(*ims, since) && st.st_mtim.tv_sec <= since;
  }

  HTTPReply* r = HTTPReply::createReply(notModified ? 304 : 200, (notModified || head) ? Str() : body,
                                        contentTypeFor(real), true);
  r->addHeader("ETag", etag);
  r->addHeader("Last-Modified", httpDate(st.st_mtim.tv_sec));
  r->addHeader("Cache-Control", cacheControl);
  r->addHeader("X-Content-Type-Options", "nosniff");
  if (html) {
    r->addHeader("Content-Security-Policy",
                 "default-src 'self'; img-src 'self' data:; style-src 'self'; script-src 'self'; "
                 "connect-src 'self'; frame-ancestors 'none'");
  }
  return r;
}

// LogFormat: compilation of the pattern and rendering of one line.
#include "util/LogFormat.h"

#include <cassert>
#include <cstdio>
#include <cstring>

#include "util/Logger.h"
#include "util/Thread.h"

namespace {
std::vector<std::string> splitAtMillis(const std::string& fmt) {
  std::vector<std::string> pieces(1);
  for (size_t i = 0; i < fmt.size(); ++i) {
    if (fmt[i] == '%' && i + 1 < fmt.size()) {
      if (fmt[i + 1] == 'l') {
        pieces.emplace_back();
      } else {
        pieces.back() += fmt[i];
        pieces.back() += fmt[i + 1];
      }
      ++i;
    } else {
      pieces.back() += fmt[i];
    }
  }
  return pieces;
}

std::string dateFormatFor(const std::string& brace) {
  if (brace.empty() || brace == "ISO8601") return "%Y-%m-%d %H:%M:%S,%l";
  if (brace == "ABSOLUTE") return "%H:%M:%S,%l";
  if (brace == "DATE") return "%d %b %Y %H:%M:%S,%l";
  return brace;
}
}  // namespace

struct timespec LogFormat::startTime() {
  static const struct timespec start = [] {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts;
  }();
  return start;
}

LogFormat::LogFormat(const std::string& pattern) : _pattern(pattern) {
  startTime();
  size_t natoms = compile(pattern, nullptr);
  _atoms.reserve(natoms);
  compile(pattern, &_atoms);
  assert(natoms == _atoms.size());
}

size_t LogFormat::compile(const std::string& p, std::vector<Atom>* out) {
  size_t count = 0;
  bool literalOpen = false;  // the last atom is a literal we may extend
  auto literal = [&](const char* s, size_t n) {
    if (!literalOpen) {
      ++count;
      literalOpen = true;
      if (out) out->emplace_back();
    }
    if (out) out->back().text.append(s, n);
  };
  size_t i = 0;
  while (i < p.size()) {
    char ch = p[i];
    if (ch != '%') {
      size_t j = p.find('%', i);
      if (j == std::string::npos) j = p.size();
      literal(p.data() + i, j - i);
      i = j;
      continue;
    }
    ++i;
    if (i >= p.size()) break;  // a lone "%" at the end
    if (p[i] == '%') {
      literal("%", 1);
      ++i;
      continue;
    }
    Atom a;
    if (p[i] == '-') {
      a.leftJustify = true;
      ++i;
    } else if (p[i] == '0') {
      a.zeroPad = true;
      ++i;
    }
    while (i < p.size() && p[i] >= '0' && p[i] <= '9') {
      if (a.minWidth < 100000) a.minWidth = a.minWidth * 10 + (p[i] - '0');
      ++i;
    }
    if (i < p.size() && p[i] == '.') {
      ++i;
      while (i < p.size() && p[i] >= '0' && p[i] <= '9') {
        if (a.maxWidth < 100000) a.maxWidth = a.maxWidth * 10 + (p[i] - '0');
        ++i;
      }
    }
    if (i >= p.size()) break;
    char letter = p[i++];
    switch (letter) {
      case 'm': a.kind = MESSAGE; break;
      case 'n': a.kind = NEWLINE; break;
      case 'c': a.kind = CHANNEL; break;
      case 'p': a.kind = LEVEL; break;
      case 't': a.kind = THREAD; break;
      case 'r': a.kind = MILLIS; break;
      case 'R': a.kind = SECONDS; break;
      case 'u': a.kind = CLOCK; break;
      case 'd': {
        a.kind = DATE;
        std::string brace;
        if (i < p.size() && p[i] == '{') {
          size_t close = p.find('}', i + 1);
          if (close == std::string::npos) close = p.size();
          brace = p.substr(i + 1, close - i - 1);
          i = close < p.size() ? close + 1 : close;
        }
        if (out) a.datePieces = splitAtMillis(dateFormatFor(brace));
        break;
      }
      default:
        continue;  // unknown conversion: the atom is dropped
    }
    ++count;
    literalOpen = false;
    if (out) out->push_back(std::move(a));
  }
  return count;
}

void LogFormat::appendPadded(std::string& out, const char* text, size_t len, const Atom& a) {
  if (a.maxWidth > 0 && len > a.maxWidth) len = a.maxWidth;
  size_t pad = a.minWidth > len ? a.minWidth - len : 0;
  if (pad > 0 && !a.leftJustify) out.append(pad, a.zeroPad ? '0' : ' ');
  out.append(text, len);
  if (pad > 0 && a.leftJustify) out.append(pad, ' ');
}

void LogFormat::appendDate(std::string& out, const Atom& a, const struct timespec& when) {
  // Broken-down time of the last second seen by this thread.
  thread_local time_t cachedSecond = -1;
  thread_local struct tm cachedTm;
  if (when.tv_sec != cachedSecond) {
    localtime_r(&when.tv_sec, &cachedTm);
    cachedSecond = when.tv_sec;
  }
  char text[512];
  size_t len = 0;
  for (size_t k = 0; k < a.datePieces.size(); ++k) {
    if (k > 0 && len + 4 < sizeof(text)) {
      len += snprintf(text + len, sizeof(text) - len, "%03ld", when.tv_nsec / 1000000L);
    }
    const std::string& piece = a.datePieces[k];
    if (piece.empty() || len >= sizeof(text)) continue;
    // strftime gives 0 when the result does not fit: the piece is dropped.
    len += strftime(text + len, sizeof(text) - len, piece.c_str(), &cachedTm);
  }
  appendPadded(out, text, len, a);
}

void LogFormat::format(std::string& out, const Event& ev) const {
  char num[32];
  for (const Atom& a : _atoms) {
    switch (a.kind) {
      case LITERAL:
        out += a.text;
        break;
      case MESSAGE:
        appendPadded(out, ev.message, ev.messageLength, a);
        break;
      case NEWLINE:
        out += '\n';
        break;
      case CHANNEL:
        appendPadded(out, ev.channel, strlen(ev.channel), a);
        break;
      case LEVEL: {
        const char* w = Logger::levelName(ev.level);
        appendPadded(out, w, strlen(w), a);
        break;
      }
      case THREAD: {
        const char* t = Thread::currentName();
        appendPadded(out, t, strlen(t), a);
        break;
      }
      case MILLIS:
      case SECONDS: {
        struct timespec now, start = startTime();
        clock_gettime(CLOCK_MONOTONIC, &now);
        long long ms = (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000L;
        int n = snprintf(num, sizeof(num), "%lld", a.kind == MILLIS ? ms : ms / 1000);
        appendPadded(out, num, n, a);
        break;
      }
      case CLOCK: {
        int n = snprintf(num, sizeof(num), "%ld", static_cast<long>(clock()));
        appendPadded(out, num, n, a);
        break;
      }
      case DATE:
        appendDate(out, a, ev.when);
        break;
    }
  }
}

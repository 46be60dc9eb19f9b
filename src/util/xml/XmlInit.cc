#include "util/xml/XmlInit.h"

#include <libexslt/exslt.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxslt/security.h>
#include <libxslt/xslt.h>
#include <libxslt/xsltutils.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace xml {

namespace {

std::mutex g_mutex;
std::atomic<bool> g_ready{false};
int g_holders = 0;
xsltSecurityPrefsPtr g_security = nullptr;

thread_local init::capture_errors* t_capture = nullptr;

// libxml2's structured errors: one call per diagnostic.
void structured_error(void*, xmlErrorPtr err) {
  if (t_capture == nullptr || err == nullptr || err->level == XML_ERR_WARNING) return;
  char buf[64];
  std::string line;
  if (err->line > 0) {
    snprintf(buf, sizeof buf, "line %d: ", err->line);
    line = buf;
  }
  line += err->message ? err->message : "unknown error";
  while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
  t_capture->append_line(line.c_str());
}

// libxslt's (and libxml2's unstructured) errors: printf fragments that end
// in a newline when a diagnostic is complete.
void generic_error(void*, const char* fmt, ...) {
  if (t_capture == nullptr) return;
  char buf[2048];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  t_capture->append_raw(buf);
}

void setup_locked() {
  xmlInitParser();
  // Entities stay references and external DTDs are never fetched: a
  // document cannot pull in files or the network behind our back.
  xmlSubstituteEntitiesDefault(0);
  xmlThrDefSubstituteEntitiesDefaultValue(0);
  xmlLoadExtDtdDefaultValue = 0;
  xmlThrDefLoadExtDtdDefaultValue(0);
  xmlSetStructuredErrorFunc(nullptr, structured_error);
  xmlThrDefSetStructuredErrorFunc(nullptr, structured_error);
  xmlSetGenericErrorFunc(nullptr, generic_error);
  xmlThrDefSetGenericErrorFunc(nullptr, generic_error);
  xsltInit();
  xsltSetGenericErrorFunc(nullptr, generic_error);
  exsltRegisterAll();
  g_security = xsltNewSecurityPrefs();
  xsltSetSecurityPrefs(g_security, XSLT_SECPREF_WRITE_FILE, xsltSecurityForbid);
  xsltSetSecurityPrefs(g_security, XSLT_SECPREF_CREATE_DIRECTORY, xsltSecurityForbid);
  xsltSetSecurityPrefs(g_security, XSLT_SECPREF_WRITE_NETWORK, xsltSecurityForbid);
  xsltSetSecurityPrefs(g_security, XSLT_SECPREF_READ_NETWORK, xsltSecurityForbid);
  xsltSetDefaultSecurityPrefs(g_security);
  g_ready.store(true, std::memory_order_release);
}

}  // namespace

init::init() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_ready.load(std::memory_order_acquire)) setup_locked();
  ++g_holders;
}

init::~init() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (--g_holders > 0) return;
  xsltSetDefaultSecurityPrefs(nullptr);
  xsltFreeSecurityPrefs(g_security);
  g_security = nullptr;
  xsltCleanupGlobals();
  xmlCleanupParser();
  g_ready.store(false, std::memory_order_release);
}

void init::ensure() {
  if (g_ready.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_ready.load(std::memory_order_acquire)) setup_locked();
}

init::capture_errors::capture_errors() : _outer(t_capture) { t_capture = this; }

init::capture_errors::~capture_errors() { t_capture = _outer; }

void init::capture_errors::append_line(const char* msg) {
  if (msg == nullptr || *msg == '\0') return;
  if (!_text.empty() && _text.back() != '\n') _text += '\n';
  _text += msg;
  _text += '\n';
}

void init::capture_errors::append_raw(const char* msg) {
  if (msg != nullptr) _text += msg;
}

std::string init::capture_errors::message() const {
  size_t end = _text.find_last_not_of("\n ");
  return end == std::string::npos ? std::string() : _text.substr(0, end + 1);
}

}  // namespace xml

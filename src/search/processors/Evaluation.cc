#include "search/processors/Evaluation.h"

#include <sqlite3.h>

#include <cctype>
#include <cstring>
#include <set>

#include "search/SearchResult.h"
#include "search/SearchResults.h"
#include "util/Logger.h"

namespace {

Logger gLogger("Evaluation");

// Words SQLite reads as keywords or type names in an expression; any other
// bare word is a field name.
const std::set<Str>& reservedWords() {
  static const std::set<Str> words = {
      "and", "or", "not", "in", "null", "is", "isnull", "notnull", "like", "glob", "regexp",
      "match", "between", "case", "when", "then", "else", "end", "cast", "as", "collate",
      "escape", "exists", "distinct", "select", "from", "where", "true", "false",
      "current_time", "current_date", "current_timestamp", "nocase", "binary", "rtrim",
      "text", "blob", "int", "integer", "real", "numeric", "float", "double", "varchar",
      "char", "boolean"};
  return words;
}

bool isWordStart(char c) { return isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isWordChar(char c) {
  return isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == ':';
}

// Whole text is an integer / a real number as a binding type.
bool looksInteger(const Str& v, long long& out) { return !v.empty() && v.tryToLongLong(out); }
bool looksReal(const Str& v, double& out) {
  if (v.empty() || isspace(static_cast<unsigned char>(v[0]))) return false;
  char* end = nullptr;
  out = strtod(v.c_str(), &end);
  return end == v.c_str() + v.size() && end != v.c_str();
}

}  // namespace

Evaluation::Evaluation(const Str& expression) {
  if (sqlite3_open(":memory:", &_db) != SQLITE_OK) {
    Str msg = Str("there was an error opening the database: ") + sqlite3_errmsg(_db);
    sqlite3_close(_db);
    _db = nullptr;
    throw EvaluationException(msg);
  }
  bool blank = true;
  for (char c : expression)
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') blank = false;
  if (blank) {
    sqlite3_close(_db);
    _db = nullptr;
    throw EvaluationException("Empty expression is not allowed!");
  }
  rewrite(expression);
}

Evaluation::~Evaluation() {
  if (_stmt) sqlite3_finalize(_stmt);
  if (_db) sqlite3_close(_db);
}

void Evaluation::rewrite(const Str& text) {
  _sql = "SELECT ";
  size_t i = 0, n = text.size();
  while (i < n) {
    char c = text[i];
    if (c == '"') {
      // Double-quoted: a string literal. "" and \" are one quote mark.
      _sql += '\'';
      ++i;
      while (i < n) {
        if (text[i] == '\\' && i + 1 < n && (text[i + 1] == '"' || text[i + 1] == '\\')) {
          _sql += text[i + 1];
          i += 2;
        } else if (text[i] == '"') {
          if (i + 1 < n && text[i + 1] == '"') {
            _sql += '"';
            i += 2;
          } else {
            ++i;
            break;
          }
        } else {
          if (text[i] == '\'') _sql += '\'';
          _sql += text[i++];
        }
      }
      _sql += '\'';
    } else if (c == '\'') {
      // Single-quoted: already an SQL literal; copy through its end.
      _sql += text[i++];
      while (i < n) {
        _sql += text[i];
        if (text[i] == '\'') {
          if (i + 1 < n && text[i + 1] == '\'') {
            _sql += text[++i];
          } else {
            ++i;
            break;
          }
        }
        ++i;
      }
    } else if (isdigit(static_cast<unsigned char>(c)) ||
               (c == '.' && i + 1 < n && isdigit(static_cast<unsigned char>(text[i + 1])))) {
      // A number, exponent included; hex digits and the like ride along.
      while (i < n && (isalnum(static_cast<unsigned char>(text[i])) || text[i] == '.' ||
                       ((text[i] == '+' || text[i] == '-') && (text[i - 1] == 'e' || text[i - 1] == 'E'))))
        _sql += text[i++];
    } else if (isWordStart(c)) {
      size_t start = i;
      while (i < n && isWordChar(text[i])) ++i;
      Str word = text.substr(start, i - start);
      size_t j = i;
      while (j < n && (text[j] == ' ' || text[j] == '\t')) ++j;
      Str lower = word;
      for (auto& ch : lower) ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
      if ((j < n && text[j] == '(') || reservedWords().count(lower)) {
        _sql += word;
      } else {
        size_t k = 0;
        while (k < _fields.size() && _fields[k] != word) ++k;
        if (k == _fields.size()) _fields.push_back(word);
        _sql.appendFormat("?%zu", k + 1);
      }
    } else {
      _sql += text[i++];
    }
  }
}

void Evaluation::prepare() {
  if (_stmt) {
    sqlite3_finalize(_stmt);
    _stmt = nullptr;
  }
  if (sqlite3_prepare_v2(_db, _sql.c_str(), static_cast<int>(_sql.size()), &_stmt, nullptr) !=
          SQLITE_OK ||
      _stmt == nullptr) {
    gLogger.warn("Failed to prepare query: '%s',  %s ", _sql.c_str(), sqlite3_errmsg(_db));
    if (_stmt) sqlite3_finalize(_stmt);
    _stmt = nullptr;
    throw EvaluationException("Query preparation failed for: '%s' ", _sql.c_str());
  }
}

bool Evaluation::evaluateValues(const std::vector<const Str*>& values, Str& out) {
  if (_stmt == nullptr) throw EvaluationException("Invalid eval expression");
  sqlite3_reset(_stmt);
  sqlite3_clear_bindings(_stmt);
  for (size_t i = 0; i < _fields.size() && i < values.size(); ++i) {
    const Str* v = values[i];
    int p = static_cast<int>(i + 1);
    long long ll;
    double d;
    if (v == nullptr) sqlite3_bind_null(_stmt, p);
    else if (looksInteger(*v, ll)) sqlite3_bind_int64(_stmt, p, ll);
    else if (looksReal(*v, d)) sqlite3_bind_double(_stmt, p, d);
    else sqlite3_bind_text(_stmt, p, v->data(), static_cast<int>(v->size()), SQLITE_TRANSIENT);
  }
  return step(out);
}

bool Evaluation::step(Str& out) {
  out.clear();
  int rc = sqlite3_step(_stmt);
  if (rc != SQLITE_ROW) {
    if (rc != SQLITE_DONE) gLogger.warn("Evaluation failed: %s", sqlite3_errmsg(_db));
    return false;
  }
  if (sqlite3_column_type(_stmt, 0) == SQLITE_NULL) return false;
  const unsigned char* t = sqlite3_column_text(_stmt, 0);
  int len = sqlite3_column_bytes(_stmt, 0);
  if (t) out.assign(reinterpret_cast<const char*>(t), static_cast<size_t>(len));
  return true;
}

void Evaluation::prepare_statement(SearchResults& results) {
  prepare();
  _keyIdx.assign(_fields.size(), SearchResults::nkeyindex);
  for (size_t i = 0; i < _fields.size(); ++i) {
    auto alias = _aliases.find(_fields[i]);
    const Str& f = alias == _aliases.end() ? _fields[i] : alias->second;
    _keyIdx[i] = SearchResults::isInternalField(f) ? results.internalKeyIndex(f, false) : results.keyIndex(f);
  }
  _rowVals.assign(_fields.size(), nullptr);
}

bool Evaluation::evaluate(const SearchResult* row, Str& out) {
  if (_stmt == nullptr || _keyIdx.size() != _fields.size()) throw EvaluationException("Invalid eval expression");
  for (size_t i = 0; i < _keyIdx.size(); ++i) _rowVals[i] = row->getValuePtr(_keyIdx[i]);
  return evaluateValues(_rowVals, out);
}

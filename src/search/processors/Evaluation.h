// Evaluation: the expression engine of `where` and `eval`.
//
// The expression is rewritten into SQL and evaluated by SQLite in an
// in-memory database with no tables: "SELECT <expression>". Bare words that
// are neither SQL keywords, numbers nor function names (a word followed by
// "(") are field references and become numbered parameters ?1, ?2, ... (one
// per distinct field). Double-quoted text becomes an SQL string literal
// (with "" and \" standing for one quote mark); single-quoted text is kept as
// the SQL literal it already is. `||` stays string concatenation.
//
// Per row: bind each parameter from the row (missing field: NULL; an
// integer: int64; a real number: double; else text), step, and read the
// first column as text. A NULL answer is "no value".
//
// Owns its sqlite3 handle and statement. One thread at a time.
#pragma once

#include <map>
#include <vector>

#include "util/Exceptions.h"
#include "util/Str.h"

struct sqlite3;
struct sqlite3_stmt;
class SearchResult;
class SearchResults;

VELMOR_DECLARE_EXCEPTION(EvaluationException, std::runtime_error);

class Evaluation {
 public:
  // Opens the database and rewrites the text. Throws EvaluationException
  // for an empty expression or a database that cannot be opened.
  explicit Evaluation(const Str& expression);
  ~Evaluation();
  Evaluation(const Evaluation&) = delete;
  Evaluation& operator=(const Evaluation&) = delete;

  // Compiles the SQL and resolves every field to a key index of `results`
  // (0 when unknown, which binds NULL). Throws on a bad expression.
  void prepare_statement(SearchResults& results);
  // Makes the expression word `word` stand for the field `field` when
  // fields are resolved (for names that cannot be written as one word).
  void setFieldAlias(const Str& word, const Str& field) { _aliases[word] = field; }
  // Evaluates for one row. False (and `out` emptied) for a NULL answer.
  // REQUIRES: prepare_statement() called; else throws "Invalid eval
  // expression".
  bool evaluate(const SearchResult* row, Str& out);

  // The same two steps without a result set: compile, then evaluate with
  // one value pointer (null = missing) per entry of fields().
  void prepare();
  bool evaluateValues(const std::vector<const Str*>& values, Str& out);

  const std::vector<Str>& fields() const { return _fields; }
  const Str& sql() const { return _sql; }

 private:
  void rewrite(const Str& text);
  bool step(Str& out);

  sqlite3* _db = nullptr;
  sqlite3_stmt* _stmt = nullptr;
  Str _sql;                     // "SELECT " + rewritten expression
  std::vector<Str> _fields;     // parameter i+1 is field _fields[i]
  std::vector<size_t> _keyIdx;  // key index of each field in the prepared results
  std::vector<const Str*> _rowVals;  // scratch of evaluate(), reused per row
  std::map<Str, Str> _aliases;       // expression word -> field name
};

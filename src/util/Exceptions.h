// The exception family of the system.
//
// Every expected failure of a class is reported by one of these types. Each
// derives from std::runtime_error and carries only its message text; there is
// no error code. The text reaches the user (or the log) as it is.
//
// Two ways to build one:
//   throw DbException("cannot open bucket");              // message as given
//   throw DbException("cannot open %s: %s", path, why);    // printf format
// The printf form is chosen only when at least one argument follows the
// format, so a message that happens to contain '%' is never misread. Its
// arguments must be scalars or pointers (pass str.c_str(), not a string).
//
// Any thread may build and throw these; they share nothing.
#pragma once

#include <stdexcept>
#include <string>
#include <type_traits>

// printf into a std::string (no size limit). Used by the formatting
// constructors below; also handy for building messages elsewhere.
std::string formatExceptionMessage(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#define VELMOR_DECLARE_EXCEPTION(Name, Base)                                            \
  class Name : public Base {                                                            \
   public:                                                                              \
    explicit Name(const std::string& msg) : Base(msg) {}                                \
    explicit Name(const char* msg) : Base(std::string(msg)) {}                          \
    template <typename A, typename... R>                                                \
    Name(const char* fmt, A a, R... r) : Base(formatExceptionMessage(fmt, a, r...)) {   \
      static_assert(std::is_scalar_v<A> && (std::is_scalar_v<R> && ...),                \
                    "printf arguments must be scalars or pointers");                    \
    }                                                                                   \
  }

VELMOR_DECLARE_EXCEPTION(PthreadException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(EventLoopException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(PollableDescriptorException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(SelfPipeException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(ProcessRunnerException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(ExternalProcessException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(RSAException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(DateParseException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(TimeParseException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(LocalFileIOException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(ValidationException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(PipelineException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(ComponentException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(KeyNotFoundException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(SpecParseException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(InvalidConfigTargetException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(DbException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(MetaDataException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(DatabasePartitionPolicyException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(DistributedInfoException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(FileCompressionException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(HTTPStreamException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(GetRemoteFileTimeoutException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(GetRemoteFileDoesntExistException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(SearchProcessorException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(SearchParsingException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(SearchResultsException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(LanguageParseException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(QueryException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(QueryParseException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(QueryRunningException, std::runtime_error);
VELMOR_DECLARE_EXCEPTION(QueryCancelException, std::runtime_error);

// A plug-in failure also says whether it is fatal to the pipeline that loads
// the plug-in (the only member of the family with more than a message).
class PluginException : public std::runtime_error {
 public:
  explicit PluginException(const std::string& msg, bool fatal = false)
      : std::runtime_error(msg), _fatal(fatal) {}
  explicit PluginException(const char* msg, bool fatal = false)
      : std::runtime_error(std::string(msg)), _fatal(fatal) {}
  bool isFatal() const { return _fatal; }

 private:
  bool _fatal;
};
VELMOR_DECLARE_EXCEPTION(LoaderException, std::runtime_error);

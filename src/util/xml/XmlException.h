// xml::exception: the failure of a parse, a save or a transformation in the
// XML layer, carrying the library's message text.
#pragma once

#include <stdexcept>
#include <string>

namespace xml {

class exception : public std::runtime_error {
 public:
  explicit exception(const std::string& msg) : std::runtime_error(msg) {}
};

}  // namespace xml

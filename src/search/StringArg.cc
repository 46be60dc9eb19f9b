#include "search/StringArg.h"

StringArg::StringArg(const Str& t, bool q, bool p) : Arg(STRING), text(t), quoted(q), parsed(p) {
  parseOption();
}

Str StringArg::toString(unsigned int) const { return text; }

void StringArg::parseOption() {
  option = false;
  optionName.clear();
  optionValue.clear();
  if (quoted) return;
  size_t colons = text.find("::");
  size_t eq = text.find('=');
  size_t at = colons < eq ? colons : eq;
  if (at == std::string::npos) return;
  option = true;
  optionName = text.substr(0, at);
  optionValue = text.substr(at + (at == colons ? 2 : 1));
}

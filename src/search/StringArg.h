// StringArg: one word of a command's arguments, or before tokenizing, the
// whole argument text of the command.
//
// A word that is not quoted and contains "::" or "=" is an option: its name
// is the text before the first of the two, its value the text after. A quoted
// word is never an option. Owned by its ArgList's owner; one thread.
#pragma once

#include "search/Arg.h"

class StringArg : public Arg {
 public:
  // Runs parseOption() on the text.
  StringArg(const Str& text, bool quoted, bool parsed);

  Str toString(unsigned int indent) const override;
  bool isQuoted() const override { return quoted; }
  bool isParsed() const override { return parsed; }
  bool isOption() const override { return option; }

  virtual void setParsed() { parsed = true; }
  virtual void parseOption();

  const Str& getText() const { return text; }
  // The option's name as written (callers compare it in lower case).
  const Str& getOptionName() const { return optionName; }
  const Str& getOptionValue() const { return optionValue; }

 private:
  Str text;
  bool quoted;
  bool parsed;
  bool option = false;
  Str optionName;
  Str optionValue;
};

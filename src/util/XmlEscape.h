// XmlEscape: the one escaping of text written into XML documents by hand
// (replies, result documents, management answers). `&`, `<` and `>` always
// become references; `"` and `'` too when `quotes` is set (text bound for
// attribute values). Control characters other than tab, newline and carriage
// return are not allowed in an XML document, not even as references, and
// are dropped. Bytes at or above 0x80 pass as they are.
//
// Stateless; any thread.
#pragma once

#include "util/Str.h"

// Appends the escaped form of `in` to `out`.
void appendXmlEscaped(Str& out, const Str& in, bool quotes = true);
// The escaped form of `in`.
Str xmlEscaped(const Str& in, bool quotes = true);

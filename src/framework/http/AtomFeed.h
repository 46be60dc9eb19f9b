// AtomFeed: an Atom 1.0 feed document: its own title, id, updated time,
// author and links, then its entries in order.
//
// A plain value; one thread at a time.
#pragma once

#include <vector>

#include "framework/http/AtomEntry.h"

class AtomFeed {
 public:
  Str title;
  Str id;
  Str updated;
  Str author;
  std::vector<AtomLink> links;
  std::vector<AtomEntry> entries;

  // The whole document, XML declaration first.
  void toXML(Str& out) const;
};

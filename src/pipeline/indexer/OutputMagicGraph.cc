#include "pipeline/indexer/OutputMagicGraph.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "pipeline/indexer/Query.h"

Str OutputMagicGraph::colourOf(uint32_t type) {
  if (type == 0) return "#cccccc";
  // HSL to RGB with s = 0.65, l = 0.5.
  const double h = double((uint64_t(type) * 47) % 360) / 60.0;
  const double c = (1.0 - std::fabs(2 * 0.5 - 1.0)) * 0.65;
  const double x = c * (1.0 - std::fabs(std::fmod(h, 2.0) - 1.0));
  const double m = 0.5 - c / 2;
  double r = 0, g = 0, b = 0;
  switch (int(h)) {
    case 0:
      r = c, g = x;
      break;
    case 1:
      r = x, g = c;
      break;
    case 2:
      g = c, b = x;
      break;
    case 3:
      g = x, b = c;
      break;
    case 4:
      r = x, b = c;
      break;
    default:
      r = c, b = x;
      break;
  }
  auto byte = [m](double v) { return unsigned(std::lround((v + m) * 255.0)); };
  return Str::fromFormat("#%02x%02x%02x", byte(r), byte(g), byte(b));
}

void OutputMagicGraph::runModule() {
  FILE* out = _query->output();
  if (!out) return;
  unsigned long cells = 0;
  if (!getArg("magicgraph").tryToUnsignedLong(cells) || cells == 0) cells = kDefaultCells;
  const std::vector<ValueWrapper>& ids = _query->results();
  const size_t n = std::min<size_t>(cells, ids.size());
  Str doc = Str::fromFormat("<magicgraph c=\"%zu\"><div class=\"magicgraph\">", n);
  for (size_t i = 0; i < n;) {
    size_t j = i;
    while (j < n && ids[j].type == ids[i].type) ++j;
    doc.appendFormat(
        "<span style=\"display:inline-block;width:%zupx;height:16px;background-color:%s\" "
        "title=\"eventtype %u: %zu events\"></span>",
        2 * (j - i), colourOf(ids[i].type).c_str(), unsigned(ids[i].type), j - i);
    i = j;
  }
  doc += "</div></magicgraph>\n";
  std::fwrite(doc.data(), 1, doc.size(), out);
}

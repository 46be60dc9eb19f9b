// KMeansProcessor: `kmeans`, which groups rows by k-means clustering over
// numeric fields and labels each row with its cluster.
//
//   kmeans [k=<n>] [dt=l1|l2] [maxiters=<n>] [reps=<n>] [cfield=<name>]
//          [norm=<bool>] [<field>...]
//
// Defaults: k=2, dt=l2 (squared Euclidean; l1 is the city-block distance),
// maxiters=10000, reps=10, cfield=CLUSTERNUM, norm=true. Without fields it
// uses every field not starting with "_" whose values are all numbers. Rows
// lacking one of the fields, or holding a non-number there, are not
// clustered and get no label. With norm each field is scaled to mean 0 and
// deviation 1 first. Each of the `reps` runs starts from k distinct points
// chosen by a fixed pseudo-random sequence (so results repeat exactly) and
// iterates until no point changes cluster or maxiters; the run with the
// smallest total distance wins. Clusters are numbered 1..k in the order of
// their first row. At most `maxdatapoints` of the `kmeans` stanza are read;
// the rest stay unlabelled with a warning. Fewer points than k fails with
// "Too few data points for k=%lu".
// Reads every spill file, then labels them; one thread at a time.
#pragma once

#include <vector>

#include "search/SearchProcessor.h"

class KMeansProcessor : public SearchProcessor {
 public:
  explicit KMeansProcessor(const Str& name) : SearchProcessor(name) {}
  static SearchProcessor* create(const Str& name) { return new KMeansProcessor(name); }

  bool isStreamable() const override { return false; }
  void processArguments() override;
  void execute(SearchResults& results, SearchResultsInfo& info) override;

  // One clustering of `points` (each of the same size); answers the cluster
  // of each point, numbered from 0 in order of first appearance.
  std::vector<unsigned> cluster(const std::vector<std::vector<double>>& points) const;

 private:
  double distance(const std::vector<double>& a, const std::vector<double>& b) const;

  unsigned long _k = 2;
  bool _l1 = false;
  unsigned long _maxIters = 10000;
  unsigned long _reps = 10;
  Str _cfield = "CLUSTERNUM";
  bool _norm = true;
  std::vector<Str> _fields;
};

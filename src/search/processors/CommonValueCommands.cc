#include "search/processors/CommonValueCommands.h"

#include "search/SearchFactory.h"
#include "search/processors/AnomalousValueProcessor.h"
#include "search/processors/AssociateProcessor.h"
#include "search/processors/CommonValueProcessor.h"
#include "search/processors/CorrelateProcessor.h"
#include "search/processors/ContingencyProcessor.h"
#include "search/processors/KMeansProcessor.h"
#include "search/processors/OutlierProcessor.h"
#include "search/processors/SummaryProcessor.h"

void CommonValueCommands::registerAll() {
  SearchFactory::registerBuiltin("top", &CommonValueProcessor::create, false);
  SearchFactory::registerBuiltin("rare", &CommonValueProcessor::create, false);
  SearchFactory::registerBuiltin("pretop", &CommonValueProcessor::create, true);
  SearchFactory::registerBuiltin("prerare", &CommonValueProcessor::create, true);
  SearchFactory::registerBuiltin("summary", &SummaryProcessor::create, false);
  SearchFactory::registerBuiltin("presummary", &SummaryProcessor::create, true);
  SearchFactory::registerBuiltin("contingency", &ContingencyProcessor::create, false);
  SearchFactory::registerBuiltin("precontingency", &ContingencyProcessor::create, true);
  SearchFactory::registerBuiltin("outlier", &OutlierProcessor::create, false);
  SearchFactory::registerBuiltin("kmeans", &KMeansProcessor::create, false);
  SearchFactory::registerBuiltin("anomalousvalue", &AnomalousValueProcessor::create, false);
  SearchFactory::registerBuiltin("associate", &AssociateProcessor::create, false);
  SearchFactory::registerBuiltin("correlate", &CorrelateProcessor::create, false);
}

// VelmordPlugins: the processors the service can build pipelines from, by
// plug-in name. There is no loading of libraries at run time; this table is
// the lookup function handed to PluginProcessor.
//
//   queueinputprocessor        records from a named queue (source)
//   queueoutputprocessor       records into a named queue
//   tailingprocessor           lines of followed files (source; inputs.conf)
//   batchfileloaderprocessor   lines of files dropped into a directory
//   aggregatorprocessor        one event per line, timed by its stamp
//   regexextractionprocessor   no rewriting yet: records pass unchanged
//   indexprocessor             events into their indexes
//   nullprocessor              records pass unchanged
//
// Threads: any; the table is constant.
#pragma once

#include "framework/PluginFactory.h"

const PluginFactory* velmordPluginLookup(const char* name);

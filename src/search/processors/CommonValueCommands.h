// CommonValueCommands: registers the report commands top, rare, pretop, prerare, summary, contingency and the small analytic commands
// with SearchFactory. Called once from SearchCommands::registerAll().
#pragma once

namespace CommonValueCommands {
void registerAll();
}

// DispatchCommands: registers the `dispatch` search command with
// SearchFactory. Called once at start-up by the programs that link the
// dispatch library, after SearchCommands::registerAll().
#pragma once

namespace DispatchCommands {
void registerAll();
}

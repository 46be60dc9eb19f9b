// TransactionCommands: registers `transaction` and `transam` with
// SearchFactory. Called once from SearchCommands::registerAll().
#pragma once

namespace TransactionCommands {
void registerAll();
}

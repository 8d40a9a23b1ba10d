// The command table as CLI11 sees it, and the way back from a parsed command line to the
// table's command and its arguments.
#pragma once

#include <string>

#include "Commands.h"

namespace CLI {
class App;
}

namespace tamrik::cli {

// Every command of the table as a subcommand of app (groups with theirs below them).
void AddCommands(CLI::App& app);

// The command the parsed command line names, or null when it names none; its arguments
// read into *args. Throws UsageError for a number out of its range or bytes that are not.
const Command* ChosenCommand(const CLI::App& app, Args* args);

// "unknown command 'inptus'; did you mean 'inputs'?" among the commands of app.
std::string UnknownCommand(const CLI::App& app, const std::string& word);

}  // namespace tamrik::cli

// The subcommands of lumetra-depth. Each takes the arguments after its name,
// prints its help for --help, and returns the exit status; failures the user
// must fix are thrown as ToolError.
#pragma once

#include <string>
#include <vector>

namespace LumoTool {

using Args = std::vector<std::string>;

int synthCommand(const Args& args);
int runCommand(const Args& args);
int evalCommand(const Args& args);
int infoCommand(const Args& args);
int objectsCommand(const Args& args);
int calibCommand(const Args& args);

}  // namespace LumoTool

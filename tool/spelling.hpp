#pragma once

#include <string>
#include <vector>

/// Both throw ToolError (usage), with the name that was probably meant: if there is no such command, and if one of the
/// arguments is no option of the command.
void check_command(const std::string& name);
void check_options(const std::string& command, const std::vector<std::string>& arguments);

#pragma once

#include <ostream>
#include <string>

// `lumora --launch-at-login on|off`: writes or removes the entry that starts
// Lumora at login.
namespace lumora::LoginItemCommand {

// Returns the exit code; a failure prints one line on `err`.
int run(const std::string& value, std::ostream& out, std::ostream& err);

}  // namespace lumora::LoginItemCommand

#pragma once

#include <string_view>

namespace corvaned {

/// Whether the program's first argument asks for a change of the users file in place of a server.
bool isAccountCommand(std::string_view word);

/// Carries out "corvaned user ..." or "corvaned token ..." and returns the exit code.
int runAccountCommand(int argc, char** argv);

}  // namespace corvaned

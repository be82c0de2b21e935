#pragma once

#include <string_view>

namespace corvaned {

/// Whether the program's first argument asks for a look at collections in place of a server.
bool isMaintenanceCommand(std::string_view word);

/// Carries out "corvaned check ...", "corvaned compact ..." or "corvaned repair ..." and returns
/// the exit code.
int runMaintenanceCommand(int argc, char** argv);

}  // namespace corvaned

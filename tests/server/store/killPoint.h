#pragma once

#include <cstdint>

namespace corvaned::test {

/// Where a process is killed: in front of one of its calls that change files, numbered from 1; a
/// write may get half its bytes out first. Call 0 never comes.
struct KillPoint {
  std::uint64_t call = 0;
  bool halfWritten = false;
};

/// Arms this process. The executable's own versions of the calls, which the libraries call as well,
/// do the counting. They leave out what brings files to disk, which no kill can show.
void dieAt(KillPoint point);

}  // namespace corvaned::test

// Which mutation a process makes, and which it has come by. In a shared object of its own, so that
// it is ready before the first constructor of the libraries that hold the mutations.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

extern "C" {
unsigned krucommMutant = 0;
static unsigned char nobodyLooks[KRUCOMM_MUTANTS];
unsigned char* krucommReached = nobodyLooks;
}

namespace {

// The file is shared, so that what a child process comes by counts as well.
__attribute__((constructor)) void readEnvironment() {
  if (const char* number = std::getenv("KRUCOMM_MUTANT"))
    krucommMutant = static_cast<unsigned>(std::strtoul(number, nullptr, 10));
  const char* name = std::getenv("KRUCOMM_REACHED");
  if (!name) return;
  const int file = ::open(name, O_RDWR | O_CLOEXEC);
  if (file < 0) std::abort();
  void* const bytes = ::mmap(nullptr, KRUCOMM_MUTANTS, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  if (bytes == MAP_FAILED) std::abort();
  krucommReached = static_cast<unsigned char*>(bytes);
}

}  // namespace

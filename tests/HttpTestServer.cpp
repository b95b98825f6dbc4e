// ThreadSanitizer and the prebuilt cpp-httplib: the library is not
// instrumented, so the fast path of its function-local statics looks like an
// unsynchronised read between two server workers. Its races are not ours to
// fix; races in the kit still show, as no httplib frame is on their stacks.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libcpp-httplib.so\n";
}

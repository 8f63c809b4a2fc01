// The options of a sanitized program, compiled in: in a throwaway host there is no environment to
// read them from.

extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "abort_on_error=0"; }

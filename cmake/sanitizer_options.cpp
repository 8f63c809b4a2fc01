// The options of a sanitized program, compiled in: a throwaway host has no environment to read them
// from. Leaks are looked for through unaligned pointers too, as the packed configuration record has
// them. The limit for core dumps stays what the program makes it.

// The sanitizers' names for them.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() { return "use_unaligned=1"; }
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "disable_coredump=0"; }
// NOLINTEND(readability-identifier-naming)

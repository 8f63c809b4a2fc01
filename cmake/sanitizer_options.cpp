// The options of a sanitized program, compiled in: a throwaway host has no environment to read them
// from. Leaks are looked for through unaligned pointers too, as the packed configuration record has
// them.

// The sanitizer's name for it.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() { return "use_unaligned=1"; }
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

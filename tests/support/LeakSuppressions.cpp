// The leaks that the library keeps on purpose, known to the test program
// itself, so that a sanitizer run passes with or without
// LSAN_OPTIONS=suppressions=tests/leaks.supp. tests/leaks.supp gives the
// reasons; keep the two lists alike. Without LeakSanitizer nothing calls this.
#if defined(__has_include)
#if __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#endif
#endif

extern "C" const char* __lsan_default_suppressions()
{
    return "leak:Vantrel::Ostrand::lsusbParser::getlsusbOutput\n";
}

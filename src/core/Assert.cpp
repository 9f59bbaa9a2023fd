#include "core/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace osv::detail {

bool checkFailed(const char* expression, const char* what, const char* file, int line) {
    std::fprintf(stderr, "ossevra: check failed: %s (%s) at %s:%d\n", what, expression, file, line);
#ifndef NDEBUG
    std::abort();
#else
    return false;
#endif
}

}  // namespace osv::detail

// Linked into every test program: it says through the environment that it is one, for
// itself and for the programs it starts, so that nothing reaches the user's real secret
// store. A value set from outside is kept.

#include <cstdlib>

namespace {

const bool kMarkedAsTestRun = [] {
    ::setenv("OSV_TEST_RUN", "1", 0);
    return true;
}();

}  // namespace

#include "core/EntryGuard.h"

#include <cstdio>
#include <mutex>
#include <set>
#include <string>

namespace osv {
namespace {

struct Registry {
    std::mutex lock;
    EscapedExceptionHandler handler;
    std::set<std::string, std::less<>> reported;
};

Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: threads may report during exit
    return *r;
}

}  // namespace

void setEscapedExceptionHandler(EscapedExceptionHandler handler) {
    Registry& r = registry();
    std::lock_guard guard(r.lock);
    r.handler = std::move(handler);
    r.reported.clear();
}

void reportEscapedException(std::string_view where, std::string_view what) noexcept {
    try {
        Registry& r = registry();
        EscapedExceptionHandler handler;
        {
            std::lock_guard guard(r.lock);
            if (!r.reported.emplace(where).second) return;
            handler = r.handler;
        }
        if (handler) handler(where, what);
        else std::fprintf(stderr, "ossevra: exception caught at %.*s: %.*s\n", int(where.size()), where.data(),
                          int(what.size()), what.data());
    } catch (...) {
        // Reporting must not throw from where throwing is what we prevent.
    }
}

}  // namespace osv

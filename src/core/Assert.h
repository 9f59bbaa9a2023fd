#pragma once

// Invariant checks that degrade gracefully: fatal in debug builds, so that a test finds
// the fault; in release a logged line and the caller's fallback, so that a live session
// is never crashed by an invariant it can survive.
//
//   if (!OSV_CHECK(index < size, "caption index")) return fallback;

namespace osv::detail {
bool checkFailed(const char* expression, const char* what, const char* file, int line);
}

#define OSV_CHECK(condition, what) \
    ((condition) ? true : ::osv::detail::checkFailed(#condition, what, __FILE__, __LINE__))

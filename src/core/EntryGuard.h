#pragma once

// Where a C library, Qt's event loop or a worker thread calls into this program, an
// exception that escapes ends the process (std::terminate across C frames and thread
// boundaries). Each such entry point runs its body through guardEntry: the exception is
// caught, reported once per entry point, and the program goes on.

#include <exception>
#include <functional>
#include <string_view>
#include <utility>

namespace osv {

// Receives escaped exceptions: the entry point's name and the exception's text. It may be
// called on any thread. Without one they go to standard error.
using EscapedExceptionHandler = std::function<void(std::string_view where, std::string_view what)>;
void setEscapedExceptionHandler(EscapedExceptionHandler handler);

// Hands the first exception caught at `where` to the handler; later ones there are dropped.
void reportEscapedException(std::string_view where, std::string_view what) noexcept;

// Runs `body`; an exception it throws is reported and swallowed. True when none escaped.
template <class Body>
bool guardEntry(std::string_view where, Body&& body) noexcept {
    try {
        std::forward<Body>(body)();
        return true;
    } catch (const std::exception& e) {
        reportEscapedException(where, e.what());
    } catch (...) {
        reportEscapedException(where, "an exception of unknown type");
    }
    return false;
}

}  // namespace osv

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/EntryGuard.h"

namespace osv {
namespace {

TEST(EntryGuard, AnExceptionIsCaughtAndReportedOncePerEntryPoint) {
    std::vector<std::string> reports;
    setEscapedExceptionHandler(
        [&](std::string_view where, std::string_view what) { reports.push_back(std::string(where) + ": " + std::string(what)); });
    int ran = 0;
    EXPECT_TRUE(guardEntry("frames", [&] { ++ran; }));
    EXPECT_FALSE(guardEntry("frames", [] { throw std::runtime_error("temp_directory_path: no such folder"); }));
    EXPECT_FALSE(guardEntry("frames", [] { throw std::runtime_error("again"); }));
    EXPECT_FALSE(guardEntry("timer", [] { throw 42; }));
    // A worker thread survives it too.
    std::thread worker([] { guardEntry("worker", [] { throw std::bad_alloc(); }); });
    worker.join();
    setEscapedExceptionHandler({});
    EXPECT_EQ(ran, 1);
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0], "frames: temp_directory_path: no such folder");
    EXPECT_EQ(reports[1], "timer: an exception of unknown type");
    EXPECT_EQ(reports[2].rfind("worker: ", 0), 0u);
}

}  // namespace
}  // namespace osv

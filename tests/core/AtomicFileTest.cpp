#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "core/AtomicFile.h"
#include "core/Uuid.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("osv-atomic-" + Uuid::random().text());
    }
    void TearDown() override { fs::remove_all(dir); }
    fs::path dir;
};

TEST_F(AtomicFileTest, ReplacesWholeFilesAndLeavesNoTemporaryBehind) {
    const fs::path file = dir / "nested" / "index.json";
    ASSERT_TRUE(writeFileAtomically(file, "first"));
    ASSERT_TRUE(writeFileAtomically(file, "second, longer"));
    EXPECT_EQ(readWholeFile(file).value(), "second, longer");
    std::size_t entries = 0;
    for ([[maybe_unused]] auto& e : fs::directory_iterator(file.parent_path())) ++entries;
    EXPECT_EQ(entries, 1u);
}

TEST_F(AtomicFileTest, HonoursOwnerOnlyPermissions) {
    const fs::path file = dir / "secret";
    ASSERT_TRUE(writeFileAtomically(file, "k", 0600));
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(AtomicFileTest, FailureKeepsTheOldFileAndSaysWhy) {
    const fs::path file = dir / "kept";
    ASSERT_TRUE(writeFileAtomically(file, "old"));
    // A folder in the way of the target makes the rename fail.
    const fs::path blocked = dir / "blocked";
    fs::create_directories(blocked / "child");
    const auto result = writeFileAtomically(blocked, "new");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, "atomic_write_failed");
    EXPECT_EQ(readWholeFile(file).value(), "old");
    EXPECT_EQ(readWholeFile(dir / "absent").error().code, "file_missing");
}

TEST_F(AtomicFileTest, AFileThatFailsToReadIsNoEmptyText) {
    fs::create_directories(dir / "folder");
    const auto folder = readWholeFile(dir / "folder");
    ASSERT_FALSE(folder);
    EXPECT_EQ(folder.error().code, "file_unreadable");
    ASSERT_TRUE(writeFileAtomically(dir / "empty", ""));
    EXPECT_EQ(readWholeFile(dir / "empty").value(), "");
}

}  // namespace
}  // namespace osv

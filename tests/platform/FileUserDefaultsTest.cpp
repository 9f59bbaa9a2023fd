#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "platform/storage/FileUserDefaults.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

class FileDefaults : public ::testing::Test {
protected:
    void SetUp() override { dir = fs::temp_directory_path() / ("osv-defaults-" + Uuid::random().text()); }
    void TearDown() override { fs::remove_all(dir); }
    fs::path dir;
};

TEST_F(FileDefaults, KeepsTypesAcrossARestart) {
    {
        FileUserDefaults d(dir);
        EXPECT_FALSE(d.loadProblem());
        d.set("text", std::string("文字"));
        d.set("number", 0.25);
        d.set("flag", false);
        d.set("data", UserDefaults::Data{0, 1, 2, 250, 255});
        d.set("gone", 1.0);
        d.remove("gone");
        ASSERT_TRUE(d.synchronize());
    }
    FileUserDefaults d(dir);
    EXPECT_EQ(d.string("text"), "文字");
    EXPECT_EQ(d.number("number"), 0.25);
    EXPECT_EQ(d.boolean("flag"), false);
    EXPECT_EQ(d.data("data"), (UserDefaults::Data{0, 1, 2, 250, 255}));
    EXPECT_FALSE(d.object("gone"));
    EXPECT_EQ(d.number("text"), std::nullopt);  // another type reads as nothing
}

TEST_F(FileDefaults, AnUnreadableFileIsSetAsideNotOverwritten) {
    ASSERT_TRUE(writeFileAtomically(dir / "defaults.json", "{\"capture_mode\": \"mixed\", broken"));
    {
        FileUserDefaults d(dir);
        ASSERT_TRUE(d.loadProblem());
        EXPECT_FALSE(d.object("capture_mode"));
        d.set("skin", std::string("pine"));
        ASSERT_TRUE(d.synchronize());
    }
    bool keptAside = false;
    for (const auto& e : fs::directory_iterator(dir))
        if (e.path().filename().string().rfind("defaults.json.corrupt-", 0) == 0)
            keptAside = readWholeFile(e.path()).value() == "{\"capture_mode\": \"mixed\", broken";
    EXPECT_TRUE(keptAside);
    EXPECT_EQ(FileUserDefaults(dir).string("skin"), "pine");
}

// Earlier copies set aside in the same seconds stand in the way: nothing may replace them,
// so the broken file can't be set aside and must not be written over either.
TEST_F(FileDefaults, WhatCanNotBeSetAsideIsNeverWrittenOver) {
    const std::string broken = "{\"capture_mode\": \"mixed\", broken";
    ASSERT_TRUE(writeFileAtomically(dir / "defaults.json", broken));
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch()).count();
    for (auto t = now - 1; t <= now + 30; ++t)
        ASSERT_TRUE(writeFileAtomically(dir / ("defaults.json.corrupt-" + std::to_string(t)), "earlier"));
    {
        FileUserDefaults d(dir);
        ASSERT_TRUE(d.loadProblem());
        EXPECT_NE(d.loadProblem()->find("不会写回"), std::string::npos);
        EXPECT_FALSE(d.isWritable());
        d.set("skin", std::string("pine"));
        EXPECT_EQ(d.string("skin"), "pine");  // in memory, for this run
        EXPECT_FALSE(d.synchronize());
    }
    EXPECT_EQ(readWholeFile(dir / "defaults.json").value(), broken);
    for (auto t = now - 1; t <= now + 30; ++t)
        EXPECT_EQ(readWholeFile(dir / ("defaults.json.corrupt-" + std::to_string(t))).value(), "earlier");
}

// A path that can't even be read (here a folder) is left as it is.
TEST_F(FileDefaults, AnUnreadablePathIsLeftAlone) {
    fs::create_directories(dir / "defaults.json" / "inside");
    FileUserDefaults d(dir);
    ASSERT_TRUE(d.loadProblem());
    EXPECT_FALSE(d.isWritable());
    d.set("skin", std::string("pine"));
    EXPECT_FALSE(d.synchronize());
    EXPECT_TRUE(fs::is_directory(dir / "defaults.json" / "inside"));
}

TEST_F(FileDefaults, ValuesOfUnknownShapeSurviveASave) {
    ASSERT_TRUE(writeFileAtomically(dir / "defaults.json", R"({"future": [1, 2], "skin": "night"})"));
    {
        FileUserDefaults d(dir);
        EXPECT_FALSE(d.object("future"));
        d.set("skin", std::string("pine"));
        ASSERT_TRUE(d.synchronize());
    }
    EXPECT_NE(readWholeFile(dir / "defaults.json").value().find("\"future\""), std::string::npos);
}

}  // namespace
}  // namespace osv

#include <gtest/gtest.h>

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

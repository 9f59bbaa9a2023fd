#include <QSignalSpy>

#include <gtest/gtest.h>

#include "screens/DebugModel.h"
#include "screens/LiveModel.h"
#include "screens/Palette.h"

namespace osv {
namespace {

// Without a chosen skin the desktop decides; a chosen one stays whatever the desktop does.
TEST(Palette, SkinFollowsTheDesktopUntilChosen) {
    EXPECT_EQ(effectiveSkin(std::nullopt, true), Skin::night);
    EXPECT_EQ(effectiveSkin(std::nullopt, false), Skin::indigo);
    EXPECT_EQ(effectiveSkin(Skin::pine, true), Skin::pine);
    EXPECT_TRUE(palette(Skin::night).isDark);
    for (Skin s : {Skin::indigo, Skin::vermilion, Skin::pine}) {
        EXPECT_FALSE(palette(s).isDark);
        // Text must stand out from the background of every light skin.
        EXPECT_NE(palette(s).text, palette(s).background);
    }
}

DebugEvent event(DebugEvent::Level level, DebugEvent::Category category, std::string title) {
    return DebugEvent{Uuid::random(), Date(100), level, category, std::move(title), "details", std::string("code_x")};
}

// Filters by level and category combine; events that arrive later obey the filter; copy
// gives the events' own text.
TEST(DebugModel, FiltersAndCopies) {
    DebugModel model;
    model.reset({event(DebugEvent::Level::info, DebugEvent::Category::app, "开始"),
                 event(DebugEvent::Level::error, DebugEvent::Category::openAI, "连接失败")});
    EXPECT_EQ(model.count(), 2);
    model.setLevelFilter(QStringLiteral("error"));
    EXPECT_EQ(model.count(), 1);
    EXPECT_EQ(model.data(model.index(0), DebugModel::TitleRole).toString(), QStringLiteral("连接失败"));
    model.append(event(DebugEvent::Level::info, DebugEvent::Category::openAI, "已连接"));
    EXPECT_EQ(model.count(), 1);
    EXPECT_EQ(model.totalCount(), 3);
    model.append(event(DebugEvent::Level::error, DebugEvent::Category::audio, "设备丢失"));
    EXPECT_EQ(model.count(), 2);
    model.setCategoryFilter(QStringLiteral("audio"));
    EXPECT_EQ(model.count(), 1);
    EXPECT_TRUE(model.copyText(0).contains(QStringLiteral("设备丢失")));
    EXPECT_TRUE(model.copyText(0).contains(QStringLiteral("code_x")));
    EXPECT_EQ(model.copyText(5), QString());
    model.setLevelFilter(QString());
    model.setCategoryFilter(QString());
    EXPECT_EQ(model.allText().count(QStringLiteral("code: code_x")), 4);
}

// The bounded list drops the oldest.
TEST(DebugModel, KeepsTheNewestWithinItsBound) {
    DebugModel model;
    for (std::size_t i = 0; i < DebugModel::kMaximumEvents + 5; ++i) {
        std::string title = "e";  // appended: `"e" + std::string` trips GCC 12's false -Wrestrict (bug 105329)
        title.append(std::to_string(i));
        model.append(event(DebugEvent::Level::info, DebugEvent::Category::app, title));
    }
    EXPECT_EQ(std::size_t(model.totalCount()), DebugModel::kMaximumEvents);
    EXPECT_EQ(model.data(model.index(0), DebugModel::TitleRole).toString(), QStringLiteral("e5"));
}

// Without a controller the buttons do nothing and the screen shows an idle session.
TEST(LiveModel, IdleWithoutController) {
    LiveModel model;
    model.attach(nullptr);
    model.start();
    model.startOrStop();
    model.pauseOrResume();
    EXPECT_FALSE(model.sessionActive());
    EXPECT_TRUE(model.meters().isEmpty());
    EXPECT_EQ(model.elapsedText(), QStringLiteral("00:00"));
    EXPECT_EQ(model.noticeText(), QString());
}

}  // namespace
}  // namespace osv

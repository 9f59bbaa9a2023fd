#include "screens/CaptionListModel.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

namespace osv {
namespace {

using Block = CaptionGrouping::CaptionBlock;

Block block(std::string source, std::optional<std::string> translation, std::optional<CaptureChannel> channel = {}) {
    Block b;
    b.source = std::move(source);
    b.translation = std::move(translation);
    b.channel = channel;
    return b;
}

// The stream's cost per delta: settled rows are neither compared nor re-announced, only
// the rows that changed are, and new rows are inserted at the end.
TEST(CaptionListModel, RefreshTouchesOnlyChangedRowsAfterTheFrozenHead) {
    CaptionListModel model;
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    QSignalSpy reset(&model, &QAbstractItemModel::modelReset);

    model.setBlocks({block("你好。", "こんにちは。"), block("今日は", std::nullopt)}, 1);
    EXPECT_EQ(model.count(), 2);
    EXPECT_EQ(inserted.count(), 1);

    // The open block grows: one row changes.
    model.setBlocks({block("你好。", "こんにちは。"), block("今日はいい天気", std::nullopt)}, 1);
    ASSERT_EQ(changed.count(), 1);
    EXPECT_EQ(changed[0][0].value<QModelIndex>().row(), 1);
    EXPECT_EQ(changed[0][1].value<QModelIndex>().row(), 1);
    // Only what the delta touched is announced: the source line, not the card's label.
    const auto roles = changed[0][2].value<QList<int>>();
    EXPECT_TRUE(roles.contains(CaptionListModel::SourceRole));
    EXPECT_FALSE(roles.contains(CaptionListModel::LabelRole));
    EXPECT_FALSE(roles.contains(CaptionListModel::TranslationRole));
    EXPECT_EQ(model.lastChangedRows(), 1);

    // Nothing changed: nothing announced.
    model.setBlocks({block("你好。", "こんにちは。"), block("今日はいい天気", std::nullopt)}, 2);
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(model.lastChangedRows(), 0);

    // A new block is appended, the settled ones are left alone.
    model.setBlocks({block("你好。", "こんにちは。"), block("今日はいい天気", "今天天气很好"), block("はい", std::nullopt)}, 1);
    EXPECT_EQ(inserted.count(), 2);
    EXPECT_EQ(model.count(), 3);
    EXPECT_EQ(model.data(model.index(1), CaptionListModel::TranslationRole).toString(), QStringLiteral("今天天气很好"));

    // A shorter list (a new session) removes rows without a reset.
    model.setBlocks({}, 0);
    EXPECT_EQ(model.count(), 0);
    EXPECT_EQ(reset.count(), 0);
}

// The line a Chinese reader reads is the Chinese one, whichever side it is on; Japanese
// lines get the Japanese font; labels appear only once both channels have spoken.
TEST(CaptionListModel, PrimaryLineFontsAndChannelLabels) {
    CaptionListModel model;
    auto japaneseSource = block("今日はいい天気ですね。", "今天天气很好。", CaptureChannel::system);
    japaneseSource.startOffset = 65;
    model.setBlocks({japaneseSource}, 0);
    const auto row0 = model.index(0);
    EXPECT_FALSE(model.data(row0, CaptionListModel::SourceIsPrimaryRole).toBool());
    EXPECT_EQ(model.data(row0, CaptionListModel::SourceFamilyRole).toString(), QStringLiteral("Noto Sans CJK JP"));
    EXPECT_EQ(model.data(row0, CaptionListModel::TranslationFamilyRole).toString(), QStringLiteral("Noto Sans CJK SC"));
    EXPECT_EQ(model.data(row0, CaptionListModel::LabelRole).toString(), QString());
    EXPECT_FALSE(model.showsChannels());

    QSignalSpy labels(&model, &CaptionListModel::showsChannelsChanged);
    model.setBlocks({japaneseSource, block("我们开始吧。", "始めましょう。", CaptureChannel::microphone)}, 1);
    EXPECT_TRUE(model.showsChannels());
    EXPECT_EQ(labels.count(), 1);
    EXPECT_EQ(model.data(row0, CaptionListModel::LabelRole).toString(), QStringLiteral("对方 · 01:05"));
    EXPECT_TRUE(model.data(model.index(1), CaptionListModel::SourceIsPrimaryRole).toBool());
    EXPECT_EQ(model.data(model.index(1), CaptionListModel::LabelRole).toString(), QStringLiteral("我"));
}

// Draft, awaiting, failure and late correction are told apart; readings go over the
// Japanese line and disappear when furigana is switched off.
TEST(CaptionListModel, StatesOfATranslationAndReadings) {
    CaptionListModel model;
    auto draft = block("明日来ます", "明天来", std::nullopt);
    draft.isProvisional = true;
    auto awaiting = block("山田です", std::nullopt);
    awaiting.isAwaitingTranslation = true;
    auto failed = block("すみません", std::nullopt);
    failed.isAwaitingTranslation = true;
    failed.translationFailure = "翻译失败";
    auto corrected = block("東京に行きます", "去东京");
    corrected.lateCorrection = "東京へ行きます";
    corrected.furigana = "東京(とうきょう)に行(い)きます";
    model.setBlocks({draft, awaiting, failed, corrected}, 0);

    EXPECT_TRUE(model.data(model.index(0), CaptionListModel::IsDraftRole).toBool());
    EXPECT_TRUE(model.data(model.index(1), CaptionListModel::IsAwaitingRole).toBool());
    EXPECT_FALSE(model.data(model.index(2), CaptionListModel::IsAwaitingRole).toBool());
    EXPECT_EQ(model.data(model.index(2), CaptionListModel::FailureRole).toString(), QStringLiteral("翻译失败"));
    EXPECT_EQ(model.data(model.index(3), CaptionListModel::CorrectionRole).toString(), QStringLiteral("東京へ行きます"));

    const auto runs = model.data(model.index(3), CaptionListModel::RubyRole).toList();
    ASSERT_FALSE(runs.isEmpty());
    EXPECT_EQ(runs[0].toMap()[QStringLiteral("base")].toString(), QStringLiteral("東京"));
    EXPECT_EQ(runs[0].toMap()[QStringLiteral("ruby")].toString(), QStringLiteral("とうきょう"));
    EXPECT_TRUE(model.data(model.index(3), CaptionListModel::RubyOnSourceRole).toBool());
    model.setShowFurigana(false);
    EXPECT_TRUE(model.data(model.index(3), CaptionListModel::RubyRole).toList().isEmpty());

    EXPECT_EQ(model.allText(), QStringLiteral("明日来ます\n明天来\n\n山田です\n\nすみません\n\n東京に行きます\n去东京"));
}

}  // namespace
}  // namespace osv

#pragma once

// The caption stream as a list model: one row per caption block. A refresh touches only
// the rows that changed; rows of the frozen head are never compared again, so settled
// cards are not re-laid out while the newest one grows.
//
// Thread contract: main thread.

#include <QAbstractListModel>
#include <QVariantList>

#include <functional>
#include <vector>

#include "transcript/CaptionBlocks.h"

namespace osv {

class CaptionListModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(bool showsChannels READ showsChannels NOTIFY showsChannelsChanged)
    Q_PROPERTY(bool showFurigana READ showFurigana WRITE setShowFurigana NOTIFY showFuriganaChanged)

public:
    enum Role {
        SourceRole = Qt::UserRole + 1,
        TranslationRole,
        SourceFamilyRole,
        TranslationFamilyRole,
        SourceIsPrimaryRole,  // the Chinese line, the one the user reads
        ChannelRole,          // "system", "microphone" or ""
        LabelRole,            // "对方 · 01:23", once both channels have spoken
        IsDraftRole,
        IsAwaitingRole,
        FailureRole,
        CorrectionRole,  // a late correction of the source or the translation
        RubyRole,        // [{base, ruby}] of the Japanese line, when it has readings
        RubyOnSourceRole,
    };

    explicit CaptionListModel(QObject* parent = nullptr);

    // `frozenCount` leading blocks are settled: equal to what they were the last time.
    void setBlocks(std::vector<CaptionGrouping::CaptionBlock> blocks, std::size_t frozenCount);
    void setBlocks(const CaptionBlockList& list);
    void clear();

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(blocks_.size()); }
    bool showsChannels() const { return showsChannels_; }
    bool showFurigana() const { return showFurigana_; }
    void setShowFurigana(bool on);

    // Every block as text, source above translation, blocks separated by blank lines.
    Q_INVOKABLE QString allText() const;
    // Rows whose data changed in the last refresh; for tests and benchmarks.
    int lastChangedRows() const { return lastChangedRows_; }

signals:
    void countChanged();
    void showsChannelsChanged();
    void showFuriganaChanged();

private:
    void update(std::size_t newSize, std::size_t frozenCount,
                const std::function<const CaptionGrouping::CaptionBlock&(std::size_t)>& block);
    void noteChannel(const CaptionGrouping::CaptionBlock& b);

    std::vector<CaptionGrouping::CaptionBlock> blocks_;
    bool seenSystem_ = false;
    bool seenMicrophone_ = false;
    std::size_t frozen_ = 0;
    bool showsChannels_ = false;
    bool showFurigana_ = true;
    int lastChangedRows_ = 0;
};

}  // namespace osv

#include "screens/CaptionListModel.h"

#include <QVariantMap>

#include "screens/ThemeModel.h"
#include "transcript/FuriganaMarkup.h"

namespace osv {

namespace {

QString qs(const std::optional<std::string>& s) { return s ? QString::fromStdString(*s) : QString(); }

QString clockText(double seconds) {
    const int total = seconds > 0 ? int(seconds) : 0;
    return QStringLiteral("%1:%2").arg(total / 60, 2, 10, QLatin1Char('0')).arg(total % 60, 2, 10, QLatin1Char('0'));
}

bool sourceIsPrimary(const CaptionGrouping::CaptionBlock& b) {
    if (b.source && CaptionGrouping::looksChinese(*b.source)) return true;
    if (b.translation && CaptionGrouping::looksChinese(*b.translation)) return false;
    // Neither reads as Chinese (an awaited translation): the source is all there is.
    return !b.translation.has_value();
}

QList<int> changedRoles(const CaptionGrouping::CaptionBlock& a, const CaptionGrouping::CaptionBlock& b) {
    using R = CaptionListModel::Role;
    QList<int> roles;
    if (a.source != b.source) roles << R::SourceRole << R::SourceFamilyRole;
    if (a.translation != b.translation) roles << R::TranslationRole << R::TranslationFamilyRole;
    if (a.source != b.source || a.translation != b.translation) roles << R::SourceIsPrimaryRole;
    if (a.channel != b.channel) roles << R::ChannelRole;
    if (a.channel != b.channel || a.startOffset != b.startOffset) roles << R::LabelRole;
    if (a.isProvisional != b.isProvisional || a.translation.has_value() != b.translation.has_value())
        roles << R::IsDraftRole;
    if (a.isAwaitingTranslation != b.isAwaitingTranslation || a.translation.has_value() != b.translation.has_value() ||
        a.translationFailure != b.translationFailure)
        roles << R::IsAwaitingRole;
    if (a.translationFailure != b.translationFailure) roles << R::FailureRole;
    if (a.lateCorrection != b.lateCorrection || a.lateTranslation != b.lateTranslation) roles << R::CorrectionRole;
    if (a.furigana != b.furigana) roles << R::RubyRole;
    if (a.furigana != b.furigana || a.source != b.source || a.translation != b.translation)
        roles << R::RubyOnSourceRole;
    // Fields no role shows (sentence ids, pending source) changed alone: nothing to redraw,
    // but the row is announced whole so that nothing is missed.
    return roles;
}

}  // namespace

CaptionListModel::CaptionListModel(QObject* parent) : QAbstractListModel(parent) {}

void CaptionListModel::setBlocks(const CaptionBlockList& list) {
    update(list.size(), list.frozenCount(), [&list](std::size_t i) -> const CaptionGrouping::CaptionBlock& { return list[i]; });
}

void CaptionListModel::setBlocks(std::vector<CaptionGrouping::CaptionBlock> blocks, std::size_t frozenCount) {
    update(blocks.size(), frozenCount, [&blocks](std::size_t i) -> const CaptionGrouping::CaptionBlock& { return blocks[i]; });
}

void CaptionListModel::update(std::size_t newSize, std::size_t frozenCount,
                              const std::function<const CaptionGrouping::CaptionBlock&(std::size_t)>& block) {
    const std::size_t oldSize = blocks_.size();
    const std::size_t common = std::min(oldSize, newSize);
    // Rows both refreshes call settled are equal by contract: neither compared nor copied,
    // so a delta costs the same at hour three as at the start.
    const std::size_t settled = std::min({frozen_, frozenCount, common});
    lastChangedRows_ = 0;

    if (newSize < oldSize) {
        beginRemoveRows({}, int(newSize), int(oldSize) - 1);
        blocks_.resize(newSize);
        endRemoveRows();
    }
    for (std::size_t i = settled; i < common; ++i) {
        const auto& incoming = block(i);
        if (blocks_[i] == incoming) continue;
        // Only the roles that changed: a delta re-evaluates the bindings of one line, not
        // of the whole card.
        const QList<int> roles = changedRoles(blocks_[i], incoming);
        blocks_[i] = incoming;
        ++lastChangedRows_;
        emit dataChanged(index(int(i)), index(int(i)), roles);
    }
    if (newSize > oldSize) {
        beginInsertRows({}, int(oldSize), int(newSize) - 1);
        blocks_.reserve(newSize);
        for (std::size_t i = oldSize; i < newSize; ++i) blocks_.push_back(block(i));
        endInsertRows();
        lastChangedRows_ += int(newSize - oldSize);
    }
    frozen_ = frozenCount;

    // Both channels once seen stay seen, unless the list started over.
    if (newSize < oldSize || oldSize == 0) {
        seenSystem_ = seenMicrophone_ = false;
        for (const auto& b : blocks_) noteChannel(b);
    } else {
        for (std::size_t i = settled; i < newSize; ++i) noteChannel(blocks_[i]);
    }
    const bool both = seenSystem_ && seenMicrophone_;
    if (both != showsChannels_) {
        showsChannels_ = both;
        if (!blocks_.empty()) emit dataChanged(index(0), index(int(blocks_.size()) - 1), {LabelRole});
        emit showsChannelsChanged();
    }
    if (oldSize != newSize) emit countChanged();
}

void CaptionListModel::noteChannel(const CaptionGrouping::CaptionBlock& b) {
    if (b.channel == CaptureChannel::system) seenSystem_ = true;
    if (b.channel == CaptureChannel::microphone) seenMicrophone_ = true;
}

void CaptionListModel::clear() { setBlocks({}, 0); }

void CaptionListModel::setShowFurigana(bool on) {
    if (on == showFurigana_) return;
    showFurigana_ = on;
    if (!blocks_.empty()) emit dataChanged(index(0), index(int(blocks_.size()) - 1), {RubyRole});
    emit showFuriganaChanged();
}

int CaptionListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(blocks_.size());
}

QVariant CaptionListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= int(blocks_.size())) return {};
    const auto& b = blocks_[std::size_t(index.row())];
    switch (role) {
        case SourceRole: return qs(b.source);
        case TranslationRole: return qs(b.translation);
        case SourceFamilyRole: return ThemeModel::familyFor(qs(b.source));
        case TranslationFamilyRole: return ThemeModel::familyFor(qs(b.translation));
        case SourceIsPrimaryRole: return sourceIsPrimary(b);
        case ChannelRole:
            if (!b.channel) return QString();
            return *b.channel == CaptureChannel::system ? QStringLiteral("system") : QStringLiteral("microphone");
        case LabelRole: {
            if (!showsChannels_ || !b.channel) return QString();
            const QString who = *b.channel == CaptureChannel::system ? QStringLiteral("对方") : QStringLiteral("我");
            return b.startOffset ? who + QStringLiteral(" · ") + clockText(*b.startOffset) : who;
        }
        case IsDraftRole: return b.isProvisional && b.translation.has_value();
        case IsAwaitingRole: return b.isAwaitingTranslation && !b.translation.has_value() && !b.translationFailure;
        case FailureRole: return qs(b.translationFailure);
        case CorrectionRole: {
            QStringList parts;
            if (b.lateCorrection) parts << QString::fromStdString(*b.lateCorrection);
            if (b.lateTranslation) parts << QString::fromStdString(*b.lateTranslation);
            return parts.join(QStringLiteral("\n"));
        }
        case RubyRole: {
            QVariantList runs;
            if (!showFurigana_ || !b.furigana) return runs;
            for (const auto& run : FuriganaMarkup::runs(*b.furigana)) {
                QVariantMap m;
                m.insert(QStringLiteral("base"), QString::fromStdString(run.base));
                m.insert(QStringLiteral("ruby"), run.ruby ? QString::fromStdString(*run.ruby) : QString());
                runs.push_back(m);
            }
            return runs;
        }
        case RubyOnSourceRole: {
            // Readings annotate the Japanese line, whichever side it is on.
            const bool sourceJapanese = b.source && CaptionGrouping::looksJapanese(*b.source);
            const bool translationJapanese = b.translation && CaptionGrouping::looksJapanese(*b.translation);
            return sourceJapanese || !translationJapanese;
        }
        default: return {};
    }
}

QHash<int, QByteArray> CaptionListModel::roleNames() const {
    return {{SourceRole, "source"},
            {TranslationRole, "translation"},
            {SourceFamilyRole, "sourceFamily"},
            {TranslationFamilyRole, "translationFamily"},
            {SourceIsPrimaryRole, "sourceIsPrimary"},
            {ChannelRole, "channel"},
            {LabelRole, "label"},
            {IsDraftRole, "isDraft"},
            {IsAwaitingRole, "isAwaiting"},
            {FailureRole, "failure"},
            {CorrectionRole, "correction"},
            {RubyRole, "ruby"},
            {RubyOnSourceRole, "rubyOnSource"}};
}

QString CaptionListModel::allText() const {
    QStringList out;
    for (const auto& b : blocks_) {
        QStringList lines;
        if (b.source) lines << QString::fromStdString(*b.source);
        if (b.translation) lines << QString::fromStdString(*b.translation);
        if (!lines.isEmpty()) out << lines.join(QStringLiteral("\n"));
    }
    return out.join(QStringLiteral("\n\n"));
}

}  // namespace osv

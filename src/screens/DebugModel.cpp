#include "screens/DebugModel.h"

#include <QClipboard>
#include <QDateTime>
#include <QGuiApplication>
#include <QVariantMap>

namespace osv {

namespace {
QString qs(std::string_view s) { return QString::fromUtf8(s.data(), qsizetype(s.size())); }
}  // namespace

DebugModel::DebugModel(QObject* parent) : QAbstractListModel(parent) {}

void DebugModel::reset(const std::deque<DebugEvent>& events) {
    beginResetModel();
    events_ = events;
    while (events_.size() > kMaximumEvents) events_.pop_front();
    shown_.clear();
    for (std::size_t i = 0; i < events_.size(); ++i)
        if (passes(events_[i])) shown_.push_back(i);
    endResetModel();
    emit countChanged();
}

void DebugModel::append(const DebugEvent& event) {
    if (events_.size() >= kMaximumEvents) {
        // Rare: rebuild rather than shift every index.
        events_.pop_front();
        events_.push_back(event);
        refilter();
        return;
    }
    events_.push_back(event);
    if (passes(event)) {
        beginInsertRows({}, int(shown_.size()), int(shown_.size()));
        shown_.push_back(events_.size() - 1);
        endInsertRows();
    }
    emit countChanged();
}

bool DebugModel::passes(const DebugEvent& e) const {
    if (!levelFilter_.isEmpty() && qs(DebugEvent::rawValue(e.level)) != levelFilter_) return false;
    if (!categoryFilter_.isEmpty() && qs(DebugEvent::rawValue(e.category)) != categoryFilter_) return false;
    return true;
}

void DebugModel::refilter() {
    beginResetModel();
    shown_.clear();
    for (std::size_t i = 0; i < events_.size(); ++i)
        if (passes(events_[i])) shown_.push_back(i);
    endResetModel();
    emit countChanged();
}

void DebugModel::setLevelFilter(const QString& level) {
    if (level == levelFilter_) return;
    levelFilter_ = level;
    refilter();
    emit filterChanged();
}

void DebugModel::setCategoryFilter(const QString& category) {
    if (category == categoryFilter_) return;
    categoryFilter_ = category;
    refilter();
    emit filterChanged();
}

QVariantList DebugModel::levelChoices() const {
    QVariantList out{QVariantMap{{"value", QString()}, {"label", QStringLiteral("全部级别")}}};
    for (auto l : {DebugEvent::Level::info, DebugEvent::Level::success, DebugEvent::Level::warning,
                   DebugEvent::Level::error})
        out.push_back(QVariantMap{{"value", qs(DebugEvent::rawValue(l))}, {"label", qs(DebugEvent::label(l))}});
    return out;
}

QVariantList DebugModel::categoryChoices() const {
    QVariantList out{QVariantMap{{"value", QString()}, {"label", QStringLiteral("全部类别")}}};
    for (auto c : {DebugEvent::Category::audio, DebugEvent::Category::openAI, DebugEvent::Category::transcription,
                   DebugEvent::Category::translation, DebugEvent::Category::assistant, DebugEvent::Category::app})
        out.push_back(QVariantMap{{"value", qs(DebugEvent::rawValue(c))}, {"label", qs(DebugEvent::label(c))}});
    return out;
}

int DebugModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : int(shown_.size()); }

QVariant DebugModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= int(shown_.size())) return {};
    const DebugEvent& e = events_[shown_[std::size_t(index.row())]];
    switch (role) {
        case LevelRole: return qs(DebugEvent::rawValue(e.level));
        case LevelLabelRole: return qs(DebugEvent::label(e.level));
        case CategoryLabelRole: return qs(DebugEvent::label(e.category));
        case TitleRole: return QString::fromStdString(e.title);
        case DetailsRole: return QString::fromStdString(e.details);
        case CodeRole: return e.code ? QString::fromStdString(*e.code) : QString();
        case TimeRole:
            return QDateTime::fromMSecsSinceEpoch(e.timestamp.unixMilliseconds()).toString(QStringLiteral("HH:mm:ss"));
        default: return {};
    }
}

QHash<int, QByteArray> DebugModel::roleNames() const {
    return {{LevelRole, "level"},   {LevelLabelRole, "levelLabel"}, {CategoryLabelRole, "categoryLabel"},
            {TitleRole, "title"},   {DetailsRole, "details"},       {CodeRole, "code"},
            {TimeRole, "time"}};
}

QString DebugModel::copyText(int row) const {
    if (row < 0 || row >= int(shown_.size())) return {};
    return QString::fromStdString(events_[shown_[std::size_t(row)]].copyText());
}

QString DebugModel::allText() const {
    QStringList out;
    for (std::size_t i : shown_) out << QString::fromStdString(events_[i].copyText());
    return out.join(QStringLiteral("\n\n"));
}

void DebugModel::copyOne(int row) const {
    if (auto* c = QGuiApplication::clipboard()) c->setText(copyText(row));
}

void DebugModel::copyAll() const {
    if (auto* c = QGuiApplication::clipboard()) c->setText(allText());
}

}  // namespace osv

#pragma once

// The debug panel's list: the controller's debug events, newest last, filtered by level and
// category; one or all copied out as text.
//
// Thread contract: main thread.

#include <QAbstractListModel>

#include <deque>
#include <functional>

#include "metering/DebugEvent.h"

namespace osv {

class DebugModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(int totalCount READ totalCount NOTIFY countChanged)
    // "" for all, else a level's or a category's raw name.
    Q_PROPERTY(QString levelFilter READ levelFilter WRITE setLevelFilter NOTIFY filterChanged)
    Q_PROPERTY(QString categoryFilter READ categoryFilter WRITE setCategoryFilter NOTIFY filterChanged)

public:
    enum Role { LevelRole = Qt::UserRole + 1, LevelLabelRole, CategoryLabelRole, TitleRole, DetailsRole, CodeRole, TimeRole };

    static constexpr std::size_t kMaximumEvents = 2000;

    explicit DebugModel(QObject* parent = nullptr);

    void reset(const std::deque<DebugEvent>& events);
    void append(const DebugEvent& event);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(shown_.size()); }
    int totalCount() const { return int(events_.size()); }
    QString levelFilter() const { return levelFilter_; }
    QString categoryFilter() const { return categoryFilter_; }
    void setLevelFilter(const QString& level);
    void setCategoryFilter(const QString& category);

    // [{value, label}] for the filter menus, "全部" first.
    Q_INVOKABLE QVariantList levelChoices() const;
    Q_INVOKABLE QVariantList categoryChoices() const;
    Q_INVOKABLE QString copyText(int row) const;
    Q_INVOKABLE QString allText() const;
    Q_INVOKABLE void copyOne(int row) const;
    Q_INVOKABLE void copyAll() const;

signals:
    void countChanged();
    void filterChanged();

private:
    bool passes(const DebugEvent& e) const;
    void refilter();
    std::deque<DebugEvent> events_;
    std::vector<std::size_t> shown_;  // indexes into events_
    QString levelFilter_;
    QString categoryFilter_;
};

}  // namespace osv

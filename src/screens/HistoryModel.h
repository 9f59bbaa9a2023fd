#pragma once

// The history: the stored recordings, newest first, filtered by a search over titles and
// text; the selected one's caption blocks; rename, delete, export and copy.
//
// Thread contract: main thread.

#include <QAbstractListModel>
#include <QString>
#include <QUrl>

#include <vector>

#include "core/Uuid.h"
#include "screens/CaptionListModel.h"

namespace osv {

class RecordingLibrary;
struct RecordingEntry;

class HistoryModel : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    Q_PROPERTY(QString search READ search WRITE setSearch NOTIFY searchChanged)
    Q_PROPERTY(QString selectedId READ selectedId NOTIFY selectionChanged)
    Q_PROPERTY(QString selectedTitle READ selectedTitle NOTIFY selectionChanged)
    Q_PROPERTY(QString selectedSummary READ selectedSummary NOTIFY selectionChanged)
    Q_PROPERTY(bool selectedHasAudio READ selectedHasAudio NOTIFY selectionChanged)
    Q_PROPERTY(osv::CaptionListModel* selectedCaptions READ selectedCaptions CONSTANT)
    // The last action's outcome, for the page's status line.
    Q_PROPERTY(QString message READ message NOTIFY messageChanged)

public:
    enum Role { IdRole = Qt::UserRole + 1, TitleRole, DateRole, ModeRole, DurationRole, StatusRole, SentencesRole, IsActiveRole };

    explicit HistoryModel(QObject* parent = nullptr);

    void attach(RecordingLibrary* library);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(rows_.size()); }
    QString search() const { return search_; }
    void setSearch(const QString& text);
    QString selectedId() const;
    QString selectedTitle() const;
    QString selectedSummary() const;
    bool selectedHasAudio() const;
    CaptionListModel* selectedCaptions() { return &captions_; }
    QString message() const { return message_; }

    // Reads the library again (after a session, or when the page is shown).
    Q_INVOKABLE void refresh();
    Q_INVOKABLE void select(const QString& id);
    Q_INVOKABLE bool rename(const QString& id, const QString& title);
    Q_INVOKABLE bool remove(const QString& id);
    // Writes the selected recording's Markdown to `file`.
    Q_INVOKABLE bool exportMarkdown(const QString& id, const QUrl& file);
    Q_INVOKABLE QString suggestedExportName(const QString& id) const;
    Q_INVOKABLE QString allText(const QString& id) const;
    Q_INVOKABLE void copyAllText(const QString& id);
    Q_INVOKABLE bool play(const QString& id);

signals:
    void countChanged();
    void searchChanged();
    void selectionChanged();
    void messageChanged();

private:
    const RecordingEntry* entry(const QString& id) const;
    bool matches(const RecordingEntry& e) const;
    void loadSelectedCaptions();
    void setMessage(const QString& text);

    RecordingLibrary* library_ = nullptr;
    std::vector<Uuid> rows_;
    QString search_;
    std::optional<Uuid> selected_;
    CaptionListModel captions_;
    QString message_;
};

}  // namespace osv

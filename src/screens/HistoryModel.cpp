#include "screens/HistoryModel.h"

#include <QClipboard>
#include <QDateTime>
#include <QDesktopServices>
#include <QGuiApplication>

#include "core/AtomicFile.h"
#include "recordings/RecordingLibrary.h"
#include "transcript/CaptionBlocks.h"
#include "transcript/CaptionGrouping.h"
#include "transcript/TranscriptReadModel.h"

namespace osv {

namespace {

QString qs(std::string_view s) { return QString::fromUtf8(s.data(), qsizetype(s.size())); }

QString statusLabel(RecordingStatus status) {
    switch (status) {
        case RecordingStatus::ready: return QStringLiteral("就绪");
        case RecordingStatus::recording: return QStringLiteral("录制中");
        case RecordingStatus::transcribing: return QStringLiteral("转写中");
        case RecordingStatus::translating: return QStringLiteral("翻译中");
        case RecordingStatus::complete: return QStringLiteral("已完成");
        case RecordingStatus::failed: return QStringLiteral("失败");
    }
    return {};
}

QString durationText(double seconds) {
    const auto total = static_cast<long long>(seconds > 0 ? seconds + 0.5 : 0);
    const auto h = total / 3600, m = (total / 60) % 60, s = total % 60;
    const QString ms = QStringLiteral("%1:%2").arg(m, 2, 10, QLatin1Char('0')).arg(s, 2, 10, QLatin1Char('0'));
    return h > 0 ? QStringLiteral("%1:%2").arg(h).arg(ms) : ms;
}

QString dateText(Date date) {
    return QDateTime::fromMSecsSinceEpoch(date.unixMilliseconds()).toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

// Blocks of a stored recording without an event log break softly after this many
// characters of source.
constexpr int kSoftBreakAfter = 120;

// A stored recording's blocks: from its event log, as the session showed them (channels,
// translations, readings), else from the older segment form.
std::vector<CaptionGrouping::CaptionBlock> storedBlocks(RecordingLibrary& library, const RecordingEntry& entry) {
    if (auto log = library.loadEventLog(entry.id); log && !log->empty()) {
        TranscriptReadModel::Fold fold;
        fold.advance(*log);
        const TranscriptSnapshot snapshot = fold.snapshot();
        const auto& sentences = snapshot.sentences();
        bool system = false, microphone = false;
        for (std::size_t i = 0; i < sentences.size(); ++i)
            (sentences[i].channel == CaptureChannel::system ? system : microphone) = true;
        TranslationRouter::Config routing;
        routing.separatedChannels = system && microphone;
        return captionBlocks(snapshot, TranscriptSnapshot::paragraphs(0, sentences), system && microphone, true,
                             routing, false, Date::distantFuture());
    }
    return CaptionGrouping::blocks(entry.segments, kSoftBreakAfter);
}

}  // namespace

HistoryModel::HistoryModel(QObject* parent) : QAbstractListModel(parent) {}

void HistoryModel::attach(RecordingLibrary* library) {
    library_ = library;
    selected_.reset();
    refresh();
    emit selectionChanged();
}

const RecordingEntry* HistoryModel::entry(const QString& id) const {
    if (!library_) return nullptr;
    const auto uuid = Uuid::parse(id.toStdString());
    return uuid ? library_->recording(*uuid) : nullptr;
}

bool HistoryModel::matches(const RecordingEntry& e) const {
    if (search_.trimmed().isEmpty()) return true;
    const QString needle = search_.trimmed();
    return QString::fromStdString(e.title).contains(needle, Qt::CaseInsensitive) ||
           QString::fromStdString(e.sourceText).contains(needle, Qt::CaseInsensitive) ||
           QString::fromStdString(e.translatedText).contains(needle, Qt::CaseInsensitive);
}

void HistoryModel::refresh() {
    beginResetModel();
    rows_.clear();
    if (library_)
        for (const auto& e : library_->recordings())  // kept newest first by the library
            if (matches(e)) rows_.push_back(e.id);
    endResetModel();
    emit countChanged();
    if (selected_ && !(library_ && library_->recording(*selected_))) {
        selected_.reset();
        captions_.clear();
        emit selectionChanged();
    } else if (selected_) {
        loadSelectedCaptions();
        emit selectionChanged();
    }
}

void HistoryModel::setSearch(const QString& text) {
    if (text == search_) return;
    search_ = text;
    refresh();
    emit searchChanged();
}

int HistoryModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : int(rows_.size()); }

QVariant HistoryModel::data(const QModelIndex& index, int role) const {
    if (!library_ || !index.isValid() || index.row() >= int(rows_.size())) return {};
    const RecordingEntry* e = library_->recording(rows_[std::size_t(index.row())]);
    if (!e) return {};
    switch (role) {
        case IdRole: return QString::fromStdString(e->id.text());
        case TitleRole: return QString::fromStdString(e->title);
        case DateRole: return dateText(e->createdAt);
        case ModeRole: return qs(modeWord(e->mode));
        case DurationRole: return durationText(e->duration);
        case StatusRole: return statusLabel(e->status);
        case SentencesRole: return qlonglong(std::max<std::int64_t>(e->segmentCount, std::int64_t(e->segments.size())));
        case IsActiveRole: return library_->activeRecordingID() == e->id;
        default: return {};
    }
}

QHash<int, QByteArray> HistoryModel::roleNames() const {
    return {{IdRole, "recordingId"}, {TitleRole, "title"},       {DateRole, "date"},
            {ModeRole, "mode"},      {DurationRole, "duration"}, {StatusRole, "status"},
            {SentencesRole, "sentences"}, {IsActiveRole, "isActive"}};
}

QString HistoryModel::selectedId() const { return selected_ ? QString::fromStdString(selected_->text()) : QString(); }

QString HistoryModel::selectedTitle() const {
    const RecordingEntry* e = selected_ && library_ ? library_->recording(*selected_) : nullptr;
    return e ? QString::fromStdString(e->title) : QString();
}

QString HistoryModel::selectedSummary() const {
    const RecordingEntry* e = selected_ && library_ ? library_->recording(*selected_) : nullptr;
    if (!e) return {};
    return QStringLiteral("%1 · %2 · %3 · %4 句")
        .arg(dateText(e->createdAt), qs(modeWord(e->mode)), durationText(e->duration))
        .arg(std::max<std::int64_t>(e->segmentCount, std::int64_t(e->segments.size())));
}

bool HistoryModel::selectedHasAudio() const {
    const RecordingEntry* e = selected_ && library_ ? library_->recording(*selected_) : nullptr;
    if (!e || !e->relativeAudioPath) return false;
    const auto path = library_->paths().resolve(*e->relativeAudioPath);
    std::error_code ec;
    return path && std::filesystem::exists(*path, ec);
}

void HistoryModel::select(const QString& id) {
    const RecordingEntry* e = entry(id);
    selected_ = e ? std::optional<Uuid>(e->id) : std::nullopt;
    if (library_) library_->select(selected_);
    loadSelectedCaptions();
    emit selectionChanged();
}

void HistoryModel::loadSelectedCaptions() {
    const RecordingEntry* e = selected_ && library_ ? library_->recording(*selected_) : nullptr;
    if (!e) {
        captions_.clear();
        return;
    }
    auto blocks = storedBlocks(*library_, *e);
    // A stored recording waits for nothing: no placeholder where a translation never came.
    for (auto& b : blocks) b.isAwaitingTranslation = false;
    // A stored recording is settled as a whole; the next selection replaces it.
    captions_.setBlocks({}, 0);
    const std::size_t n = blocks.size();
    captions_.setBlocks(std::move(blocks), n);
}

bool HistoryModel::rename(const QString& id, const QString& title) {
    const RecordingEntry* e = entry(id);
    if (!e) return false;
    const QString trimmed = title.trimmed();
    if (trimmed.isEmpty()) {
        setMessage(QStringLiteral("标题不能为空。"));
        return false;
    }
    library_->renameRecording(e->id, trimmed.toStdString());
    library_->persistRecordingsNow();
    refresh();
    emit selectionChanged();
    setMessage(QStringLiteral("已重命名为“%1”。").arg(trimmed));
    return true;
}

bool HistoryModel::remove(const QString& id) {
    const RecordingEntry* e = entry(id);
    if (!e) return false;
    if (library_->activeRecordingID() == e->id) {
        setMessage(QStringLiteral("正在进行的会话不能删除。"));
        return false;
    }
    const QString title = QString::fromStdString(e->title);
    library_->deleteRecording(e->id);
    refresh();
    setMessage(QStringLiteral("已删除“%1”。").arg(title));
    return true;
}

QString HistoryModel::suggestedExportName(const QString& id) const {
    const RecordingEntry* e = entry(id);
    QString name = e ? QString::fromStdString(e->title) : QStringLiteral("记录");
    name.replace(QLatin1Char('/'), QLatin1Char('-'));
    return name + QStringLiteral(".md");
}

bool HistoryModel::exportMarkdown(const QString& id, const QUrl& file) {
    const RecordingEntry* e = entry(id);
    if (!e) return false;
    const QString path = file.isLocalFile() ? file.toLocalFile() : file.toString();
    if (path.isEmpty()) return false;
    if (library_->selectedRecordingID() != e->id) library_->select(e->id);
    const auto markdown = library_->selectedTranscriptMarkdown();
    if (!markdown) return false;
    auto written = writeFileAtomically(path.toStdString(), *markdown);
    if (!written) {
        setMessage(QStringLiteral("导出失败：%1").arg(QString::fromStdString(written.error().message)));
        return false;
    }
    setMessage(QStringLiteral("已导出到 %1").arg(path));
    return true;
}

QString HistoryModel::allText(const QString& id) const {
    const RecordingEntry* e = entry(id);
    if (!e) return {};
    QStringList out;
    for (const auto& b : storedBlocks(*library_, *e)) {
        QStringList lines;
        if (b.source) lines << QString::fromStdString(*b.source);
        if (b.translation) lines << QString::fromStdString(*b.translation);
        if (!lines.isEmpty()) out << lines.join(QStringLiteral("\n"));
    }
    return out.join(QStringLiteral("\n\n"));
}

void HistoryModel::copyAllText(const QString& id) {
    if (auto* c = QGuiApplication::clipboard()) c->setText(allText(id));
    setMessage(QStringLiteral("全文已复制。"));
}

bool HistoryModel::play(const QString& id) {
    const RecordingEntry* e = entry(id);
    if (!e || !e->relativeAudioPath) return false;
    const auto path = library_->paths().resolve(*e->relativeAudioPath);
    if (!path) return false;
    // The desktop's own player: it has the transport controls people already know.
    return QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(path->string())));
}

void HistoryModel::setMessage(const QString& text) {
    message_ = text;
    emit messageChanged();
}

}  // namespace osv

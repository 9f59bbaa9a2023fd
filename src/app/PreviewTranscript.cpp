#include "app/PreviewTranscript.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace osv::PreviewTranscript {
namespace {

// In milliseconds: the script's clock counts whole milliseconds from the start, so that a
// time is the start plus one exact offset. Adding seconds step by step to a date of the
// order of 10^8 rounds at every step, and offsets came out as 3.2500001192092896.
constexpr std::int64_t kDeltaSpacing = 450;  // between deltas of a line
constexpr std::int64_t kTurnGap = 1300;      // silence between lines
constexpr std::int64_t kUtteranceTail = 600; // the service reports the turn's end after this
constexpr std::int64_t kAnswerDelay = 1400;  // a translation arrives this long after the line
constexpr std::int64_t kSpeechLead = 400;    // speech was heard this long before its first delta
constexpr std::int64_t kStreamLag = 200;     // a streamed translation follows its delta by this

using Origin = TranslationOrigin;
constexpr auto kThem = CaptureChannel::system;
constexpr auto kMe = CaptureChannel::microphone;

}  // namespace

bool isEnabled() {
    const char* v = std::getenv("OSV_PREVIEW_TRANSCRIPT");
    return v && std::strcmp(v, "1") == 0;
}

const std::vector<Line>& script() {
    static const std::vector<Line> lines = {
        {kThem, {"本日は", "お忙しいところ", "ありがとうございます。"}, {"感谢您", "百忙之中"},
         "感谢您今天在百忙之中抽出时间。", Origin::refined, std::nullopt},
        {kThem, {"さっそくですが、", "新しい見積もりを", "ご説明します。"}, {"那我们直接开始，", "我来说明新的报价。"},
         "那我们直接开始，我来说明一下新的报价。", Origin::streamed, std::nullopt},
        {kMe, {"好的，", "請您先", "介紹一下價格。"}, {}, "はい、まず価格についてご説明ください。",
         Origin::reverseToJapanese, std::nullopt},
        {kThem, {"月額は", "お一人あたり", "三千円です。"}, {"每人", "每月"}, "每人每月三千日元。", Origin::refined,
         std::nullopt},
        {kMe, {"这个价格", "包含培训吗？"}, {}, "この価格には研修も含まれていますか？", Origin::reverseToJapanese,
         std::nullopt},
        {kThem, {"はい、", "導入時の研修は", "無料です。"}, {"是的，"}, std::nullopt, Origin::refined,
         "翻译超时，稍后会自动重试"},
        {kMe, {"嗯，", "我们内部", "商量一下。"}, {}, "社内で相談します。", Origin::reverseToJapanese, std::nullopt},
        {kThem, {"来月から", "ご利用", "いただけます。"}, {"下个月"}, "下个月起就可以使用", Origin::provisional,
         std::nullopt},
    };
    return lines;
}

Date play(LiveTranscriptSession& session, Date start) {
    session.reset();
    std::int64_t ms = 0;
    const auto at = [start](std::int64_t offset) { return start + double(offset) / 1000.0; };
    for (const Line& line : script()) {
        const std::size_t before = session.log().size();
        const std::int64_t lineStart = ms;
        for (std::size_t i = 0; i < std::max(line.deltas.size(), line.streamed.size()); ++i) {
            if (i < line.deltas.size()) {
                // The first delta is stamped back to when the speech was heard to begin.
                const std::optional<Date> anchor = i == 0 ? std::optional<Date>(at(lineStart - kSpeechLead)) : std::nullopt;
                session.ingest(line.deltas[i], TranscriptSegmenter::DeltaKind::source, line.channel, at(ms), anchor);
            }
            if (i < line.streamed.size())
                session.ingest(line.streamed[i], TranscriptSegmenter::DeltaKind::streamedTranslation, line.channel,
                               at(ms + kStreamLag), std::nullopt);
            ms += kDeltaSpacing;
        }
        session.closeUtterance(line.channel, BoundaryReason::idle, at(ms + kUtteranceTail));

        // The line's sentence: the last one it closed.
        std::optional<SentenceID> id;
        for (std::size_t i = before; i < session.log().size(); ++i)
            if (auto* c = std::get_if<TranscriptEvent::SentenceClosed>(&session.log().events[i].payload)) id = c->id;
        const Date answered = at(ms + kAnswerDelay);
        if (id && line.answer)
            session.append(TranscriptEvent{Uuid::random(), answered, std::nullopt, line.channel,
                                           TranscriptEvent::SentenceTranslated{*id, *line.answer, line.origin}});
        if (id && line.failure)
            session.append(TranscriptEvent{Uuid::random(), answered, std::nullopt, line.channel,
                                           TranscriptEvent::SentenceTranslationFailed{*id, *line.failure}});
        ms += kUtteranceTail + kTurnGap;
    }
    session.finish(BoundaryReason::sessionEnd, at(ms));
    return at(ms);
}

RecordingEntry makeRecording(Date now) {
    LiveTranscriptSession session;
    session.labelsChannels = true;
    // The script's length is known once it has played; it is played again to end at `now`.
    const double length = play(session, Date(0.0)) - Date(0.0);
    const Date start = now - length;
    const Date end = play(session, start);

    RecordingEntry entry = RecordingEntry::make(RecordingKind::live, RecordingStatus::complete, SessionLabel::interpret,
                                                AudioCaptureMode::mixed, RecognitionLanguage::automatic, start);
    entry.title = RecordingEntry::composedTitle(SessionLabel::interpret, "新报价说明（示例）");
    entry.titleIsAuto = false;
    entry.updatedAt = end;
    entry.duration = length;
    const TranscriptSnapshot& snapshot = session.snapshot();
    entry.segments = snapshot.transcriptSegments(snapshot.usesMultipleChannels());
    entry.refreshDerivedText();
    entry.eventLog = session.log();
    return entry;
}

}  // namespace osv::PreviewTranscript

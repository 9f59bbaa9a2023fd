#include "cli/CliJson.h"

#include <cstdio>
#include <ostream>

namespace osv::cli {

using json::Json;

Json optionalString(const std::optional<std::string>& s) { return s ? Json(*s) : Json(nullptr); }

Json captionBlockJson(const CaptionGrouping::CaptionBlock& b) {
    Json j = Json::object();
    j["source"] = optionalString(b.source);
    j["translation"] = optionalString(b.translation);
    Json ids = Json::array();
    for (const SentenceID& id : b.sentenceIDs) ids.push_back(id.raw.text());
    j["sentenceIDs"] = std::move(ids);
    j["furigana"] = optionalString(b.furigana);
    j["channel"] = b.channel ? Json(rawValue(*b.channel)) : Json(nullptr);
    j["translationFailure"] = optionalString(b.translationFailure);
    j["isAwaitingTranslation"] = b.isAwaitingTranslation;
    j["isProvisional"] = b.isProvisional;
    j["pendingSource"] = optionalString(b.pendingSource);
    j["startOffset"] = b.startOffset ? Json(*b.startOffset) : Json(nullptr);
    j["lateCorrection"] = optionalString(b.lateCorrection);
    j["lateTranslation"] = optionalString(b.lateTranslation);
    return j;
}

Json requestJson(const TranslationRouter::Request& r) {
    Json j = Json::object();
    j["sentenceID"] = r.sentenceID.raw.text();
    j["text"] = r.text;
    j["context"] = r.context;
    j["origin"] = rawValue(r.origin);
    j["channel"] = rawValue(r.channel);
    return j;
}

void printCaptionBlocks(const std::vector<CaptionGrouping::CaptionBlock>& blocks, std::ostream& out) {
    for (const auto& b : blocks) {
        const double offset = b.startOffset.value_or(0);
        char clock[16];
        std::snprintf(clock, sizeof clock, "%02d:%02d", int(offset) / 60, int(offset) % 60);
        std::string head = "[";
        if (b.channel) head += *b.channel == CaptureChannel::system ? "对方 " : "我   ";
        head += clock;
        head += "] ";
        out << head << b.source.value_or("") << "\n";
        const std::string indent(head.size() > 8 ? 12 : 8, ' ');
        if (b.translation) {
            out << indent << *b.translation;
            if (b.isProvisional) out << "（草稿）";
            out << "\n";
        } else if (b.isAwaitingTranslation && !b.translationFailure) {
            out << indent << "（等待译文）\n";
        }
        if (b.translationFailure) out << indent << "⚠ " << *b.translationFailure << "\n";
        if (b.translation && b.pendingSource && *b.pendingSource != b.source)
            out << indent << "待译：" << *b.pendingSource << "\n";
        if (b.lateCorrection) out << indent << "后来更正：" << *b.lateCorrection << "\n";
        if (b.lateTranslation) out << indent << "后来的译文：" << *b.lateTranslation << "\n";
    }
}

}  // namespace osv::cli

// A model's reply is never trusted: every reader of one, fed whatever bytes come.

#include <cstddef>
#include <cstdint>
#include <string>

#include "lanes/SentenceTranslationPass.h"
#include "services/OpenAIClient.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (auto reply = osv::ResponsesResponse::decode(text)) (void)reply->outputText.size();
    (void)osv::OpenAIClient::numberedCorrections(text, 5);
    (void)osv::OpenAIClient::parseSummary(text);
    (void)osv::OpenAIClient::parseGlossary(text);
    (void)osv::OpenAIClient::cleanTitle(text);
    (void)osv::SentenceTranslationPass::translationFailureSummary(osv::Error{"api_error", text});
    return 0;
}

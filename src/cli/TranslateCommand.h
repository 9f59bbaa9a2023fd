#pragma once

// `translate`: one sentence pass as a script would call it. The request is built as the
// live session builds it (the key, the fastText model, the settings' glossary, context
// lines oldest first) and runs through the sentence lane. Over the Scheduler and HTTP
// ports, so that tests run it in virtual time. Main thread only.

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "lanes/LaneRunner.h"
#include "services/OpenAIClient.h"
#include "settings/TranslatorSettings.h"
#include "transcript/TranscriptEvent.h"

namespace osv::cli {

class TranslateCommand {
public:
    struct Options {
        std::string text;
        TranslationOrigin origin = TranslationOrigin::refined;
        std::vector<std::string> context;  // oldest first
        std::optional<TargetLanguage> target;
        bool json = false;
    };
    static constexpr const char* kUsage =
        "usage: ossevra-cli translate TEXT [--origin refined|reverseToJapanese|provisional] [--context LINE]...\n"
        "       [--target simplifiedChinese|japanese] [--json]\n";

    // The options of a command line (without "translate"), or what is wrong with it.
    static Expected<Options> parse(const std::vector<std::string>& args);

    // The translation (or, with --json, the debug records and the result) goes to `out`;
    // a failure's words to `err`.
    TranslateCommand(Scheduler& scheduler, HttpTransport& transport, std::string openAIBase, std::ostream& out,
                     std::ostream& err);

    // `finished` gets the exit status: 0, or 1 when the pass failed.
    void run(TranslatorSettings settings, Options options, std::function<void(int)> finished);

private:
    Scheduler& scheduler_;
    OpenAIClient client_;
    LaneRunner lanes_;
    std::ostream& out_;
    std::ostream& err_;
    Lifetime lifetime_;
};

}  // namespace osv::cli

#include <ostream>

#include "app/PreviewTranscript.h"
#include "cli/Cli.h"
#include "cli/CliJson.h"

namespace osv::cli {

int runPreview(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    bool asJson = false;
    for (const auto& a : args) {
        if (a == "--json") {
            asJson = true;
        } else {
            err << "unexpected argument \"" << a << "\"\nusage: ossevra-cli preview [--json]\n";
            return kUsage;
        }
    }
    LiveTranscriptSession session;
    session.labelsChannels = true;
    // A fixed start keeps the output the same on every run, ids apart.
    const Date end = PreviewTranscript::play(session, Date(800000000.0));
    const auto blocks = session.captionBlocks(true, end).toVector();
    if (asJson) {
        json::Json array = json::Json::array();
        for (const auto& b : blocks) array.push_back(captionBlockJson(b));
        out << json::dumpPretty(array) << "\n";
    } else {
        printCaptionBlocks(blocks, out);
    }
    return kOk;
}

}  // namespace osv::cli

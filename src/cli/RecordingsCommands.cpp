#include <cmath>
#include <cstdio>
#include <ostream>

#include "app/PreviewTranscript.h"
#include "cli/Cli.h"
#include "core/AtomicFile.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "core/Paths.h"
#include "core/Text.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"

namespace osv::cli {
namespace {

constexpr const char* kRecordingsUsage =
    "usage: ossevra-cli recordings list\n"
    "       ossevra-cli recordings show ID\n"
    "       ossevra-cli recordings export-md [ID] [--out FILE]\n"
    "       ossevra-cli recordings rename ID TITLE\n"
    "       ossevra-cli recordings delete ID\n"
    "ID: the recording's UUID, or enough of its beginning to name one; export-md without ID\n"
    "exports the newest.\n";

// The library as the program opens it at launch. What loading reports goes to standard
// error and nowhere else: each command's exit status is its own outcome.
struct OpenLibrary {
    ManualScheduler scheduler{Date::now()};
    bool indexUnreadable = false;  // the index exists and could not be read at all
    RecordingLibrary library;

    explicit OpenLibrary(std::ostream& err)
        : library(scheduler, options(), hooks(err)) {
        library.loadRecordings();
    }

    static RecordingLibrary::Options options() {
        RecordingLibrary::Options o;
        o.supportDirectory = supportDirectory();
        if (PreviewTranscript::isEnabled()) o.previewRecording = [] { return PreviewTranscript::makeRecording(Date::now()); };
        return o;
    }

    RecordingLibrary::Hooks hooks(std::ostream& err) {
        RecordingLibrary::Hooks h;
        h.setLastError = [&err](const std::string& text) { err << "ossevra-cli: " << text << "\n"; };
        h.debug = [this](const DebugEvent& e) {
            if (e.code == "recording_index_decode_failed") indexUnreadable = true;
        };
        return h;
    }
};

std::string durationText(double seconds) {
    const long total = std::lround(seconds);
    char buffer[32];
    if (total >= 3600) std::snprintf(buffer, sizeof buffer, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    else std::snprintf(buffer, sizeof buffer, "%ld:%02ld", total / 60, total % 60);
    return buffer;
}

// The entry `key` names: a whole UUID in either case, or a prefix that only one id has.
const RecordingEntry* findEntry(const RecordingLibrary& library, std::string_view key, std::ostream& err) {
    if (auto id = Uuid::parse(key)) {
        if (const RecordingEntry* e = library.recording(*id)) return e;
        err << "ossevra-cli: no recording has the id " << id->text() << "\n";
        return nullptr;
    }
    std::string prefix(key);
    for (char& c : prefix) c = char(std::toupper(static_cast<unsigned char>(c)));
    const RecordingEntry* found = nullptr;
    std::size_t matches = 0;
    if (prefix.size() >= 4)
        for (const RecordingEntry& e : library.recordings())
            if (e.id.text().starts_with(prefix)) found = &e, ++matches;
    if (matches == 1) return found;
    if (matches > 1) err << "ossevra-cli: \"" << std::string(key) << "\" names " << matches << " recordings; give more of the id\n";
    else err << "ossevra-cli: no recording has the id \"" << std::string(key) << "\" (see: ossevra-cli recordings list)\n";
    return nullptr;
}

int list(OpenLibrary& open, std::ostream& out) {
    for (const RecordingEntry& e : open.library.recordings()) {
        out << e.id.text() << "  " << e.title << "  " << rawValue(e.kind) << "  " << rawValue(e.mode) << "  "
            << rawValue(e.status) << "  " << durationText(e.duration) << "  " << e.segmentCount << " 句\n";
    }
    return open.indexUnreadable ? kFailed : kOk;
}

int show(OpenLibrary& open, const RecordingEntry& e, std::ostream& out) {
    std::string compact;
    JsonWriter w(compact);
    writeRecordingEntry(w, e);
    if (auto parsed = json::parse(compact)) out << json::dumpPretty(*parsed) << "\n";
    else out << compact << "\n";
    (void)open;
    return kOk;
}

int exportMarkdown(OpenLibrary& open, const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    std::optional<std::string> key, outPath;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--out") {
            if (i + 1 == args.size()) {
                err << "ossevra-cli: --out needs a file name\n" << kRecordingsUsage;
                return kUsage;
            }
            outPath = args[++i];
        } else if (!key && args[i].rfind("--", 0) != 0) key = args[i];
        else {
            err << "ossevra-cli: unexpected argument \"" << args[i] << "\"\n" << kRecordingsUsage;
            return kUsage;
        }
    }
    if (key) {
        const RecordingEntry* e = findEntry(open.library, *key, err);
        if (!e) return kFailed;
        open.library.select(e->id);
    } else if (!open.library.selectedRecordingID()) {
        err << "ossevra-cli: there are no recordings to export\n";
        return kFailed;
    }
    std::string markdown = *open.library.selectedTranscriptMarkdown();
    markdown.push_back('\n');
    if (!outPath) {
        out << markdown;
        return kOk;
    }
    if (auto written = writeFileAtomically(*outPath, markdown); !written) {
        err << "ossevra-cli: cannot write " << *outPath << ": " << written.error().message << "\n";
        return kFailed;
    }
    return kOk;
}

int rename(OpenLibrary& open, const RecordingEntry& e, std::string_view title, std::ostream& out, std::ostream& err) {
    const std::string_view trimmed = text::trimmed(title);
    if (trimmed.empty()) {
        err << "ossevra-cli: a title cannot be blank\n";
        return kUsage;
    }
    const Uuid id = e.id;
    open.library.renameRecording(id, trimmed);
    if (!open.library.persistRecordingsNow()) return kFailed;
    if (open.library.isPreview()) err << "ossevra-cli: preview: nothing is saved\n";
    out << id.text() << "  " << open.library.recording(id)->title << "\n";
    return kOk;
}

int remove(OpenLibrary& open, const RecordingEntry& e, std::ostream& out, std::ostream& err) {
    const Uuid id = e.id;
    const std::string title = e.title;
    if (!open.library.deleteRecording(id)) {
        err << "ossevra-cli: " << id.text() << " was not deleted\n";
        return kFailed;
    }
    if (open.library.isPreview()) err << "ossevra-cli: preview: nothing is saved\n";
    out << "deleted " << id.text() << "  " << title << "\n";
    return kOk;
}

}  // namespace

int runRecordings(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.empty()) {
        err << kRecordingsUsage;
        return kUsage;
    }
    const std::string& sub = args[0];
    const std::size_t expected = sub == "list" ? 1 : sub == "show" || sub == "delete" ? 2 : sub == "rename" ? 3 : 0;
    if (sub != "export-md" && (expected == 0 || args.size() != expected)) {
        err << kRecordingsUsage;
        return kUsage;
    }
    OpenLibrary open(err);
    if (sub == "list") return list(open, out);
    if (sub == "export-md") return exportMarkdown(open, {args.begin() + 1, args.end()}, out, err);
    const RecordingEntry* e = findEntry(open.library, args[1], err);
    if (!e) return kFailed;
    if (sub == "show") return show(open, *e, out);
    if (sub == "rename") return rename(open, *e, args[2], out, err);
    return remove(open, *e, out, err);
}

}  // namespace osv::cli

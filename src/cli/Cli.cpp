#include "cli/Cli.h"

#include <ostream>

namespace osv::cli {
namespace {

constexpr const char* kUsageText =
    "usage: ossevra-cli <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  transcript fold FILE.jsonl [--text]     fold an event log and print the snapshot as JSON\n"
    "                                           (--text: as a person reads it)\n"
    "  transcript compact IN.jsonl OUT.jsonl   join runs of deltas, as stored recordings keep them\n"
    "  transcript build SCRIPT.jsonl [--deterministic-ids]\n"
    "                                           run a script of segmenter calls; the event log goes\n"
    "                                           to standard output, each ingest's directive to\n"
    "                                           standard error\n"
    "  transcript captions FILE.jsonl --now T [--no-translate] [--labels]\n"
    "                                           the caption blocks of a log at time T, as JSON\n"
    "  transcript requests FILE.jsonl --now T [--target simplifiedChinese|japanese]\n"
    "      [--perspective solo|shared] [--separated] [--repairs] [--no-refine] [--grace SECONDS]\n"
    "                                           what the router says is due at time T, as JSON\n"
    "  preview [--json]                         play the sample conversation and show its captions\n"
    "  settings show                            the effective settings as JSON (keys only as present/absent)\n"
    "  settings set KEY VALUE                   write one stored setting, then load and save as at launch\n"
    "  keys set openai|google|gemini|jev [--clear]\n"
    "                                           store the key read from standard input, or remove it\n"
    "  models [--mode interpret|record|assist|coach] [--json]\n"
    "                                           which model each job uses, and what is wrong with it\n"
    "  audio devices                            sources and sinks, the defaults, echo cancelling\n"
    "  audio record --mode mixed|systemAudio|microphone --seconds N --out DIR [--separate]\n"
    "      [--chunk-seconds S]                  record chunk files, one line a second per channel\n"
    "  recordings list                          the stored recordings, newest first\n"
    "  recordings show ID                       one recording as JSON\n"
    "  recordings export-md [ID] [--out FILE]   the transcript as Markdown (the newest without ID)\n"
    "  recordings rename ID TITLE               give a recording a title\n"
    "  recordings delete ID                     delete a recording and every file it owns\n"
    "  realtime probe --audio FILE [--speed 1|max] [--url BASE] [--target LANG]\n"
    "                                           stream a file through the realtime translation client\n"
    "                                           (base from OSV_OPENAI_BASE_URL unless --url), one JSON\n"
    "                                           line per event and debug record\n"
    "  live [--system FILE] [--microphone FILE] [--separate] [--seconds N] [--tail S] [--json]\n"
    "                                           a live session: from capture as the settings say, or\n"
    "                                           from audio files as the channels; ends on SIGINT, SIGTERM,\n"
    "                                           \"stop\" on standard input, after N seconds, or S seconds\n"
    "                                           (default 3) after the files ended; pause/resume on stdin\n"
    "  live --demo [--json]                     the same against the bundled fake server: no key, no network\n"
    "  source probe --audio FILE [--vendor openai|gemini] [--model NAME]\n"
    "      [--language auto|chinese|japanese] [--speed 1|max]\n"
    "                                           stream a file through a source recogniser (24 kHz to\n"
    "                                           OpenAI, 16 kHz to Gemini), one JSON line per event;\n"
    "                                           the vendor is the configured model's unless given\n"
    "  transcribe FILE [--vendor openai|gemini|local] [--language auto|chinese|japanese] [--json]\n"
    "                                           a whole file's text (--json: with segments or speakers)\n"
    "  voices [--vendor google|openai] [--json] the speech voices of a vendor\n"
    "  speak TEXT --language chinese|japanese [--vendor openai|google] [--voice NAME] --out FILE\n"
    "                                           synthesise speech into FILE and print its duration\n"
    "  translate TEXT [--origin refined|reverseToJapanese|provisional] [--context LINE]...\n"
    "      [--target simplifiedChinese|japanese] [--json]\n"
    "                                           one sentence pass as a live session sends it; the\n"
    "                                           translation on one line (--json: the debug records,\n"
    "                                           then the result with its usage, as JSON lines)\n"
    "  help                                     this text\n"
    "\n"
    "FILE may be - for standard input.\n";

}  // namespace

int run(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    if (args.empty()) {
        err << kUsageText;
        return kUsage;
    }
    const std::string& command = args[0];
    if (command == "help" || command == "--help" || command == "-h") {
        out << kUsageText;
        return kOk;
    }
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "transcript") return runTranscript(rest, in, out, err);
    if (command == "preview") return runPreview(rest, out, err);
    if (command == "settings") return runSettings(rest, in, out, err);
    if (command == "keys") return runKeys(rest, in, out, err);
    if (command == "models") return runModels(rest, out, err);
    if (command == "audio") return runAudio(rest, out, err);
    if (command == "recordings") return runRecordings(rest, out, err);
    if (command == "realtime") return runRealtime(rest, out, err);
    if (command == "live") return runLive(rest, out, err);
    if (command == "source") return runSource(rest, out, err);
    if (command == "transcribe") return runTranscribe(rest, out, err);
    if (command == "voices") return runVoices(rest, out, err);
    if (command == "speak") return runSpeak(rest, out, err);
    if (command == "translate") return runTranslate(rest, out, err);
    err << "ossevra-cli: unknown command \"" << command << "\"\n\n" << kUsageText;
    return kUsage;
}

}  // namespace osv::cli

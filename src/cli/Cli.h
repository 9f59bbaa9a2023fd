#pragma once

// ossevra-cli: the headless command line over the core, for scripts and for checking.
// Output formats are stable: scripts depend on them.

#include <iosfwd>
#include <string>
#include <vector>

namespace osv::cli {

// Exit statuses.
inline constexpr int kOk = 0;
inline constexpr int kFailed = 1;  // the command ran and could not do its work
inline constexpr int kUsage = 2;   // the command line or the input is malformed

// Runs one command line (without the program name). Reads standard input from `in`.
int run(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err);

// settings show|set, keys set, models.
int runSettings(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err);
int runKeys(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err);
int runModels(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// audio devices, audio record.
int runAudio(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// realtime probe: a file streamed through the realtime translation client.
int runRealtime(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// live: a live session from capture or audio files, or the demo against the loopback fake.
int runLive(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
// source probe, transcribe, voices, speak: the speech vendors' clients.
int runSource(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int runTranscribe(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int runVoices(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
int runSpeak(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
// translate: one sentence pass through the sentence lane.
int runTranslate(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// Plays the sample conversation and prints its captions.
int runPreview(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// recordings list|show|export-md|rename|delete.
int runRecordings(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The transcript commands: fold, compact, build, captions, requests.
int runTranscript(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err);

}  // namespace osv::cli

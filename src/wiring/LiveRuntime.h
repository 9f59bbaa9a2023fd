#pragma once

// The live controller wired to the real adapters: the Qt event loop and sockets, the
// capture (PulseAudio, or audio files played as the channels), the chunk writer, the FFmpeg
// merge and the recording library. Shared by the window and the command line, so both run
// the same pipeline.
//
// Thread contract: create and use on the main thread, with a QCoreApplication (or
// QGuiApplication) already there.

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "settings/TranslatorSettings.h"

namespace osv {

class LiveController;
class RecordingLibrary;
class Scheduler;
struct DebugEvent;

class LiveRuntime {
public:
    struct Options {
        std::filesystem::path supportDirectory;
        // Files played as the channels instead of capture; either or both.
        std::optional<std::filesystem::path> systemFile;
        std::optional<std::filesystem::path> microphoneFile;
        // The OpenAI base (ending in /v1); empty: the environment's or the default.
        std::string openAIBase;
        // Messages of the library (an index set aside, a failed save).
        std::function<void(const std::string&)> onLibraryError;
        std::function<void(const DebugEvent&)> onLibraryDebug;
    };

    LiveRuntime(Options options, std::function<TranslatorSettings()> settings);
    ~LiveRuntime();
    LiveRuntime(const LiveRuntime&) = delete;
    LiveRuntime& operator=(const LiveRuntime&) = delete;

    Scheduler& scheduler();
    RecordingLibrary& library();
    LiveController& controller();
    const std::string& openAIBase() const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace osv

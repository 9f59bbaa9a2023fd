#pragma once

// What the demo needs to run the real pipeline with no key and no network: the sample
// conversation spoken by espeak-ng into one audio file per channel (made once, kept in
// the cache folder), and the loopback fake server playing the demo scenario on a free
// port. Destroying the demo stops the server.
//
// Thread contract: main thread, with a QCoreApplication.

#include <filesystem>
#include <memory>
#include <string>

#include "core/Expected.h"

namespace osv {

class DemoSession {
public:
    static Expected<std::unique_ptr<DemoSession>> start();
    ~DemoSession();

    const std::filesystem::path& systemFile() const { return systemFile_; }
    const std::filesystem::path& microphoneFile() const { return microphoneFile_; }
    // "http://127.0.0.1:{port}/v1"
    const std::string& openAIBase() const { return openAIBase_; }
    // What the server received, one JSON line per message.
    const std::filesystem::path& serverRecord() const { return serverRecord_; }
    // When the last line of the conversation has been spoken, in seconds from the start.
    double length() const { return length_; }

    // The demo's files, found beside the build or the sources.
    static std::filesystem::path conversationFile();
    static std::filesystem::path scenarioFile();
    static std::filesystem::path fakeServerProgram();
    // Speaks the conversation into `directory` (system.wav, microphone.wav), 24 kHz mono.
    static Expected<double> makeAudio(const std::filesystem::path& conversation, const std::filesystem::path& directory);

private:
    DemoSession() = default;
    struct Server;
    std::unique_ptr<Server> server_;
    std::filesystem::path systemFile_;
    std::filesystem::path microphoneFile_;
    std::filesystem::path serverRecord_;
    std::string openAIBase_;
    double length_ = 0;
};

}  // namespace osv

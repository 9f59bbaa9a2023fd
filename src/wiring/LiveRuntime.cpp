#include "wiring/LiveRuntime.h"

#include "audio/SerialChunkWriter.h"
#include "live/LiveController.h"
#include "platform/ffmpeg/AudioFileMerger.h"
#include "platform/ffmpeg/FileFrameSource.h"
#include "platform/pulse/PulseFrameSource.h"
#include "platform/qt/QtHttpTransport.h"
#include "platform/qt/QtScheduler.h"
#include "platform/qt/QtWebSocketTransport.h"
#include "recordings/RecordingLibrary.h"
#include "services/ServiceEndpoints.h"
#include "live/LiveLanes.h"

namespace osv {

struct LiveRuntime::Parts {
    // Destroyed in reverse: the controller first, the transports and the scheduler last.
    QtScheduler scheduler;
    QtWebSocketTransport webSockets;
    QtHttpTransport http;
    std::unique_ptr<FrameSourceFactory> sources;
    SerialChunkWriter chunkWriter{scheduler};
    AudioFileMerger merger;
    std::string openAIBase;
    std::unique_ptr<RecordingLibrary> library;
    std::unique_ptr<LiveLanes> lanes;
    std::unique_ptr<LiveController> controller;
};

LiveRuntime::LiveRuntime(Options options, std::function<TranslatorSettings()> settings)
    : parts_(std::make_unique<Parts>()) {
    Parts& p = *parts_;
    if (options.systemFile || options.microphoneFile)
        p.sources = std::make_unique<FileFrameSourceFactory>(options.systemFile, options.microphoneFile);
    else
        p.sources = std::make_unique<PulseFrameSourceFactory>();
    p.openAIBase = options.openAIBase.empty() ? ServiceEndpoints::fromEnvironment().openAI : options.openAIBase;

    RecordingLibrary::Options libraryOptions;
    libraryOptions.supportDirectory = options.supportDirectory;
    RecordingLibrary::Hooks hooks;
    hooks.setLastError = options.onLibraryError;
    hooks.debug = options.onLibraryDebug;
    p.library = std::make_unique<RecordingLibrary>(p.scheduler, libraryOptions, hooks);
    p.library->loadRecordings();

    Parts* raw = parts_.get();
    p.lanes = std::make_unique<LiveLanes>(p.scheduler, p.http, p.openAIBase, *p.library, settings);
    p.controller = std::make_unique<LiveController>(LiveController::Dependencies{
        p.scheduler, *p.library, std::move(settings), *p.sources, p.chunkWriter, p.merger,
        [raw] {
            return std::make_unique<OpenAIRealtimeTranslationClient>(raw->webSockets, raw->scheduler, raw->openAIBase);
        },
        p.lanes.get(), std::nullopt});
    p.lanes->attach(*p.controller);
}

LiveRuntime::~LiveRuntime() {
    if (!parts_) return;
    // The controller goes before the lanes: nothing the lanes finish afterwards may reach it.
    if (parts_->lanes) parts_->lanes->detach();
    // Anything still open is saved before the parts go.
    if (parts_->library) parts_->library->persistRecordingsNow();
}

Scheduler& LiveRuntime::scheduler() { return parts_->scheduler; }
RecordingLibrary& LiveRuntime::library() { return *parts_->library; }
LiveController& LiveRuntime::controller() { return *parts_->controller; }
const std::string& LiveRuntime::openAIBase() const { return parts_->openAIBase; }

}  // namespace osv

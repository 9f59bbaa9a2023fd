#include "live/LiveController.h"

#include <algorithm>
#include <cmath>

#include "core/Text.h"
#include "core/TranslatorError.h"
#include "metering/LiveMonitor.h"
#include "recordings/RecordingLibrary.h"
#include "transcript/TranscriptJournal.h"
#include "audio/AudioLevel.h"

namespace osv {

namespace fs = std::filesystem;
using Level = DebugEvent::Level;
using Category = DebugEvent::Category;
using Kind = RealtimeTranslationEvent::Kind;

namespace {

std::string channelName(CaptureChannel channel) {
    return channel == CaptureChannel::system ? "电脑声音" : "麦克风";
}

}  // namespace

LiveController::LiveController(Dependencies dependencies)
    : deps_(std::move(dependencies)),
      dispatch_(deps_.dispatch ? *deps_.dispatch : static_cast<TranslationDispatch&>(noDispatch_)),
      recorder_(deps_.scheduler, deps_.sources, deps_.chunkWriter),
      connections_(deps_.scheduler, deps_.makeRealtimeClient, *this,
                   deps_.rotation.value_or(RealtimeConnections::RotationPolicy::fromEnvironment())),
      ingestion_(deps_.scheduler, liveTranscript_, dispatch_, *this),
      supervisor_(deps_.scheduler, *this) {}

LiveController::~LiveController() = default;

// ---- observation ----

LiveController::Subscription LiveController::subscribe(std::function<void(const LiveState&)> observer) {
    const Subscription token = nextSubscription_++;
    observers_[token] = std::move(observer);
    return token;
}

void LiveController::unsubscribe(Subscription token) { observers_.erase(token); }

void LiveController::changed() {
    if (publishPosted_) return;
    publishPosted_ = true;
    meterPublish_.cancel();
    const auto alive = lifetime_.guard();
    deps_.scheduler.post([this, alive] {
        if (!alive.expired()) publish();
    });
}

// Levels and meters change with every piece of audio; a meter needs no more than twenty
// pictures a second, so they ride along with the next publish or wait at most 50 ms.
void LiveController::metersChanged() {
    if (publishPosted_ || meterPublish_.isPending()) return;
    meterPublish_ = deps_.scheduler.after(kMeterPublishSeconds, [this] { changed(); });
}

void LiveController::publish() {
    publishPosted_ = false;
    meterPublish_.cancel();
    const Date now = deps_.scheduler.now();
    const TranslatorSettings settings = deps_.settings();
    state_.translates = routingConfig(settings).translates;
    state_.labelsChannels = liveTranscript_.labelsChannels;
    if (captionsRefreshedAt_ && now - *captionsRefreshedAt_ >= 1.0) captionsDirty_ = true;
    if (captionsDirty_) {
        captionsDirty_ = false;
        captionsRefreshedAt_ = now;
        state_.captions = liveTranscript_.captionBlocks(state_.translates, now);
        // Frozen blocks never change: each is looked at once, the live tail every time.
        const std::size_t frozen = state_.captions.frozenCount();
        if (frozen < frozenScanned_) frozenScanned_ = 0, frozenFailures_ = 0;
        for (; frozenScanned_ < frozen; ++frozenScanned_)
            frozenFailures_ += state_.captions[frozenScanned_].translationFailure.has_value();
        bool failed = frozenFailures_ > 0;
        for (std::size_t i = frozen; i < state_.captions.size() && !failed; ++i)
            failed = state_.captions[i].translationFailure.has_value();
        state_.hasFailedTranslations = failed;
    }
    state_.hasOutstandingTranslations = state_.activeRecordingID && dispatch_.hasTrackedWork(*state_.activeRecordingID);
    state_.isFinishingLiveSession = isFinishingLiveSession();
    state_.hadCaptionOutage = connections_.hadCaptionOutage;
    state_.hadSourceStreamOutage = supervisor_.hadSourceStreamOutage;

    LiveMonitor monitor;
    state_.meters.clear();
    for (CaptureChannel channel : state_.activeChannels) {
        LiveChannelMeter meter;
        meter.level = channelLevels_.count(channel) ? channelLevels_[channel] : 0;
        meter.isAwake = handoff_.isAwake(channel);
        meter.isConnected = connections_.isConnected(channel);
        const ThroughputMeter* throughput = handoff_.meter(channel);
        meter.bytesPerSecond = throughput ? throughput->bytesPerSecond(now) : 0;
        state_.meters[channel] = meter;
        if (state_.isLiveInterpreting) {
            LiveMonitor::Input input;
            input.name = channelName(channel);
            input.peak = handoff_.peak(channel);
            input.bytesPerSecond = meter.bytesPerSecond;
            input.totalBytes = throughput ? throughput->totalBytes : 0;
            if (auto at = handoff_.lastChunkAt(channel)) input.secondsSinceFrame = now - *at;
            monitor.inputs.push_back(input);
            LiveMonitor::Stream stream;
            stream.job = "译文（" + channelName(channel) + "）";
            stream.vendor = "OpenAI";
            stream.isConnected = meter.isConnected;
            stream.events = connections_.eventCount(channel);
            if (auto at = connections_.connectedAt(channel)) stream.secondsSinceEvent = now - *at;
            monitor.streams.push_back(stream);
        }
    }
    state_.monitorHeadline = state_.isLiveInterpreting ? monitor.headline() : "";
    double onAir = onAirSecondsBefore_;
    if (runStartedAt_ && !state_.isLivePaused && state_.isLiveInterpreting) onAir += now - *runStartedAt_;
    state_.elapsedSeconds = std::max(0.0, onAir);

    const auto alive = lifetime_.guard();
    const auto observers = observers_;  // an observer may unsubscribe while being told
    for (const auto& [token, observer] : observers) {
        if (alive.expired()) return;
        if (observer) observer(state_);
    }
}

void LiveController::tick() {
    if (!state_.activeRecordingID) return;
    ticker_ = deps_.scheduler.after(1.0, [this] { tick(); });
    changed();
}

void LiveController::addDebug(Level level, Category category, std::string title, std::string details,
                              std::optional<std::string> code) {
    DebugEvent event{Uuid::random(), deps_.scheduler.now(), level, category, std::move(title), std::move(details),
                     std::move(code)};
    debugEvents_.push_back(event);
    while (debugEvents_.size() > kMaximumDebugEvents) debugEvents_.pop_front();
    if (onDebug) onDebug(event);
}

void LiveController::clientDebug(const OpenAIDebugLog& log) {
    addDebug(log.level, log.category, log.title, log.details, log.code);
}

void LiveController::setLiveNotice(std::string notice) {
    state_.liveNotice = std::move(notice);
    changed();
}

// ---- predicates ----

bool LiveController::isLiveOnAir(const Uuid& recordingID) const {
    return state_.activeRecordingID == recordingID && state_.isLiveInterpreting && !state_.stoppingRecordingID;
}

bool LiveController::holdsLiveTranscript(const Uuid& recordingID) const {
    return state_.activeRecordingID == recordingID && !liveTranscript_.log().events.empty();
}

bool LiveController::isFinishingLiveSession() const {
    if (!state_.activeRecordingID || state_.isLiveInterpreting || state_.isStartingSession) return false;
    return state_.stoppingRecordingID.has_value() || dispatch_.hasTrackedWork(*state_.activeRecordingID);
}

bool LiveController::isListening() const {
    return state_.isLiveInterpreting && !state_.isLivePaused && !state_.stoppingRecordingID &&
           state_.engine == LiveInterpretationEngine::realtimeTranslation;
}

TranslatorSettings LiveController::connectionSettings(CaptureChannel channel) const {
    TranslatorSettings settings = deps_.settings();
    if (auto model = supervisor_.degradedTranscribeModel(channel))
        settings.models.set(*model, ModelJob::realtimeTranscribe, settings.activeMode);
    return settings;
}

bool LiveController::isQuietMoment(CaptureChannel channel) const {
    const Date now = deps_.scheduler.now();
    if (auto boundary = ingestion_.lastBoundaryAt(channel); boundary && now - *boundary <= 0.5) return true;
    const SpeechWitness* witness = handoff_.witness(channel);
    return !witness || !witness->lastSpeechAt || now - *witness->lastSpeechAt >= 1.0;
}

bool LiveController::buildsFromTranslation(CaptureChannel channel) const {
    const auto& channels = liveTranscript_.segmenter().channels;
    auto it = channels.find(channel);
    return it != channels.end() && it->second.buildsFromTranslation;
}

void LiveController::buildFromTranslation(CaptureChannel channel, bool flag) {
    liveTranscript_.buildFromTranslation(flag, channel, deps_.scheduler.now());
    transcriptChanged();
}

void LiveController::scheduleReconnect(CaptureChannel channel, const std::string& because) {
    if (state_.activeRecordingID) connections_.scheduleRealtimeReconnect(channel, *state_.activeRecordingID, because);
}

bool LiveController::mayReconnect(const Uuid& recordingID, CaptureChannel channel) const {
    return state_.isLiveInterpreting && !state_.isLivePaused && !state_.stoppingRecordingID &&
           state_.engine == LiveInterpretationEngine::realtimeTranslation && state_.activeRecordingID == recordingID &&
           std::find(state_.activeChannels.begin(), state_.activeChannels.end(), channel) != state_.activeChannels.end();
}

TranslationRouter::Config LiveController::routingConfig(const TranslatorSettings& settings) const {
    TranslationRouter::Config config;
    switch (settings.recognitionLanguage) {
        case RecognitionLanguage::automatic: config.translates = true; break;
        case RecognitionLanguage::chinese: config.translates = settings.targetLanguage == TargetLanguage::japanese; break;
        case RecognitionLanguage::japanese:
            config.translates = settings.targetLanguage == TargetLanguage::simplifiedChinese;
            break;
    }
    config.perspective = settings.perspective;
    config.target = settings.targetLanguage;
    config.separatedChannels = liveTranscript_.labelsChannels;
    config.refineFinishedSentences = settings.refineFinishedSentences;
    config.contextSentences = 3;
    config.minimumCharacters = 2;
    config.minimumProvisionalCharacters = 8;
    config.repairsSource = settings.repairSource;
    config.repairGraceSeconds = 0.35;
    return config;
}

std::string LiveController::explainCaptureFailure(const Error& error) const {
    if (error.code == "sound_server_unreachable")
        return "连不上系统的声音服务（PulseAudio 或 PipeWire），电脑声音和麦克风都进不来。";
    if (error.code == "microphone_unavailable") return "没有可用的麦克风，这个房间里的声音进不来。";
    if (error.code == "no_capture_device") return "找不到可以录制的声音设备，电脑里的声音进不来。";
    return error.message;
}

// ---- starting ----

void LiveController::startLiveInterpretation() {
    if (state_.isStartingSession || state_.isLiveInterpreting || state_.activeRecordingID) return;
    const TranslatorSettings settings = deps_.settings();
    if (text::trimmed(settings.apiKey).empty()) {
        state_.lastError = TranslatorError::missingAPIKey().asError().message;
        changed();
        return;
    }
    state_.lastError.clear();
    state_.liveNotice.clear();
    state_.degradedCapture.clear();
    state_.isLivePaused = false;
    activeLiveChunkURLs_.clear();
    resetRealtimeState();
    liveUsage_ = UsageTally{};
    debugEvents_.clear();
    connections_.hadCaptionOutage = false;
    connections_.unbilledAudioSeconds = 0;
    supervisor_.hadSourceStreamOutage = false;
    onAirSecondsBefore_ = 0;
    runStartedAt_.reset();
    recorderStoppedAt_.reset();
    levelSampleCount_ = 0;
    levelPeak_ = 0;
    levelAverage_ = 0;
    stopRequestedWhileStarting_ = false;

    state_.engine = LiveInterpretationEngine::realtimeTranslation;
    if (settings.liveEngine == LiveInterpretationEngine::chunkedFallback)
        addDebug(Level::warning, Category::app, "切片同传尚不可用，改用实时同传",
                 "这个版本还没有切片引擎；本场按实时同传运行。", "chunked_engine_unavailable");

    const Date now = deps_.scheduler.now();
    RecordingEntry entry = RecordingEntry::make(RecordingKind::live, RecordingStatus::recording, SessionLabel::interpret,
                                                settings.captureMode, settings.recognitionLanguage, now);
    const Uuid id = entry.id;
    deps_.library.insertRecording(std::move(entry));
    deps_.library.select(id);
    deps_.library.setActiveRecordingID(id);
    state_.activeRecordingID = id;
    state_.activeRecordingStartedAt = now;
    // Before any network step: a crash in the start still leaves a trace.
    deps_.library.persistRecordingsNow();
    addDebug(Level::info, Category::app, "开始同声传译",
             "id: " + id.text() + "\nengine: realtimeTranslation\nchunkSeconds: " + std::to_string(kRecordingChunkSeconds),
             std::nullopt);
    state_.isStartingSession = true;
    state_.statusText = "正在连接实时同传…";
    changed();
    const auto alive = lifetime_.guard();
    deps_.scheduler.post([this, alive, id] {
        if (!alive.expired()) runLiveStartup(id, false);
    });
}

void LiveController::afterPauseTail(std::function<void()> next) {
    if (isPauseTailRunning_) afterPauseTail_.push_back(std::move(next));
    else next();
}

void LiveController::runLiveStartup(const Uuid& recordingID, bool resuming) {
    afterPauseTail([this, recordingID, resuming] {
        if (state_.activeRecordingID != recordingID) return;
        prepareRealtimeSession(recordingID, resuming);
        const double leadingSilence =
            resuming && recorderStoppedAt_ ? std::max(0.0, deps_.scheduler.now() - *recorderStoppedAt_) : 0.0;
        // Capture begins before the network is up: what is said during the handshake is held.
        if (auto started = startRecorder(recordingID, leadingSilence); !started) {
            if (resuming) returnToPause(started.error());
            else handleLiveStartFailure(started.error());
            return;
        }
        const auto alive = lifetime_.guard();
        startRealtimeTranslationClient(recordingID, [this, alive, recordingID, resuming](Expected<void> result) {
            if (alive.expired() || state_.activeRecordingID != recordingID) return;
            if (!result) {
                if (resuming) returnToPause(result.error());
                else handleLiveStartFailure(result.error());
                return;
            }
            liveStartSucceeded(recordingID);
        });
    });
}

void LiveController::prepareRealtimeSession(const Uuid& recordingID, bool resuming) {
    const TranslatorSettings settings = deps_.settings();
    if (settings.captureMode == AudioCaptureMode::mixed && settings.separateChannels)
        state_.activeChannels = {CaptureChannel::system, CaptureChannel::microphone};
    else if (settings.captureMode == AudioCaptureMode::microphone)
        state_.activeChannels = {CaptureChannel::microphone};
    else
        state_.activeChannels = {CaptureChannel::system};
    if (!resuming) {
        liveTranscript_.reset();
        frozenScanned_ = 0;
        frozenFailures_ = 0;
        // A journal that cannot be written says so once; the session goes on.
        const auto alive = lifetime_.guard();
        journal_ = std::make_unique<TranscriptJournal>(recordingID, deps_.library.paths().journals(),
                                                       [this, alive](const OpenAIDebugLog& problem) {
                                                           if (!alive.expired()) clientDebug(problem);
                                                       });
        liveTranscript_.labelsChannels = state_.activeChannels.size() == 2;
        handoff_.reset(state_.activeChannels);
        ingestion_.reset();
        ingestion_.sessionStartedAt = deps_.scheduler.now();
    } else {
        handoff_.keepForResume(state_.activeChannels);
        ingestion_.cancelTimers();
    }
    liveTranscript_.configuredRouting = routingConfig(settings);
    connections_.cancelReconnects();
    captionsDirty_ = true;
}

Expected<void> LiveController::startRecorder(const Uuid& recordingID, double leadingSilence) {
    const TranslatorSettings settings = deps_.settings();
    CaptureRecorder::Options options;
    const bool separate = state_.activeChannels.size() == 2;
    switch (settings.captureMode) {
        case AudioCaptureMode::mixed: options.mode = CaptureRecorder::Mode::mixed; break;
        case AudioCaptureMode::systemAudio: options.mode = CaptureRecorder::Mode::systemAudio; break;
        case AudioCaptureMode::microphone: options.mode = CaptureRecorder::Mode::microphone; break;
    }
    options.chunkSeconds = kRecordingChunkSeconds;
    options.minimumChunkBytes = kMinimumChunkBytes;
    options.preserveRecordingChannels = separate;
    options.leadingSilenceSeconds = leadingSilence;
    std::error_code ec;
    fs::create_directories(deps_.library.paths().audio(), ec);
    options.chunkDirectory = deps_.library.paths().audio();
    options.chunkPrefix = recordingID.text() + "-chunk-";

    CaptureRecorder::Callbacks callbacks;
    callbacks.onLevel = [this](double level) {
        if (state_.activeChannels.size() == 1) channelLevels_[state_.activeChannels.front()] = level;
        updateInputLevel(level);
    };
    callbacks.onChunk = [this](const fs::path& chunk) { storeLiveAudioChunk(chunk); };
    if (separate) {
        callbacks.onSystemPCM = [this](const PCMBytes& pcm) { consumeRealtimePCM(pcm, CaptureChannel::system); };
        callbacks.onMicrophonePCM = [this](const PCMBytes& pcm) { consumeRealtimePCM(pcm, CaptureChannel::microphone); };
    } else {
        const CaptureChannel channel = state_.activeChannels.front();
        callbacks.onRealtimePCM = [this, channel](const PCMBytes& pcm) { consumeRealtimePCM(pcm, channel); };
    }
    callbacks.onEvent = [this](const std::string& title, const std::string& details, const std::string& code) {
        const bool lost = code.find("lost") != std::string::npos || code.find("failed") != std::string::npos;
        addDebug(lost ? Level::warning : Level::info, Category::audio, title, details, code);
    };
    auto report = recorder_.start(options, std::move(callbacks));
    if (!report) return report.error();
    if (options.mode == CaptureRecorder::Mode::mixed) {
        if (report->systemStarted && report->microphoneStarted) {
            addDebug(Level::success, Category::audio, "混合采集已启动", "系统声音 + 麦克风 已混音");
        } else if (report->microphoneStarted) {
            addDebug(Level::warning, Category::audio, "混合采集仅麦克风可用",
                     "系统声音不可用：" + report->systemFailure.value_or("未知") + "，已降级为仅麦克风。",
                     "mixed_system_unavailable");
        } else {
            addDebug(Level::warning, Category::audio, "混合采集仅系统声音可用",
                     "麦克风不可用：" + report->microphoneFailure.value_or("未知") + "，已降级为仅系统声音。",
                     "mixed_microphone_unavailable");
        }
        if (auto degraded = CaptureRecorder::degradedCapture(*report)) {
            state_.degradedCapture = *degraded;
            // The lost side's channel has nobody to hear.
            if (separate) {
                const CaptureChannel lost = report->systemStarted ? CaptureChannel::microphone : CaptureChannel::system;
                std::erase(state_.activeChannels, lost);
            }
        }
    }
    changed();
    return {};
}

void LiveController::startRealtimeTranslationClient(const Uuid& recordingID,
                                                    std::function<void(Expected<void>)> done) {
    if (state_.activeChannels.size() == 2)
        addDebug(Level::info, Category::openAI, "分路识别已启用", "电脑声音与现场麦克风各自识别");
    addDebug(Level::info, Category::openAI, "两路都先接上，音频按需送",
             "握手期间已经在录，说过的话会补送；某一路没人说话就不往里送音频，也就不产生实时用量");
    struct Gather {
        std::size_t remaining;
        std::optional<Error> firstError;
        std::function<void(Expected<void>)> done;
    };
    auto gather = std::make_shared<Gather>(Gather{state_.activeChannels.size(), std::nullopt, std::move(done)});
    for (CaptureChannel channel : state_.activeChannels) {
        connections_.connect(channel, recordingID, [gather](Expected<void> result) {
            if (!result && !gather->firstError) gather->firstError = result.error();
            if (--gather->remaining > 0) return;
            if (gather->firstError) gather->done(*gather->firstError);
            else gather->done({});
        });
    }
}

void LiveController::liveStartSucceeded(const Uuid& recordingID) {
    state_.isStartingSession = false;
    state_.isLiveInterpreting = true;
    state_.isLivePaused = false;
    state_.statusText = "实时同传中";
    runStartedAt_ = deps_.scheduler.now();
    if (!ticker_.isPending()) ticker_ = deps_.scheduler.after(1.0, [this] { tick(); });
    supervisor_.startLivenessWatchdog();
    addDebug(Level::success, Category::app, "同声传译已启动", "engine: realtimeTranslation");
    deps_.library.updateRecording(recordingID, false, [](RecordingEntry& e) { e.status = RecordingStatus::recording; });
    changed();
    if (stopRequestedWhileStarting_) {
        stopRequestedWhileStarting_ = false;
        stopLiveInterpretation();
    }
}

void LiveController::handleLiveStartFailure(const Error& error) {
    // No chunked engine yet: a failed realtime start ends the recording as failed, keeping
    // whatever audio was captured during the attempt.
    connections_.closeGracefully(connections_.takeRealtimeClients());
    const std::string text = explainCaptureFailure(error);
    const Uuid id = *state_.activeRecordingID;
    state_.isStartingSession = false;
    state_.isLiveInterpreting = false;
    state_.lastError = text;
    state_.statusText = "同声传译启动失败";
    state_.stoppingRecordingID = id;
    addDebug(Level::error, Category::app, "同声传译启动失败", text + (error.code.empty() ? "" : "\ncode: " + error.code),
             "live_start_failed");
    stopRequestedWhileStarting_ = false;
    changed();
    const auto alive = lifetime_.guard();
    recorderStoppedAt_ = deps_.scheduler.now();
    recorder_.stop([this, alive, id, text](std::optional<fs::path> last) {
        if (alive.expired()) return;
        if (last) storeLiveAudioChunk(*last);
        deps_.library.updateRecording(id, false, [&](RecordingEntry& e) {
            e.status = RecordingStatus::failed;
            e.errorMessage = text;
            e.updatedAt = deps_.scheduler.now();
        });
        saveLiveAudioBeforeFinishing(id, [this, alive, id] {
            if (alive.expired()) return;
            state_.stoppingRecordingID.reset();
            finishLiveRecordingIfIdle(id);
            state_.statusText = "同声传译启动失败";
            changed();
        });
    });
}

void LiveController::returnToPause(const Error& error) {
    connections_.closeGracefully(connections_.takeRealtimeClients());
    state_.isStartingSession = false;
    state_.isLiveInterpreting = true;
    state_.isLivePaused = true;
    state_.inputLevel = 0;
    state_.statusText = "已暂停";
    state_.lastError = explainCaptureFailure(error) + "。仍处于暂停，可以再试或停止。";
    addDebug(Level::error, Category::app, "继续同声传译失败", error.message, "live_resume_failed");
    if (recorder_.isRunning()) {
        recorderStoppedAt_ = deps_.scheduler.now();
        recorder_.stop([this, alive = lifetime_.guard()](std::optional<fs::path> last) {
            if (!alive.expired() && last) storeLiveAudioChunk(*last);
        });
    }
    changed();
    if (stopRequestedWhileStarting_) {
        stopRequestedWhileStarting_ = false;
        stopLiveInterpretation();
    }
}

// ---- pause, resume, stop ----

void LiveController::pauseLiveInterpretation() {
    if (!state_.isLiveInterpreting || state_.isLivePaused || state_.isStartingSession || state_.stoppingRecordingID)
        return;
    const Uuid id = *state_.activeRecordingID;
    state_.isLivePaused = true;
    state_.inputLevel = 0;
    channelLevels_.clear();
    ingestion_.reportUnheardDeltas();
    if (runStartedAt_) onAirSecondsBefore_ += deps_.scheduler.now() - *runStartedAt_;
    runStartedAt_.reset();
    state_.statusText = "已暂停";
    addDebug(Level::info, Category::app, "暂停同声传译", "");
    isPauseTailRunning_ = true;
    changed();
    windDown(id, [this] {
        isPauseTailRunning_ = false;
        auto waiting = std::move(afterPauseTail_);
        afterPauseTail_.clear();
        for (auto& next : waiting) next();
    });
}

void LiveController::resumeLiveInterpretation() {
    if (!state_.isLiveInterpreting || !state_.isLivePaused || state_.isStartingSession || state_.stoppingRecordingID)
        return;
    const Uuid id = *state_.activeRecordingID;
    state_.isLivePaused = false;
    state_.lastError.clear();
    addDebug(Level::info, Category::app, "继续同声传译", "");
    state_.isStartingSession = true;
    state_.isLiveInterpreting = false;
    state_.statusText = "正在连接实时同传…";
    changed();
    runLiveStartup(id, true);
}

void LiveController::stopLiveInterpretation() {
    if (state_.isStartingSession && !state_.isLiveInterpreting) {
        // Stop waits for the start under way; it ends the session once it is up (or failed).
        stopRequestedWhileStarting_ = state_.activeRecordingID.has_value();
        return;
    }
    if (!state_.isLiveInterpreting || state_.stoppingRecordingID || !state_.activeRecordingID) return;
    const Uuid id = *state_.activeRecordingID;
    const bool wasPaused = state_.isLivePaused || isPauseTailRunning_;
    state_.stoppingRecordingID = id;
    state_.liveNotice.clear();
    state_.degradedCapture.clear();
    state_.inputLevel = 0;
    channelLevels_.clear();
    if (!state_.isLivePaused) ingestion_.reportUnheardDeltas();
    if (runStartedAt_) onAirSecondsBefore_ += deps_.scheduler.now() - *runStartedAt_;
    runStartedAt_.reset();
    state_.statusText = "同声传译已停止";
    addDebug(Level::info, Category::app, "停止同声传译",
             "pendingTasks: " + std::to_string(dispatch_.hasTrackedWork(id) ? 1 : 0));
    state_.isLiveInterpreting = false;
    state_.isLivePaused = false;
    changed();
    const auto alive = lifetime_.guard();
    afterPauseTail([this, alive, id, wasPaused] {
        if (alive.expired()) return;
        auto finishing = [this, alive, id] {
            if (alive.expired()) return;
            saveLiveAudioBeforeFinishing(id, [this, alive, id] {
                if (alive.expired()) return;
                state_.stoppingRecordingID.reset();
                finishLiveRecordingIfIdle(id);
            });
        };
        if (wasPaused) finishing();  // the pause's tail already stopped, drained and closed
        else windDown(id, finishing);
    });
}

void LiveController::windDown(const Uuid& recordingID, std::function<void()> done) {
    connections_.cancelReconnects();
    supervisor_.stopLivenessWatchdog();
    recorderStoppedAt_ = deps_.scheduler.now();
    const auto alive = lifetime_.guard();
    recorder_.stop([this, alive, recordingID, done = std::move(done)](std::optional<fs::path> last) mutable {
        if (alive.expired()) return;
        if (last) storeLiveAudioChunk(*last);
        // The services get the time to deliver what is on its way.
        drain(deps_.scheduler.now() + kDrainLimitSeconds, [this, alive, recordingID, done = std::move(done)] {
            if (alive.expired()) return;
            connections_.closeGracefully(connections_.takeRealtimeClients());
            for (CaptureChannel channel : state_.activeChannels)
                ingestion_.finalizeRealtimeSegment(recordingID, channel, BoundaryReason::sessionEnd);
            ingestion_.flushPendingReverseTranslation(recordingID);
            refreshRecordingSegments(false);
            changed();
            done();
        });
    });
}

void LiveController::drain(Date deadline, std::function<void()> done) {
    const Date now = deps_.scheduler.now();
    const auto last = ingestion_.lastDeltaAt();
    if (now >= deadline || !last || now - *last >= kDrainQuietSeconds) {
        done();
        return;
    }
    drainTimer_ = deps_.scheduler.after(kDrainPollSeconds, [this, deadline, done = std::move(done)]() mutable {
        drain(deadline, std::move(done));
    });
}

// ---- the recording ----

void LiveController::storeLiveAudioChunk(const fs::path& chunk) {
    activeLiveChunkURLs_.push_back(chunk);
}

void LiveController::saveLiveAudioBeforeFinishing(const Uuid& recordingID, std::function<void()> done) {
    std::vector<fs::path> chunks = activeLiveChunkURLs_;
    if (chunks.empty()) {
        done();
        return;
    }
    const fs::path output = deps_.library.paths().audio() / (recordingID.text() + ".m4a");
    AudioMerger* merger = &deps_.merger;
    const auto alive = lifetime_.guard();
    deps_.scheduler.background(
        [merger, chunks, output] {
            try {
                return merger->merge(chunks, output);
            } catch (const std::exception& e) {
                return Expected<MergedAudio>(Error{"recording_failed", e.what()});
            }
        },
        [this, alive, recordingID, chunks, output, done = std::move(done)](Expected<MergedAudio> merged) {
            if (alive.expired()) return;
            if (merged) {
                deps_.library.updateRecording(recordingID, false, [&](RecordingEntry& e) {
                    e.relativeAudioPath = "Recordings/" + output.filename().string();
                    e.byteSize = merged->byteSize;
                    e.duration = merged->duration;
                    if (e.errorMessage && e.errorMessage->starts_with("同传音频尚未合并")) e.errorMessage.reset();
                });
                // The chunks go only once the index points to what replaces them.
                if (deps_.library.persistRecordingsNow()) {
                    std::error_code ec;
                    for (const auto& chunk : chunks) fs::remove(chunk, ec);
                    activeLiveChunkURLs_.clear();
                }
                addDebug(Level::success, Category::audio, "同传音频已合并", "file: " + output.filename().string());
            } else {
                deps_.library.updateRecording(recordingID, false, [&](RecordingEntry& e) {
                    e.errorMessage = "同传音频尚未合并，分段已保留，下次启动会重试：" + merged.error().message;
                });
                deps_.library.persistRecordingsNow();
                addDebug(Level::error, Category::audio, "同传音频合并失败，分段已保留", merged.error().message,
                         "live_audio_merge_failed");
            }
            done();
        });
}

void LiveController::refreshRecordingSegments(bool persist) {
    if (!state_.activeRecordingID) return;
    const TranscriptSnapshot& snapshot = liveTranscript_.snapshot();
    auto segments = snapshot.transcriptSegments(snapshot.usesMultipleChannels());
    deps_.library.updateRecording(*state_.activeRecordingID, persist, [&](RecordingEntry& e) {
        e.segments = std::move(segments);
        e.segmentCount = std::int64_t(e.segments.size());
        e.refreshDerivedText();
    });
    if (!persist) deps_.library.scheduleSaveRecordings();
}

void LiveController::finishLiveRecordingIfIdle(const Uuid& recordingID) {
    if (state_.activeRecordingID != recordingID || state_.stoppingRecordingID || state_.isLiveInterpreting ||
        state_.isStartingSession)
        return;
    if (dispatch_.hasTrackedWork(recordingID)) {
        changed();
        return;
    }
    const Date now = deps_.scheduler.now();
    const TranscriptEventLog log = liveTranscript_.log();
    const TranscriptSnapshot& snapshot = liveTranscript_.snapshot();
    auto segments = snapshot.transcriptSegments(snapshot.usesMultipleChannels());
    const double wallClock = onAirSecondsBefore_;
    deps_.library.updateRecording(recordingID, false, [&](RecordingEntry& e) {
        if (e.status != RecordingStatus::failed)
            e.status = segments.empty() ? RecordingStatus::ready : RecordingStatus::complete;
        e.segments = std::move(segments);
        e.segmentCount = std::int64_t(e.segments.size());
        e.refreshDerivedText();
        e.eventLog = log.compacted();
        if (e.duration <= 0) e.duration = state_.activeRecordingStartedAt ? now - *state_.activeRecordingStartedAt : wallClock;
        e.usage = liveUsage_;
        e.peakLevel = levelPeak_;
        e.averageLevel = levelAverage_;
        e.levelSampleCount = levelSampleCount_;
        // Nothing ever reached the speech threshold of the meter.
        e.isLikelySilent = levelSampleCount_ > 0 && levelPeak_ <= CaptureHandoff::kAudibleLevel;
        e.updatedAt = now;
    });
    deps_.library.fileSessionLog(recordingID, log, &log);
    state_.activeRecordingID.reset();
    state_.activeRecordingStartedAt.reset();
    deps_.library.setActiveRecordingID(std::nullopt);
    resetRealtimeState();
    // The journal goes only once the index holds the session.
    if (deps_.library.persistRecordingsNow()) {
        if (journal_) journal_->discard();
    } else if (journal_) {
        journal_->close();
    }
    journal_.reset();
    if (state_.statusText != "同声传译启动失败") state_.statusText = "同声传译已保存到历史";
    dispatch_.sweepOutstandingTranslations(recordingID);
    changed();
}

void LiveController::resetRealtimeState() {
    ingestion_.reset();
    const bool hadSourceStreamOutage = supervisor_.hadSourceStreamOutage;
    supervisor_.reset();
    supervisor_.hadSourceStreamOutage = hadSourceStreamOutage;  // the finished session keeps its notes
    connections_.cancelReconnects();
    dispatch_.cancelGrace();
    drainTimer_.cancel();
    segmentsRefresh_.cancel();
    state_.activeChannels = {CaptureChannel::system};
    channelLevels_.clear();
    handoff_.reset({});
    lastAudibleAt_.reset();
}

void LiveController::retryFailedTranslations() {
    if (state_.activeRecordingID && holdsLiveTranscript(*state_.activeRecordingID)) {
        dispatch_.retryFailedTranslations(*state_.activeRecordingID, true);
    } else if (auto selected = deps_.library.selectedRecordingID()) {
        dispatch_.retryFailedTranslations(*selected, false);
    }
}

void LiveController::projectTranscript() { transcriptChanged(); }

void LiveController::transcriptChanged() {
    if (journal_) journal_->record(liveTranscript_.log());
    captionsDirty_ = true;
    // The stored entry follows the captions at a calmer pace; the journal holds every event.
    if (!segmentsRefresh_.isPending() && state_.activeRecordingID)
        segmentsRefresh_ = deps_.scheduler.after(kSegmentsRefreshSeconds, [this] { refreshRecordingSegments(false); });
    changed();
}

// ---- events and audio ----

void LiveController::handleRealtimeEvent(const RealtimeTranslationEvent& event, CaptureChannel channel,
                                         const Uuid& recordingID) {
    if (state_.activeRecordingID != recordingID) return;  // a late event of an earlier session
    switch (event.kind) {
        case Kind::outputTranscriptDelta:
            supervisor_.noteTranslation(channel);
            ingestion_.ingestRealtimeDelta(event.text, TranscriptSegmenter::DeltaKind::streamedTranslation, channel,
                                           recordingID);
            supervisor_.applySourceStreamHealth(channel);
            break;
        case Kind::inputTranscriptDelta:
            supervisor_.noteSource(channel);
            ingestion_.ingestRealtimeDelta(event.text, TranscriptSegmenter::DeltaKind::source, channel, recordingID);
            break;
        case Kind::sourceStreamFailed:
            supervisor_.noteSourceFailure(channel);
            addDebug(Level::warning, Category::transcription, "原文转写这一路报错",
                     "channel: " + std::string(rawValue(channel)) + "\n" + event.text + "\n译文不受影响，会话继续。",
                     "source_stream_failed");
            supervisor_.applySourceStreamHealth(channel);
            break;
        case Kind::connected: {
            const TranslatorSettings settings = connectionSettings(channel);
            supervisor_.connected(channel, RealtimeStreamHealth::baseDelay(
                                               false, settings.models.resolved(ModelJob::realtimeTranscribe, settings.activeMode),
                                               settings.models.resolved(ModelJob::realtimeTranscribe, settings.activeMode)));
            if (!state_.stoppingRecordingID) state_.statusText = "实时同传已连接";
            changed();
            break;
        }
        case Kind::failed:
            addDebug(Level::error, Category::openAI, "Realtime 同传失败",
                     "channel: " + std::string(rawValue(channel)) + "\n" + event.text,
                     event.code.value_or("realtime_failed"));
            ingestion_.finalizeRealtimeSegment(recordingID, channel, BoundaryReason::sessionEnd);
            connections_.scheduleRealtimeReconnect(channel, recordingID, event.text);
            changed();
            break;
        case Kind::closed:
            ingestion_.finalizeRealtimeSegment(recordingID, channel, BoundaryReason::sessionEnd);
            connections_.scheduleRealtimeReconnect(channel, recordingID, "连接已关闭");
            changed();
            break;
    }
}

void LiveController::consumeRealtimePCM(PCMBytes bytes, CaptureChannel channel) {
    if (!state_.activeRecordingID || bytes.empty()) return;
    if (std::find(state_.activeChannels.begin(), state_.activeChannels.end(), channel) == state_.activeChannels.end())
        return;
    const Date now = deps_.scheduler.now();
    const double level = std::min(1.0, pcm16Level(bytes));
    if (state_.activeChannels.size() > 1) {
        channelLevels_[channel] = level;
        double loudest = 0;
        for (const auto& [c, l] : channelLevels_) loudest = std::max(loudest, l);
        updateInputLevel(loudest);
    }
    const bool connected = connections_.isConnected(channel) && !connections_.isReconnecting(channel);
    auto outcome = handoff_.consume(channel, std::move(bytes), now, connected);
    if (outcome.woke) {
        noteChannelWoken(channel);
        changed();
    }
    if (outcome.send) connections_.send(channel, *outcome.send);
    metersChanged();
}

void LiveController::updateInputLevel(double level) {
    level = std::clamp(level, 0.0, 1.0);
    if (state_.isLivePaused) level = 0;
    if (level != state_.inputLevel) {
        state_.inputLevel = level;
        metersChanged();
    }
    if (state_.isLiveInterpreting && !state_.isLivePaused) {
        ++levelSampleCount_;
        levelPeak_ = std::max(levelPeak_, level);
        levelAverage_ += (level - levelAverage_) / double(levelSampleCount_);
    }
    if ((state_.isLiveInterpreting || state_.isStartingSession) && !state_.isLivePaused &&
        level > CaptureHandoff::kAudibleLevel) {
        lastAudibleAt_ = deps_.scheduler.now();
        if (!ingestion_.realtimeSpeechAnchorAt) ingestion_.realtimeSpeechAnchorAt = deps_.scheduler.now();
    }
}

void LiveController::noteChannelWoken(CaptureChannel channel) {
    addDebug(Level::info, Category::audio, "这一路开始说话，音频开始送", "channel: " + std::string(rawValue(channel)),
             "channel_woken");
}

}  // namespace osv

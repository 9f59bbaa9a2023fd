#include <gtest/gtest.h>

#include <filesystem>

#include "audio/ScriptedFrameSources.h"
#include "core/Base64.h"
#include "core/Json.h"
#include "core/ManualScheduler.h"
#include "live/LiveController.h"
#include "recordings/RecordingLibrary.h"
#include "services/FakeWebSocketTransport.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using testing::FakeWebSocketTransport;
using testing::MemoryChunkWriter;
using testing::ScriptedFrameSources;

struct FakeMerger final : AudioMerger {
    Expected<MergedAudio> merge(const std::vector<fs::path>& chunks, const fs::path& output) override {
        calls.push_back(chunks);
        outputs.push_back(output);
        if (fail) return Error{"recording_failed", "磁盘满了"};
        return MergedAudio{double(chunks.size()), 1234};
    }
    std::vector<std::vector<fs::path>> calls;
    std::vector<fs::path> outputs;
    bool fail = false;
};

// Counts what the dispatcher is asked, and can hold a session open like a running lane.
struct RecordingDispatch final : TranslationDispatch {
    void submitClaimed(const Uuid&) override { ++submits; }
    void dispatchPendingTranslations(const Uuid&) override { ++sweeps; }
    void armGraceTimer(const Uuid&) override { ++graces; }
    void cancelGrace() override {}
    void sweepOutstandingTranslations(const Uuid& id) override { swept.push_back(id); }
    void retryFailedTranslations(const Uuid&, bool) override {}
    bool hasTrackedWork(const Uuid&) const override { return busy; }
    int submits = 0, sweeps = 0, graces = 0;
    std::vector<Uuid> swept;
    bool busy = false;
};

class LiveControllerTest : public ::testing::Test {
protected:
    void SetUp() override { open(); }
    // Opens the library and the controller (again, after a test changed the rotation policy).
    void open() {
        controller.reset();
        library.reset();
        fs::create_directories(dir);
        RecordingLibrary::Options options;
        options.supportDirectory = dir;
        options.timeZone = "UTC";
        library = std::make_unique<RecordingLibrary>(scheduler, options);
        library->loadRecordings();
        settings.apiKey = "sk-test";
        settings.captureMode = AudioCaptureMode::systemAudio;
        settings.separateChannels = false;
        settings.repairSource = false;
        controller = std::make_unique<LiveController>(LiveController::Dependencies{
            scheduler, *library, [this] { return settings; }, sources, writer, merger,
            [this] {
                return std::make_unique<OpenAIRealtimeTranslationClient>(transport, scheduler, "http://127.0.0.1:9/v1");
            },
            &dispatch, rotation});
        controller->onDebug = [this](const DebugEvent& e) { codes.push_back(e.code.value_or(e.title)); };
    }
    void TearDown() override {
        controller.reset();
        library.reset();
        fs::remove_all(dir);
    }

    const LiveState& state() const { return controller->state(); }
    std::size_t connectionCount() const { return transport.connections.size(); }
    testing::FakeWebSocketConnection& connection(std::size_t i) { return *transport.connections.at(i); }

    // Start pressed, every socket accepted: on air.
    void startOnAir() {
        controller->startLiveInterpretation();
        scheduler.runUntilIdle();
        for (auto& c : transport.connections)
            if (!c->open && !c->destroyed) c->accept();
        scheduler.runUntilIdle();
        ASSERT_TRUE(state().isLiveInterpreting);
    }
    void source(std::size_t connectionIndex, const std::string& text) {
        connection(connectionIndex)
            .text(R"({"type":"session.input_transcript.delta","delta":")" + text + R"("})");
        scheduler.runUntilIdle();
    }
    void translation(std::size_t connectionIndex, const std::string& text) {
        connection(connectionIndex)
            .text(R"({"type":"session.output_transcript.delta","delta":")" + text + R"("})");
        scheduler.runUntilIdle();
    }
    // Audible speech on a side, as the recorder delivers it.
    void speak(CaptureSide side, double seconds = 0.2, float value = 0.3f) {
        sources[side].play(seconds, value);
        scheduler.runUntilIdle();
    }
    std::size_t appendsSent(std::size_t connectionIndex) {
        std::size_t n = 0;
        for (const auto& s : connection(connectionIndex).sent)
            if (s.find("input_audio_buffer.append") != std::string::npos) ++n;
        return n;
    }
    std::size_t count(const std::string& code) const { return std::size_t(std::count(codes.begin(), codes.end(), code)); }
    void stopAndSettle() {
        controller->stopLiveInterpretation();
        scheduler.advance(5.0);
        scheduler.runUntilIdle();
    }

    fs::path dir = fs::temp_directory_path() / ("osv-live-" + Uuid::random().text());
    FakeWebSocketTransport transport;  // outlives the scheduler's queue, which may hold sockets
    ManualScheduler scheduler{Date(1000.0)};
    ScriptedFrameSources sources;
    MemoryChunkWriter writer{scheduler};
    FakeMerger merger;
    RecordingDispatch dispatch;
    TranslatorSettings settings;
    std::optional<RealtimeConnections::RotationPolicy> rotation = RealtimeConnections::RotationPolicy{};
    std::unique_ptr<RecordingLibrary> library;
    std::unique_ptr<LiveController> controller;
    std::vector<std::string> codes;
};

TEST_F(LiveControllerTest, WithoutAKeyNothingIsRecordedAndTheBannerSaysWhy) {
    settings.apiKey = "  \n";
    controller->startLiveInterpretation();
    scheduler.runUntilIdle();
    EXPECT_FALSE(state().isStartingSession);
    EXPECT_TRUE(library->recordings().empty());
    EXPECT_EQ(state().lastError, "缺少 OpenAI API Key。请在设置里粘贴，或用 OPENAI_API_KEY 启动应用。");
    EXPECT_EQ(connectionCount(), 0u);
}

TEST_F(LiveControllerTest, StartPersistsTheEntryFirstHoldsHandshakeAudioAndIgnoresASecondPress) {
    controller->startLiveInterpretation();
    // Persisted before any network step.
    ASSERT_EQ(library->recordings().size(), 1u);
    EXPECT_TRUE(fs::exists(dir / "recordings.json"));
    EXPECT_TRUE(state().isStartingSession);
    controller->startLiveInterpretation();
    scheduler.runUntilIdle();
    EXPECT_EQ(library->recordings().size(), 1u);
    ASSERT_EQ(connectionCount(), 1u);

    // Speech during the handshake is held, then sent as one message once connected.
    speak(CaptureSide::system, 0.5);
    EXPECT_EQ(appendsSent(0), 0u);
    connection(0).accept();
    scheduler.runUntilIdle();
    EXPECT_TRUE(state().isLiveInterpreting);
    EXPECT_FALSE(state().isStartingSession);
    EXPECT_EQ(state().statusText, "实时同传中");
    EXPECT_EQ(appendsSent(0), 1u);
    EXPECT_EQ(count("handshake_audio_flushed"), 1u);
    speak(CaptureSide::system, 0.1);
    EXPECT_EQ(appendsSent(0), 2u);
}

TEST_F(LiveControllerTest, DeltasBecomeCaptionsAndEachDeltaPushesTheBoundaryBack) {
    startOnAir();
    speak(CaptureSide::system);
    source(0, "今日は");
    EXPECT_EQ(dispatch.submits, 1);
    ASSERT_EQ(state().captions.size(), 1u);
    EXPECT_EQ(state().captions[0].source, "今日は");
    EXPECT_TRUE(state().captions[0].isProvisional);

    scheduler.advance(2.0);
    source(0, "いい天気");  // within the idle delay: the first timer is replaced
    scheduler.advance(2.0);
    EXPECT_EQ(count("同传片段完成"), 0u);
    scheduler.advance(0.7);  // 2.6 s after the last delta
    EXPECT_EQ(count("同传片段完成"), 1u);
    EXPECT_EQ(dispatch.graces, 1);

    // A finalisation with nothing open adds nothing and reports nothing.
    const auto events = controller->liveTranscript().log().size();
    controller->handleRealtimeEvent(RealtimeTranslationEvent::closed(), CaptureChannel::system,
                                    *state().activeRecordingID);
    EXPECT_EQ(controller->liveTranscript().log().size(), events);
    EXPECT_EQ(count("同传片段完成"), 1u);
}

TEST_F(LiveControllerTest, TheSpeechGateDropsTextFromSilenceButTheConnectionCountsAsAlive) {
    startOnAir();
    speak(CaptureSide::system);  // speech heard at t0
    scheduler.advance(14.0);
    source(0, "はい");  // 14.0 s after speech: kept
    EXPECT_EQ(controller->ingestion().unheardDeltas(CaptureChannel::system), 0);
    scheduler.advance(0.1);
    // The connection failed meanwhile and was reconnected; a discarded delta still proves it lives.
    connection(0).text(R"({"type":"session.output_transcript.delta","delta":"好的"})");
    scheduler.runUntilIdle();
    EXPECT_EQ(controller->ingestion().unheardDeltas(CaptureChannel::system), 1);
    EXPECT_EQ(count("unheard_delta_dropped"), 1u);
    translation(0, "再来");
    EXPECT_EQ(count("unheard_delta_dropped"), 1u);  // later drops are only counted
    EXPECT_EQ(controller->ingestion().unheardDeltas(CaptureChannel::system), 2);
    EXPECT_EQ(controller->connections().reconnectAttempts(CaptureChannel::system), 0);
}

TEST_F(LiveControllerTest, AnEventOfAnEarlierRecordingIsDropped) {
    startOnAir();
    const auto events = controller->liveTranscript().log().size();
    controller->handleRealtimeEvent(RealtimeTranslationEvent::inputTranscriptDelta("迟到的话"), CaptureChannel::system,
                                    Uuid::random());
    EXPECT_EQ(controller->liveTranscript().log().size(), events);
}

TEST_F(LiveControllerTest, AFailedConnectionReconnectsWithBackoffAndHoldsAudioMeanwhile) {
    startOnAir();
    connection(0).end(WebSocketEnd::Reason::failed, "reset by peer");
    scheduler.runUntilIdle();
    EXPECT_EQ(state().liveNotice, "连接中断，正在重连（第 1 次）…");
    EXPECT_EQ(count("realtime_reconnect_scheduled"), 1u);
    speak(CaptureSide::system, 0.3);  // during the outage: held, not sent to the dead socket
    scheduler.advance(1.0);
    ASSERT_EQ(connectionCount(), 2u);
    connection(1).end(WebSocketEnd::Reason::failed, "refused", false);
    scheduler.runUntilIdle();
    scheduler.advance(2.0);
    ASSERT_EQ(connectionCount(), 3u);
    connection(2).end(WebSocketEnd::Reason::failed, "refused", false);
    scheduler.runUntilIdle();
    scheduler.advance(4.0);
    connection(3).end(WebSocketEnd::Reason::failed, "refused", false);
    scheduler.runUntilIdle();
    EXPECT_EQ(state().liveNotice, "字幕已中断，仍在重连（第 4 次）。录音在继续，结束后可以对这段录音重新转写。");
    scheduler.advance(7.9);
    EXPECT_EQ(connectionCount(), 4u);  // the fourth wait is 8 s
    scheduler.advance(0.1);
    ASSERT_EQ(connectionCount(), 5u);
    connection(4).accept();
    scheduler.runUntilIdle();
    EXPECT_EQ(state().liveNotice, "");
    EXPECT_EQ(count("realtime_reconnected"), 1u);
    EXPECT_EQ(appendsSent(4), 1u);  // what was said during the outage
    EXPECT_TRUE(state().isLiveInterpreting);
}

TEST_F(LiveControllerTest, AnOutageHoldsTheLastTwentySecondsAndTheFlushSaysWhatWasDropped) {
    startOnAir();
    std::vector<DebugEvent> flushes;
    controller->onDebug = [&](const DebugEvent& e) {
        codes.push_back(e.code.value_or(e.title));
        if (e.code == "outage_audio_flushed") flushes.push_back(e);
    };
    connection(0).end(WebSocketEnd::Reason::failed, "reset by peer");
    scheduler.runUntilIdle();
    // 25 seconds said while the service is unreachable; the reconnects keep failing.
    for (int i = 0; i < 25; ++i) {
        speak(CaptureSide::system, 1.0);
        scheduler.advance(1.0);
        auto& last = *transport.connections.back();
        if (!last.open && !last.destroyed && !last.closeCode && &last != &connection(0))
            last.end(WebSocketEnd::Reason::failed, "refused", false);
        scheduler.runUntilIdle();
    }
    scheduler.advance(15.0);
    auto& fresh = *transport.connections.back();
    fresh.accept();
    scheduler.runUntilIdle();
    ASSERT_EQ(flushes.size(), 1u);
    EXPECT_NE(flushes[0].details.find("heldS: 20.0"), std::string::npos) << flushes[0].details;
    EXPECT_NE(flushes[0].details.find("droppedS: 5.0"), std::string::npos) << flushes[0].details;
    // One message of twenty seconds of audio.
    std::size_t appends = 0;
    for (const auto& sent : fresh.sent)
        if (sent.find("input_audio_buffer.append") != std::string::npos) ++appends;
    EXPECT_EQ(appends, 1u);
    // Text of the held speech arrives late: it is not taken for text made up from silence.
    scheduler.advance(10.0);
    fresh.text(R"({"type":"session.input_transcript.delta","delta":"遅れて届いた言葉"})");
    scheduler.runUntilIdle();
    EXPECT_EQ(controller->ingestion().unheardDeltas(CaptureChannel::system), 0);
    EXPECT_EQ(controller->connections().reconnectAttempts(CaptureChannel::system), 0);
}

std::size_t appendBytes(const testing::FakeWebSocketConnection& c) {
    std::size_t total = 0;
    for (const auto& sent : c.sent) {
        const auto j = json::parse(sent);
        if (j && j->value("type", "") == "session.input_audio_buffer.append")
            if (auto bytes = base64Decode(j->value("audio", ""))) total += bytes->size();
    }
    return total;
}

class RotationTest : public LiveControllerTest {
protected:
    void SetUp() override {
        rotation = RealtimeConnections::RotationPolicy{};
        rotation->overrideAgeSeconds = 20.0;
        open();
    }
    // `seconds` of audio in 0.1 s pieces; the service answers about once a second on the
    // connection in service, as a live one does while people talk.
    void talk(double seconds, float level = 0.3f) {
        for (double t = 0; t < seconds - 1e-9; t += 0.1) {
            sources[CaptureSide::system].play(0.1, level);
            played += 4'800;
            scheduler.advance(0.1);
            if (++pieces % 10 == 0)
                for (auto it = transport.connections.rbegin(); it != transport.connections.rend(); ++it)
                    if ((*it)->open && !(*it)->closeCode && !(*it)->destroyed) {
                        (*it)->text(R"({"type":"session.output_transcript.delta","delta":"嗯"})");
                        break;
                    }
            scheduler.runUntilIdle();
        }
    }
    std::size_t sentEverywhere() {
        std::size_t total = 0;
        for (std::size_t i = 0; i < connectionCount(); ++i) total += appendBytes(connection(i));
        return total;
    }
    std::size_t played = 0;
    int pieces = 0;
};

TEST_F(RotationTest, AQuietMomentAfterTheAgeOpensTheNewConnectionFirstAndTheOldOneDrains) {
    startOnAir();
    talk(25.0);  // due at 20 s, but someone is speaking
    ASSERT_EQ(connectionCount(), 1u);
    talk(1.2, 0.0f);  // a second of quiet
    ASSERT_EQ(connectionCount(), 2u);
    EXPECT_EQ(count("realtime_rotation_started"), 1u);
    const std::size_t oldBytes = appendBytes(connection(0));
    talk(0.5);  // during the new handshake: held, sent to neither
    EXPECT_EQ(appendBytes(connection(0)), oldBytes);
    EXPECT_EQ(appendBytes(connection(1)), 0u);
    connection(1).accept();
    scheduler.runUntilIdle();
    EXPECT_EQ(count("realtime_rotation_succeeded"), 1u);
    // Every byte captured went to exactly one connection.
    EXPECT_EQ(sentEverywhere(), played);
    EXPECT_GE(appendBytes(connection(1)), 24'000u);
    // The old one still delivers what was on its way, then closes once quiet.
    source(0, "古い接続の最後の言葉。");
    bool found = false;
    for (const auto& e : controller->liveTranscript().log().events)
        if (auto* d = std::get_if<TranscriptEvent::SourceDelta>(&e.payload); d && d->text == "古い接続の最後の言葉。")
            found = true;
    EXPECT_TRUE(found);
    EXPECT_FALSE(connection(0).closeCode.has_value());
    scheduler.advance(0.8);  // quiet for 0.6 s, seen at the next 0.12 s look
    EXPECT_EQ(connection(0).closeCode, 1001);
    EXPECT_FALSE(connection(1).closeCode.has_value());
    talk(0.5);
    EXPECT_EQ(appendBytes(connection(0)), oldBytes);
    EXPECT_EQ(sentEverywhere(), played);
    EXPECT_EQ(count("realtime_reconnect_scheduled"), 0u);
    EXPECT_TRUE(state().isLiveInterpreting);
}

TEST_F(RotationTest, AConnectionARotationOpenedDrainsLikeTheFirstWhenItIsRotatedInTurn) {
    startOnAir();
    talk(21.0, 0.0f);
    ASSERT_EQ(connectionCount(), 2u);
    connection(1).accept();
    scheduler.runUntilIdle();
    talk(21.0, 0.0f);
    ASSERT_EQ(connectionCount(), 3u);
    connection(2).accept();
    scheduler.runUntilIdle();
    EXPECT_EQ(count("realtime_rotation_succeeded"), 2u);
    talk(0.2);  // someone speaks: the text that follows is believed
    source(1, "二本目の最後の言葉。");
    bool found = false;
    for (const auto& e : controller->liveTranscript().log().events)
        if (auto* d = std::get_if<TranscriptEvent::SourceDelta>(&e.payload); d && d->text == "二本目の最後の言葉。")
            found = true;
    EXPECT_TRUE(found);
    EXPECT_EQ(sentEverywhere(), played);
}

TEST_F(RotationTest, WithoutAQuietMomentTheRotationIsForcedThreeMinutesLate) {
    startOnAir();
    talk(20.0 + 179.5);
    EXPECT_EQ(connectionCount(), 1u);
    talk(1.0);
    EXPECT_EQ(connectionCount(), 2u);
    EXPECT_EQ(count("realtime_reconnect_scheduled"), 0u);
}

TEST_F(RotationTest, AFailedNewConnectionLeavesTheOldInServiceAndTriesAgainLater) {
    startOnAir();
    talk(21.0, 0.0f);
    ASSERT_EQ(connectionCount(), 2u);
    talk(0.3);
    connection(1).end(WebSocketEnd::Reason::failed, "refused", false);
    scheduler.runUntilIdle();
    EXPECT_EQ(count("realtime_rotation_failed"), 1u);
    EXPECT_EQ(appendBytes(connection(0)), played);  // what was held went to the old one
    EXPECT_EQ(count("realtime_reconnect_scheduled"), 0u);
    talk(29.0, 0.0f);
    EXPECT_EQ(connectionCount(), 2u);
    talk(1.5, 0.0f);
    EXPECT_EQ(connectionCount(), 3u);
}

TEST_F(LiveControllerTest, StopDrainsClosesOnceMergesAndFilesTheSession) {
    startOnAir();
    speak(CaptureSide::system);
    source(0, "今日はいい天気ですね。");
    translation(0, "今天天气很好。");
    scheduler.advance(1.0);
    speak(CaptureSide::system, 1.0);
    translation(0, "还有");
    controller->stopLiveInterpretation();
    EXPECT_FALSE(state().isLiveInterpreting);
    EXPECT_TRUE(state().stoppingRecordingID.has_value());
    const Uuid id = *state().stoppingRecordingID;
    // The services keep talking: the drain is cut at 2.5 s.
    for (int i = 0; i < 30; ++i) {
        scheduler.advance(0.1);
        if (connection(0).closeCode) break;
        translation(0, "还有");
    }
    EXPECT_NEAR(scheduler.now() - Date(1001.0), 2.5, 0.15);
    scheduler.advance(1.0);
    scheduler.runUntilIdle();

    int closes = 0;
    for (const auto& s : connection(0).sent)
        if (s.find("session.close") != std::string::npos) ++closes;
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(connection(0).closeCode, 1001);
    ASSERT_EQ(merger.calls.size(), 1u);
    EXPECT_EQ(merger.outputs[0], dir / "Recordings" / (id.text() + ".m4a"));

    const RecordingEntry* entry = library->recording(id);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->status, RecordingStatus::complete);
    EXPECT_EQ(entry->relativeAudioPath, "Recordings/" + id.text() + ".m4a");
    EXPECT_GE(entry->segmentCount, 1);
    EXPECT_FALSE(state().activeRecordingID);
    EXPECT_EQ(state().statusText, "同声传译已保存到历史");
    EXPECT_FALSE(fs::exists(dir / "journals" / (id.text() + ".jsonl")));
    EXPECT_TRUE(fs::exists(dir / "transcripts" / (id.text() + ".jsonl")));
    EXPECT_EQ(dispatch.swept, std::vector<Uuid>{id});
    // The captions of the finished session stay until the next start.
    EXPECT_FALSE(state().captions.empty());
}

TEST_F(LiveControllerTest, TheDrainEndsAfterSixTenthsOfQuiet) {
    startOnAir();
    speak(CaptureSide::system);
    source(0, "もしもし");
    controller->stopLiveInterpretation();
    scheduler.runUntilIdle();
    scheduler.advance(0.5);
    EXPECT_FALSE(connection(0).closeCode.has_value());
    scheduler.advance(0.25);
    EXPECT_EQ(connection(0).closeCode, 1001);
}

TEST_F(LiveControllerTest, PauseThenStopClosesOnceAndEndsNormally) {
    startOnAir();
    speak(CaptureSide::system);
    source(0, "少々お待ちください");
    controller->pauseLiveInterpretation();
    EXPECT_TRUE(state().isLivePaused);
    EXPECT_EQ(state().statusText, "已暂停");
    controller->stopLiveInterpretation();  // while the pause's tail still drains
    scheduler.advance(5.0);
    scheduler.runUntilIdle();
    int closes = 0;
    for (const auto& s : connection(0).sent)
        if (s.find("session.close") != std::string::npos) ++closes;
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(connectionCount(), 1u);
    ASSERT_EQ(library->recordings().size(), 1u);
    EXPECT_EQ(library->recordings()[0].status, RecordingStatus::complete);
    EXPECT_FALSE(state().isLiveInterpreting);
    EXPECT_FALSE(state().activeRecordingID);
}

TEST_F(LiveControllerTest, ResumeWithAChangedCaptureModeKeepsTheLog) {
    startOnAir();
    speak(CaptureSide::system);
    source(0, "第一句。");
    controller->pauseLiveInterpretation();
    scheduler.advance(5.0);
    const auto events = controller->liveTranscript().log().size();
    // A closed socket during the pause does not reconnect.
    EXPECT_EQ(count("realtime_reconnect_scheduled"), 0u);

    settings.captureMode = AudioCaptureMode::mixed;
    settings.separateChannels = true;
    controller->resumeLiveInterpretation();
    scheduler.runUntilIdle();
    for (auto& c : transport.connections)
        if (!c->open && !c->destroyed) c->accept();
    scheduler.runUntilIdle();
    EXPECT_TRUE(state().isLiveInterpreting);
    EXPECT_FALSE(state().isLivePaused);
    EXPECT_EQ(state().activeChannels, (std::vector<CaptureChannel>{CaptureChannel::system, CaptureChannel::microphone}));
    EXPECT_GE(controller->liveTranscript().log().size(), events);
    speak(CaptureSide::system);
    source(1, "第二句。");
    EXPECT_GT(controller->liveTranscript().log().size(), events);
    stopAndSettle();
    ASSERT_EQ(library->recordings().size(), 1u);
    EXPECT_EQ(library->recordings()[0].segmentCount, 2);
}

TEST_F(LiveControllerTest, ASilentChannelOfTwoSendsNothing) {
    settings.captureMode = AudioCaptureMode::mixed;
    settings.separateChannels = true;
    startOnAir();
    ASSERT_EQ(connectionCount(), 2u);
    for (int i = 0; i < 10; ++i) {
        sources[CaptureSide::system].play(0.04, 0.3f);
        sources[CaptureSide::microphone].play(0.04, 0.0f);
        scheduler.advance(0.04);
    }
    EXPECT_GT(appendsSent(0), 0u);
    EXPECT_EQ(appendsSent(1), 0u);
    EXPECT_EQ(count("channel_woken"), 1u);
    EXPECT_TRUE(state().meters.at(CaptureChannel::system).isAwake);
    EXPECT_FALSE(state().meters.at(CaptureChannel::microphone).isAwake);
}

TEST_F(LiveControllerTest, AFailedStartEndsTheRecordingAsFailedWithItsReason) {
    controller->startLiveInterpretation();
    scheduler.runUntilIdle();
    connection(0).end(WebSocketEnd::Reason::failed, "connection refused", false);
    scheduler.runUntilIdle();
    scheduler.advance(1.0);
    EXPECT_FALSE(state().isLiveInterpreting);
    EXPECT_FALSE(state().isStartingSession);
    EXPECT_EQ(count("live_start_failed"), 1u);
    ASSERT_EQ(library->recordings().size(), 1u);
    EXPECT_EQ(library->recordings()[0].status, RecordingStatus::failed);
    EXPECT_FALSE(state().lastError.empty());
    EXPECT_FALSE(state().activeRecordingID);
}

TEST_F(LiveControllerTest, AMergeFailureKeepsTheChunksAndSaysSo) {
    merger.fail = true;
    startOnAir();
    speak(CaptureSide::system, 1.0);
    stopAndSettle();
    ASSERT_EQ(library->recordings().size(), 1u);
    EXPECT_EQ(library->recordings()[0].errorMessage, "同传音频尚未合并，分段已保留，下次启动会重试：磁盘满了");
    EXPECT_EQ(count("live_audio_merge_failed"), 1u);
    EXPECT_FALSE(controller->activeLiveChunkURLs().empty());
}

TEST_F(LiveControllerTest, RunningLaneWorkHoldsTheSessionOpenUntilItEnds) {
    startOnAir();
    speak(CaptureSide::system);
    source(0, "確認します。");
    dispatch.busy = true;
    stopAndSettle();
    EXPECT_TRUE(state().activeRecordingID.has_value());
    EXPECT_TRUE(state().isFinishingLiveSession);
    dispatch.busy = false;
    controller->finishLiveRecordingIfIdle(*state().activeRecordingID);
    scheduler.runUntilIdle();
    EXPECT_FALSE(state().activeRecordingID);
    EXPECT_FALSE(state().isFinishingLiveSession);
}

}  // namespace
}  // namespace osv

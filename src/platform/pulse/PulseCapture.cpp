#include "platform/pulse/PulseCapture.h"

#include <pulse/pulseaudio.h>

#include <atomic>
#include <mutex>

#include "core/EntryGuard.h"

namespace osv {
namespace {

// A context on a threaded main loop, connected and ready; the loop is locked by callers
// around every call, as libpulse requires.
struct Connection {
    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;

    ~Connection() { close(); }

    Expected<void> open(const char* name) {
        loop = pa_threaded_mainloop_new();
        if (!loop) return unreachable("cannot create a main loop");
        context = pa_context_new(pa_threaded_mainloop_get_api(loop), name);
        if (!context) return unreachable("cannot create a context");
        pa_context_set_state_callback(
            context, [](pa_context*, void* l) { pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(l), 0); },
            loop);
        if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
            return unreachable(pa_strerror(pa_context_errno(context)));
        pa_threaded_mainloop_lock(loop);
        if (pa_threaded_mainloop_start(loop) < 0) {
            pa_threaded_mainloop_unlock(loop);
            return unreachable("cannot start the main loop");
        }
        for (;;) {
            const pa_context_state_t state = pa_context_get_state(context);
            if (state == PA_CONTEXT_READY) break;
            if (!PA_CONTEXT_IS_GOOD(state)) {
                const std::string why = pa_strerror(pa_context_errno(context));
                pa_threaded_mainloop_unlock(loop);
                return unreachable(why);
            }
            pa_threaded_mainloop_wait(loop);
        }
        pa_threaded_mainloop_unlock(loop);
        return {};
    }

    // With the loop locked: waits for an operation whose callback signals the loop.
    void wait(pa_operation* op) {
        if (!op) return;
        while (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_threaded_mainloop_wait(loop);
        pa_operation_unref(op);
    }

    void close() {
        if (loop) pa_threaded_mainloop_stop(loop);
        if (context) {
            pa_context_disconnect(context);
            pa_context_unref(context);
            context = nullptr;
        }
        if (loop) {
            pa_threaded_mainloop_free(loop);
            loop = nullptr;
        }
    }

    static Error unreachable(const std::string& why) {
        return Error{"sound_server_unreachable", "连不上声音服务（PulseAudio / PipeWire）：" + why};
    }
};

struct ServerDefaults {
    std::string sink;
    std::string source;
};

void readDefaults(Connection& c, ServerDefaults& out) {
    struct Job {
        Connection* c;
        ServerDefaults* out;
    } job{&c, &out};
    c.wait(pa_context_get_server_info(
        c.context,
        [](pa_context*, const pa_server_info* i, void* u) {
            auto* j = static_cast<Job*>(u);
            guardEntry("PulseAudio server info", [&] {
                if (i) {
                    j->out->sink = i->default_sink_name ? i->default_sink_name : "";
                    j->out->source = i->default_source_name ? i->default_source_name : "";
                }
            });
            pa_threaded_mainloop_signal(j->c->loop, 0);
        },
        &job));
}

bool looksEchoCancelling(const char* name, const char* driver) {
    const std::string n = name ? name : "", d = driver ? driver : "";
    return d.find("echo-cancel") != std::string::npos || n.find("echo-cancel") != std::string::npos ||
           n.find("echo_cancel") != std::string::npos;
}

void readDevices(Connection& c, AudioDevices& out) {
    struct Job {
        Connection* c;
        AudioDevices* out;
    } job{&c, &out};
    c.wait(pa_context_get_source_info_list(
        c.context,
        [](pa_context*, const pa_source_info* i, int eol, void* u) {
            auto* j = static_cast<Job*>(u);
            if (eol || !i) {
                pa_threaded_mainloop_signal(j->c->loop, 0);
                return;
            }
            guardEntry("PulseAudio source list", [&] {
                const bool monitor = i->monitor_of_sink != PA_INVALID_INDEX;
                j->out->sources.push_back(AudioDevice{i->name, i->description ? i->description : "", false, monitor,
                                                      looksEchoCancelling(i->name, i->driver), int(i->sample_spec.rate),
                                                      int(i->sample_spec.channels),
                                                      monitor && i->monitor_of_sink_name ? i->monitor_of_sink_name : ""});
            });
        },
        &job));
    c.wait(pa_context_get_sink_info_list(
        c.context,
        [](pa_context*, const pa_sink_info* i, int eol, void* u) {
            auto* j = static_cast<Job*>(u);
            if (eol || !i) {
                pa_threaded_mainloop_signal(j->c->loop, 0);
                return;
            }
            guardEntry("PulseAudio sink list", [&] {
                j->out->sinks.push_back(AudioDevice{i->name, i->description ? i->description : "", false, false, false,
                                                    int(i->sample_spec.rate), int(i->sample_spec.channels), ""});
            });
        },
        &job));
}

// Says which source it is and that it only monitors a sink, so that the user knows which
// setting to change.
std::string monitorIsNoMicrophone(const std::string& source, const std::string& sink) {
    return "默认输入 " + source + " 是输出设备 " + (sink.empty() ? std::string("（未知）") : sink) +
           " 的监听源（电脑正在播放的声音），不是麦克风。请在系统的声音设置里把默认输入换成麦克风。";
}

}  // namespace

bool AudioDevices::hasEchoCancelSource() const {
    for (const auto& s : sources)
        if (s.isEchoCancel) return true;
    return false;
}

Expected<AudioDevices> listAudioDevices() {
    Connection c;
    if (auto opened = c.open("Ossevra device list"); !opened) return opened.error();
    AudioDevices devices;
    ServerDefaults defaults;
    pa_threaded_mainloop_lock(c.loop);
    readDefaults(c, defaults);
    readDevices(c, devices);
    pa_threaded_mainloop_unlock(c.loop);
    devices.defaultSink = defaults.sink;
    devices.defaultSource = defaults.source;
    for (auto& s : devices.sources) s.isDefault = s.name == defaults.source;
    for (auto& s : devices.sinks) s.isDefault = s.name == defaults.sink;
    return devices;
}

struct PulseCapture::Impl {
    Connection connection;
    pa_stream* stream = nullptr;
    Follow follow = Follow::defaultSinkMonitor;
    Format format;
    std::string device;
    bool pinnedToEchoCancel = false;
    std::string refusedMonitor;  // the monitor last refused as a microphone
    OnFrames onFrames;
    OnEvent onEvent;
    std::atomic<bool> running{false};
    mutable std::mutex state;  // guards `device` for readers on other threads

    // The device this capture should use, given the server's defaults.
    std::string wanted(const ServerDefaults& d) const {
        return follow == Follow::defaultSinkMonitor ? (d.sink.empty() ? "" : d.sink + ".monitor") : d.source;
    }

    // Loop thread or loop locked.
    void dropStream() {
        if (!stream) return;
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
        stream = nullptr;
    }

    bool connectStream(const std::string& name) {
        dropStream();
        pa_sample_spec sampleSpec{PA_SAMPLE_FLOAT32LE, std::uint32_t(format.sampleRate), std::uint8_t(format.channels)};
        stream = pa_stream_new(connection.context, "Ossevra capture", &sampleSpec, nullptr);
        if (!stream) return false;
        pa_stream_set_read_callback(stream, &Impl::onRead, this);
        pa_stream_set_state_callback(stream, &Impl::onStreamState, this);
        // About 20 ms fragments: live audio should not wait in the server.
        pa_buffer_attr attr{};
        attr.maxlength = std::uint32_t(-1);
        attr.fragsize = std::uint32_t(format.sampleRate / 50 * format.channels * 4);
        // DONT_MOVE: if the device goes away the stream fails instead of being moved by the
        // server, possibly onto the other kind of device.
        const int flags = PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE;
        if (pa_stream_connect_record(stream, name.c_str(), &attr, pa_stream_flags_t(flags)) < 0) {
            dropStream();
            return false;
        }
        std::lock_guard guard(state);
        device = name;
        return true;
    }

    static void onRead(pa_stream* s, std::size_t, void* u) {
        auto* self = static_cast<Impl*>(u);
        const void* data = nullptr;
        std::size_t bytes = 0;
        while (pa_stream_readable_size(s) > 0) {
            if (pa_stream_peek(s, &data, &bytes) < 0) return;
            if (bytes == 0) return;
            if (data && self->onFrames) {
                const std::size_t frames = bytes / (sizeof(float) * std::size_t(self->format.channels));
                // Dropped after a failure too, or the same fragment would come back forever.
                guardEntry("PulseCapture frames", [&] { self->onFrames(static_cast<const float*>(data), frames, self->format); });
            }
            pa_stream_drop(s);
        }
    }

    static void onStreamState(pa_stream* s, void* u) {
        guardEntry("PulseCapture stream state", [&] { streamStateChanged(s, static_cast<Impl*>(u)); });
    }

    static void streamStateChanged(pa_stream* s, Impl* self) {
        if (pa_stream_get_state(s) != PA_STREAM_FAILED) return;
        if (self->onEvent)
            self->onEvent("采集设备不见了", "device: " + self->device + "\n等声音服务给出新的默认设备后接着采集。",
                          "capture_device_lost");
        // The server's default will change; the subscription then reconnects.
        pa_operation* op = pa_context_get_server_info(pa_stream_get_context(s), &Impl::onServerInfo, self);
        if (op) pa_operation_unref(op);
    }

    static void onServerInfo(pa_context*, const pa_server_info* i, void* u) {
        guardEntry("PulseCapture server info", [&] { serverInfoArrived(i, static_cast<Impl*>(u)); });
    }

    static void serverInfoArrived(const pa_server_info* i, Impl* self) {
        if (!i || !self->running || self->pinnedToEchoCancel) return;
        ServerDefaults d{i->default_sink_name ? i->default_sink_name : "", i->default_source_name ? i->default_source_name : ""};
        const std::string next = self->wanted(d);
        if (next.empty() || self->isCapturing(next)) return;
        if (self->follow == Follow::defaultSinkMonitor) return self->switchTo(next);
        // When the last microphone goes, the server makes some sink's monitor the default
        // source: that is the computer's sound, not a microphone, so look before following.
        pa_operation* op = pa_context_get_source_info_by_name(self->connection.context, next.c_str(),
                                                              &Impl::onCandidateSource, self);
        if (op) pa_operation_unref(op);
    }

    static void onCandidateSource(pa_context*, const pa_source_info* i, int eol, void* u) {
        if (eol || !i) return;
        guardEntry("PulseCapture source info", [&] {
            auto* self = static_cast<Impl*>(u);
            if (!self->running || self->isCapturing(i->name)) return;
            if (i->monitor_of_sink == PA_INVALID_INDEX) return self->switchTo(i->name);
            if (self->refusedMonitor == i->name) return;  // said once for this source
            self->refusedMonitor = i->name;
            if (self->onEvent)
                self->onEvent("麦克风不见了，默认输入不是麦克风",
                              monitorIsNoMicrophone(i->name, i->monitor_of_sink_name ? i->monitor_of_sink_name : "") +
                                  "\n换好之后会自动接着采集。",
                              "capture_default_is_monitor");
        });
    }

    bool isCapturing(const std::string& name) const {
        return name == device && stream && PA_STREAM_IS_GOOD(pa_stream_get_state(stream));
    }

    void switchTo(const std::string& next) {
        const std::string previous = device;
        refusedMonitor.clear();
        if (connectStream(next) && onEvent)
            onEvent("采集跟随默认设备切换", "from: " + previous + "\nto: " + next, "capture_device_followed");
    }

    static void onSubscription(pa_context* c, pa_subscription_event_type_t type, std::uint32_t, void* u) {
        if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SERVER) return;
        pa_operation* op = pa_context_get_server_info(c, &Impl::onServerInfo, u);
        if (op) pa_operation_unref(op);
    }
};

PulseCapture::PulseCapture() : impl_(std::make_unique<Impl>()) {}
PulseCapture::~PulseCapture() { stop(); }

Expected<void> PulseCapture::start(Follow follow, std::optional<Format> format, OnFrames onFrames, OnEvent onEvent) {
    if (isRunning()) return {};
    impl_ = std::make_unique<Impl>();
    Impl& m = *impl_;
    m.follow = follow;
    m.onFrames = std::move(onFrames);
    m.onEvent = std::move(onEvent);
    if (auto opened = m.connection.open("Ossevra"); !opened) return opened.error();

    pa_threaded_mainloop_lock(m.connection.loop);
    ServerDefaults defaults;
    readDefaults(m.connection, defaults);
    AudioDevices devices;
    readDevices(m.connection, devices);
    std::string device = m.wanted(defaults);
    const AudioDevice* chosen = nullptr;
    if (follow == Follow::defaultSource) {
        // An echo-cancelling source stands for voice processing: use it when there is one.
        for (const auto& s : devices.sources)
            if (s.isEchoCancel && !s.isMonitor) chosen = &s;
        if (chosen) {
            device = chosen->name;
            m.pinnedToEchoCancel = true;
        }
    }
    for (const auto& s : devices.sources)
        if (s.name == device) chosen = &s;
    if (device.empty() || !chosen || (follow == Follow::defaultSource && chosen->isMonitor)) {
        pa_threaded_mainloop_unlock(m.connection.loop);
        m.connection.close();
        if (follow == Follow::defaultSinkMonitor)
            return Error{"no_capture_device", "找不到可捕获的电脑声音（默认输出设备的监听源）。"};
        if (chosen && chosen->isMonitor)
            return Error{"no_capture_device", "没有可用的麦克风输入设备。" + monitorIsNoMicrophone(chosen->name, chosen->monitoredSink)};
        return Error{"no_capture_device", "没有可用的麦克风输入设备。"};
    }
    m.format = format.value_or(Format{chosen->sampleRate, chosen->channels});
    const bool connected = m.connectStream(device);
    if (connected) {
        m.running = true;
        pa_context_set_subscribe_callback(m.connection.context, &Impl::onSubscription, &m);
        pa_operation* op = pa_context_subscribe(m.connection.context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr);
        if (op) pa_operation_unref(op);
    }
    pa_threaded_mainloop_unlock(m.connection.loop);
    if (!connected) {
        m.connection.close();
        return Error{"capture_failed", "无法从 " + device + " 采集声音。"};
    }
    return {};
}

void PulseCapture::stop() {
    if (!impl_ || !impl_->connection.loop) return;
    pa_threaded_mainloop_lock(impl_->connection.loop);
    impl_->running = false;
    pa_context_set_subscribe_callback(impl_->connection.context, nullptr, nullptr);
    impl_->dropStream();
    pa_threaded_mainloop_unlock(impl_->connection.loop);
    impl_->connection.close();
}

bool PulseCapture::isRunning() const { return impl_ && impl_->running && impl_->connection.loop; }

std::string PulseCapture::currentDevice() const {
    std::lock_guard guard(impl_->state);
    return impl_->device;
}

PulseCapture::Format PulseCapture::format() const { return impl_->format; }

}  // namespace osv

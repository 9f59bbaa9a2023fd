#include "screens/LiveModel.h"

#include <QVariantMap>

namespace osv {

LiveModel::LiveModel(QObject* parent) : QObject(parent) {}

LiveModel::~LiveModel() { attach(nullptr); }

void LiveModel::attach(LiveController* controller) {
    if (controller_) controller_->unsubscribe(subscription_);
    controller_ = controller;
    subscription_ = 0;
    dismissedError_.clear();
    captions_.clear();
    if (controller_) {
        subscription_ = controller_->subscribe([this](const LiveState& s) { observe(s); });
        observe(controller_->state());
    } else {
        observe(LiveState{});
    }
}

void LiveModel::observe(const LiveState& state) {
    state_ = state;
    if (state_.lastError != dismissedError_) dismissedError_.clear();
    captions_.setBlocks(state_.captions);
    emit stateObserved(state_);
    emit changed();
}

QString LiveModel::lastError() const {
    if (!dismissedError_.empty()) return {};
    return QString::fromStdString(state_.lastError);
}

std::vector<LiveModel::Notice> LiveModel::notices() const {
    std::vector<Notice> out;
    if (!lastError().isEmpty()) out.push_back({lastError(), QStringLiteral("error")});
    if (!state_.liveNotice.empty()) out.push_back({liveNotice(), QStringLiteral("warning")});
    if (!state_.degradedCapture.empty()) out.push_back({degradedCapture(), QStringLiteral("warning")});
    if (!state_.statusText.empty()) out.push_back({statusText(), QStringLiteral("status")});
    return out;
}

QString LiveModel::noticeText() const {
    const auto all = notices();
    return all.empty() ? QString() : all.front().text;
}

QString LiveModel::noticeKind() const {
    const auto all = notices();
    return all.empty() ? QStringLiteral("status") : all.front().kind;
}

QStringList LiveModel::otherNotices() const {
    QStringList out;
    const auto all = notices();
    for (std::size_t i = 1; i < all.size(); ++i) out << all[i].text;
    return out;
}

QString LiveModel::elapsedText() const {
    const auto total = static_cast<long long>(state_.elapsedSeconds > 0 ? state_.elapsedSeconds : 0);
    const auto h = total / 3600, m = (total / 60) % 60, s = total % 60;
    const QString ms = QStringLiteral("%1:%2").arg(m, 2, 10, QLatin1Char('0')).arg(s, 2, 10, QLatin1Char('0'));
    return h > 0 ? QStringLiteral("%1:%2").arg(h).arg(ms) : ms;
}

QVariantList LiveModel::meters() const {
    QVariantList out;
    if (!state_.isSessionActive()) return out;
    for (CaptureChannel channel : state_.activeChannels) {
        QVariantMap m;
        const auto found = state_.meters.find(channel);
        const LiveChannelMeter meter = found == state_.meters.end() ? LiveChannelMeter{} : found->second;
        m.insert(QStringLiteral("label"),
                 channel == CaptureChannel::system ? QStringLiteral("电脑声音") : QStringLiteral("麦克风"));
        m.insert(QStringLiteral("level"), meter.level);
        m.insert(QStringLiteral("awake"), meter.isAwake);
        m.insert(QStringLiteral("connected"), meter.isConnected);
        out.push_back(m);
    }
    return out;
}

void LiveModel::start() {
    if (controller_) controller_->startLiveInterpretation();
}
void LiveModel::pause() {
    if (controller_) controller_->pauseLiveInterpretation();
}
void LiveModel::resume() {
    if (controller_) controller_->resumeLiveInterpretation();
}
void LiveModel::stop() {
    if (controller_) controller_->stopLiveInterpretation();
}
void LiveModel::retry() {
    if (controller_) controller_->retryFailedTranslations();
}

void LiveModel::startOrStop() {
    if (state_.isStartingSession || state_.isFinishingLiveSession) return;
    if (state_.isLiveInterpreting) stop();
    else if (!state_.activeRecordingID) start();
}

void LiveModel::pauseOrResume() {
    if (!state_.isLiveInterpreting || state_.isFinishingLiveSession) return;
    if (state_.isLivePaused) resume();
    else pause();
}

void LiveModel::dismissError() {
    dismissedError_ = state_.lastError;
    emit changed();
}

}  // namespace osv

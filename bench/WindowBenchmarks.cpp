// The window's costs, offscreen with the software scene graph:
// - a delta's way from the published captions to the caption card's text in the scene
//   graph (the model refresh, the delegate's bindings, the scene graph's sync), with a
//   synthetic conversation of 0 and 3 hours in the stream (a block every 6 seconds), as
//   p50/p99 counters; and the resident memory with that stream shown;
// - from creating the window's root object to its first frame.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QtQml/qqmlextensionplugin.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "screens/AppShell.h"
#include "screens/CaptionListModel.h"
#include "screens/LiveModel.h"
#include "screens/ScreensEngine.h"
#include "screens/ThemeModel.h"

Q_IMPORT_QML_PLUGIN(Ossevra_ScreensPlugin)

namespace {

using namespace osv;
using Block = CaptionGrouping::CaptionBlock;

double residentMegabytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}

Block syntheticBlock(std::size_t i) {
    Block b;
    const bool theirs = i % 2 == 0;
    b.channel = theirs ? CaptureChannel::system : CaptureChannel::microphone;
    b.source = theirs ? "新製品の価格について説明します。単価は五百円です。来月から販売します。" + std::to_string(i)
                      : "好的，明白了。我们下周再确认一下交货的时间和数量。" + std::to_string(i);
    b.translation = theirs ? "我来说明一下新产品的价格。单价是五百日元，下个月开始销售。"
                           : "わかりました。来週、納期と数量をもう一度確認しましょう。";
    b.startOffset = double(i) * 6.0;
    return b;
}

bool waitFor(bool& flag) {
    QElapsedTimer limit;
    limit.start();
    while (!flag && limit.elapsed() < 2000) QCoreApplication::processEvents(QEventLoop::AllEvents);
    return flag;
}

void BM_CaptionDeltaToSceneGraph(benchmark::State& state) {
    const auto hours = std::size_t(state.range(0));
    const std::size_t blocks = std::max<std::size_t>(10, hours * 600);
    std::vector<Block> head;
    for (std::size_t i = 0; i + 1 < blocks; ++i) head.push_back(syntheticBlock(i));
    const auto frozen = PersistentList<Block>::fromVector(head);
    Block live = syntheticBlock(blocks - 1);

    ThemeModel theme;
    LiveModel liveModel;
    CaptionListModel captions;
    QQmlApplicationEngine engine;
    engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
    engine.rootContext()->setContextProperty(QStringLiteral("theme"), &theme);
    engine.rootContext()->setContextProperty(QStringLiteral("live"), &liveModel);
    engine.rootContext()->setContextProperty(QStringLiteral("captions"), &captions);
    captions.setBlocks(CaptionBlockList(frozen, {live}));
    engine.loadData(R"(
        import QtQuick
        import QtQuick.Window
        import Ossevra.Screens
        Window {
            width: 1180; height: 700; visible: true
            CaptionStream { anchors.fill: parent; model: captions }
        })");
    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().value(0));
    if (!window) {
        state.SkipWithError("the QML did not load");
        return;
    }
    bool synced = false, swapped = false;
    QElapsedTimer syncClock;
    double syncSeconds = 0;
    QObject::connect(window, &QQuickWindow::beforeSynchronizing, window, [&] { syncClock.start(); }, Qt::DirectConnection);
    QObject::connect(window, &QQuickWindow::afterSynchronizing, window, [&] {
        syncSeconds = double(syncClock.nsecsElapsed()) / 1e9;
        synced = true;
    }, Qt::DirectConnection);
    QObject::connect(window, &QQuickWindow::frameSwapped, window, [&] { swapped = true; }, Qt::DirectConnection);
    waitFor(swapped);
    for (int settle = 0; settle < 20; ++settle) QCoreApplication::processEvents();

    // The live block's source line: the card the deltas go to.
    auto liveLine = [&]() -> QQuickItem* {
        const QString expected = QString::fromStdString(*live.source);
        std::vector<QQuickItem*> pending{window->contentItem()};
        while (!pending.empty()) {
            QQuickItem* item = pending.back();
            pending.pop_back();
            if (item->objectName() == QLatin1String("captionText") && item->property("text").toString() == expected)
                return item;
            for (QQuickItem* child : item->childItems()) pending.push_back(child);
        }
        return nullptr;
    };

    std::vector<double> work, wall;
    std::size_t delta = 0;
    for (auto _ : state) {
        // One more piece of text on the live block, as a delta makes it.
        live.source = syntheticBlock(blocks - 1).source.value() + std::string(delta++ % 40, 'x');
        synced = swapped = false;
        QElapsedTimer clock;
        clock.start();
        captions.setBlocks(CaptionBlockList(frozen, {live}));
        // The delegate's bindings run inside the refresh: the card holds the text now.
        const double toCard = double(clock.nsecsElapsed()) / 1e9;
        if (!liveLine()) {
            state.SkipWithError("the card did not take the delta");
            return;
        }
        if (!waitFor(synced)) {
            state.SkipWithError("no scene graph sync after a delta");
            return;
        }
        // What the program does for the delta: the refresh, the bindings and the scene
        // graph's sync; the wait for the render loop's next frame is not work.
        work.push_back(toCard + syncSeconds);
        waitFor(swapped);
        wall.push_back(double(clock.nsecsElapsed()) / 1e9);
        state.SetIterationTime(toCard + syncSeconds);
    }
    auto percentile = [](std::vector<double> v, double p) {
        std::sort(v.begin(), v.end());
        return v.empty() ? 0.0 : v[std::min(v.size() - 1, std::size_t(p * double(v.size())))] * 1e6;
    };
    state.counters["blocks"] = double(blocks);
    state.counters["work_p50_us"] = percentile(work, 0.50);
    state.counters["work_p99_us"] = percentile(work, 0.99);
    state.counters["frame_wall_p99_us"] = percentile(wall, 0.99);
    state.counters["rss_MB"] = residentMegabytes();
}
BENCHMARK(BM_CaptionDeltaToSceneGraph)->Arg(0)->Arg(3)->UseManualTime()->Iterations(400)->Unit(benchmark::kMicrosecond);

void BM_StartToFirstFrame(benchmark::State& state) {
    for (auto _ : state) {
        QTemporaryDir home;
        QElapsedTimer clock;
        clock.start();
        AppShell::Options options;
        options.supportDirectory = (home.path() + "/support").toStdString();
        options.configDirectory = (home.path() + "/config").toStdString();
        auto shell = std::make_unique<AppShell>(options);
        QQmlApplicationEngine engine;
        QQuickWindow* window = loadMainWindow(engine, *shell);
        if (!window) {
            state.SkipWithError("the window did not load");
            return;
        }
        bool swapped = false;
        QObject::connect(window, &QQuickWindow::frameSwapped, window, [&] { swapped = true; }, Qt::DirectConnection);
        waitFor(swapped);
        state.SetIterationTime(double(clock.nsecsElapsed()) / 1e9);
    }
}
BENCHMARK(BM_StartToFirstFrame)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QUICK_BACKEND", "software");
    QGuiApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

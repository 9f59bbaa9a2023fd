// The window over its real QML, offscreen, driven through one demo session against the
// loopback fake: first run, captions in both languages from both channels, pause, resume,
// stop, the recording in the history (rename, export, delete), the settings (a key set and
// cleared, bad values refused), the fonts of each language. Writes a screenshot of every
// screen in the light and the dark scheme; they are for people, not compared.

#include <QDir>
#include <QFile>
#include <QFontInfo>
#include <QGuiApplication>
#include <QProcess>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QtQml/qqmlextensionplugin.h>
#include <QtTest/QtTest>

#include <cstdlib>

#include "screens/AppShell.h"
#include "screens/CaptionListModel.h"
#include "screens/DebugModel.h"
#include "screens/HistoryModel.h"
#include "screens/LiveModel.h"
#include "screens/ScreensEngine.h"
#include "screens/SettingsModel.h"
#include "screens/ThemeModel.h"
#include "transcript/CaptionGrouping.h"

Q_IMPORT_QML_PLUGIN(Ossevra_ScreensPlugin)

using namespace osv;

namespace {

QList<QQuickItem*> allItems(QQuickItem* root) {
    QList<QQuickItem*> out;
    if (!root) return out;
    out << root;
    for (QQuickItem* child : root->childItems()) out << allItems(child);
    return out;
}

bool isShown(QQuickItem* item) {
    for (QQuickItem* i = item; i; i = i->parentItem())
        if (!i->isVisible() || i->opacity() == 0) return false;
    return true;
}

}  // namespace

class WindowTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir home_;
    std::unique_ptr<AppShell> shell_;
    std::unique_ptr<QQmlApplicationEngine> engine_;
    QQuickWindow* window_ = nullptr;
    QString shots_;

    QQuickItem* item(const char* name) {
        auto* found = window_->contentItem()->findChild<QQuickItem*>(QString::fromLatin1(name));
        if (!found) found = window_->findChild<QQuickItem*>(QString::fromLatin1(name));
        return found;
    }
    void click(const char* name) {
        QQuickItem* button = item(name);
        QVERIFY2(button, name);
        QVERIFY2(isShown(button), name);
        QVERIFY2(button->isEnabled(), name);
        QVERIFY(QMetaObject::invokeMethod(button, "clicked"));
    }
    void showPage(const char* page) {
        window_->setProperty("currentPage", QString::fromLatin1(page));
        QCoreApplication::processEvents();
    }
    void shoot(const QString& name) {
        for (bool dark : {false, true}) {
            shell_->theme().setDesktopDark(dark);
            QTest::qWait(150);
            const QImage image = window_->grabWindow();
            QVERIFY(!image.isNull());
            QVERIFY(image.save(shots_ + "/" + name + (dark ? "-dark" : "-light") + ".png"));
        }
        shell_->theme().setDesktopDark(false);
    }

private slots:
    void initTestCase() {
        QVERIFY(home_.isValid());
        const QString root = home_.path();
        qputenv("XDG_CONFIG_HOME", (root + "/config").toUtf8());
        qputenv("XDG_CACHE_HOME", qgetenv("XDG_CACHE_HOME").isEmpty() ? (QDir::homePath() + "/.cache").toUtf8()
                                                                       : qgetenv("XDG_CACHE_HOME"));
        qunsetenv("OPENAI_API_KEY");
        shots_ = QStringLiteral(OSV_SCREENSHOT_DIR);
        QDir().mkpath(shots_);

        AppShell::Options options;
        options.supportDirectory = (root + "/support").toStdString();
        options.configDirectory = (root + "/config/Ossevra").toStdString();
        options.demoSupportDirectory = (root + "/demo").toStdString();
        options.demoStopsItself = false;  // the test pauses, resumes and stops it
        shell_ = std::make_unique<AppShell>(options);
        engine_ = std::make_unique<QQmlApplicationEngine>();
        QList<QQmlError> warnings;
        connect(engine_.get(), &QQmlEngine::warnings, this, [&warnings](const QList<QQmlError>& w) { warnings << w; });
        window_ = loadMainWindow(*engine_, *shell_);
        QVERIFY(window_);
        QCOMPARE(window_->width(), 1180);
        QCOMPARE(window_->height(), 760);
        QVERIFY(QTest::qWaitForWindowExposed(window_));
        for (const auto& w : warnings) qWarning() << w.toString();
        QVERIFY2(warnings.isEmpty(), "the QML loads without warnings");
    }

    // Without CJK fonts Qt draws boxes and says nothing.
    void fontsResolveToNotoCJK() {
        QCOMPARE(QFontInfo(QFont(ThemeModel::japaneseFamily())).family(), QStringLiteral("Noto Sans CJK JP"));
        QCOMPARE(QFontInfo(QFont(ThemeModel::chineseFamily())).family(), QStringLiteral("Noto Sans CJK SC"));
        QCOMPARE(ThemeModel::familyFor(QStringLiteral("今日はいい天気ですね。")), QStringLiteral("Noto Sans CJK JP"));
        QCOMPARE(ThemeModel::familyFor(QStringLiteral("今天天气很好。")), QStringLiteral("Noto Sans CJK SC"));
        QCOMPARE(QFontInfo(QGuiApplication::font()).family(), QStringLiteral("Noto Sans CJK SC"));
    }

    void firstRunOffersKeyOrDemo() {
        QVERIFY(!shell_->hasKey());
        QQuickItem* firstRun = item("firstRun");
        QVERIFY(firstRun);
        QVERIFY(isShown(firstRun));
        QVERIFY(isShown(item("demoButton")));
        QVERIFY(isShown(item("enterKeyButton")));
        shoot("first-run");
    }

    void demoSessionEndToEnd() {
        LiveModel& live = shell_->live();
        CaptionListModel& captions = *live.captions();
        click("demoButton");
        QVERIFY(shell_->demoPreparing());
        QTRY_VERIFY_WITH_TIMEOUT(shell_->demoMode(), 30000);
        QVERIFY(!isShown(item("firstRun")));
        // A start under way cannot be pressed again.
        QTRY_VERIFY_WITH_TIMEOUT(live.onAir() || live.starting(), 10000);
        if (live.starting()) QVERIFY(!isShown(item("startButton")));
        QTRY_VERIFY_WITH_TIMEOUT(live.onAir(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(captions.count() > 0, 20000);

        // Both channels, both languages.
        auto hasBothLanguages = [&] {
            bool chinese = false, japanese = false;
            for (int i = 0; i < captions.count(); ++i) {
                const auto idx = captions.index(i);
                const QString s = captions.data(idx, CaptionListModel::SourceRole).toString();
                const QString t = captions.data(idx, CaptionListModel::TranslationRole).toString();
                for (const QString& text : {s, t}) {
                    if (CaptionGrouping::looksJapanese(text.toStdString())) japanese = true;
                    else if (CaptionGrouping::looksChinese(text.toStdString())) chinese = true;
                }
            }
            return chinese && japanese;
        };
        for (int waited = 0; waited < 400 && !(captions.showsChannels() && hasBothLanguages()); ++waited) QTest::qWait(100);
        if (!(captions.showsChannels() && hasBothLanguages())) {
            for (int i = 0; i < captions.count(); ++i)
                qWarning().noquote() << captions.data(captions.index(i), CaptionListModel::ChannelRole).toString()
                                     << captions.data(captions.index(i), CaptionListModel::SourceRole).toString()
                                     << "|" << captions.data(captions.index(i), CaptionListModel::TranslationRole).toString();
        }
        QVERIFY(captions.showsChannels() && hasBothLanguages());
        // The whole conversation, for the screenshot: its last line is the user's thanks.
        QTRY_VERIFY_WITH_TIMEOUT(captions.allText().contains(QStringLiteral("谢谢")), 40000);
        QTest::qWait(300);
        shoot("live");

        // Each caption line is drawn in its language's font.
        int japaneseLines = 0, chineseLines = 0;
        for (QQuickItem* text : allItems(window_->contentItem())) {
            if (text->objectName() != QLatin1String("captionText") || !isShown(text)) continue;
            const QString content = text->property("text").toString();
            const QString family = QFontInfo(text->property("font").value<QFont>()).family();
            if (CaptionGrouping::looksJapanese(content.toStdString())) {
                QCOMPARE(family, QStringLiteral("Noto Sans CJK JP"));
                ++japaneseLines;
            } else if (CaptionGrouping::looksChinese(content.toStdString())) {
                QCOMPARE(family, QStringLiteral("Noto Sans CJK SC"));
                ++chineseLines;
            }
        }
        QVERIFY(japaneseLines > 0);
        QVERIFY(chineseLines > 0);

        // The compact window shows the same captions.
        QQuickWindow* compact = window_->findChild<QQuickWindow*>(QStringLiteral("compactWindow"));
        if (!compact) compact = qvariant_cast<QQuickWindow*>(window_->property("compactWindow"));
        QVERIFY(compact);
        compact->setVisible(true);
        QVERIFY(QTest::qWaitForWindowExposed(compact));
        QTest::qWait(300);
        QVERIFY(compact->grabWindow().save(shots_ + "/compact-dark.png"));
        compact->setVisible(false);

        // Pause and resume once the conversation has been heard.
        click("pauseButton");
        QTRY_VERIFY_WITH_TIMEOUT(live.paused(), 10000);
        QCOMPARE(item("pauseButton")->property("text").toString(), QStringLiteral("继续"));
        click("pauseButton");
        QTRY_VERIFY_WITH_TIMEOUT(!live.paused() && live.onAir(), 10000);

        // Stop: the session finishes and is saved.
        click("stopButton");
        QTRY_VERIFY_WITH_TIMEOUT(!live.sessionActive() && !live.finishing(), 20000);
        QVERIFY(captions.count() > 0);
        QFile status(QStringLiteral("/proc/self/status"));
        if (status.open(QIODevice::ReadOnly))
            for (const QByteArray& line : status.readAll().split('\n'))
                if (line.startsWith("VmRSS:")) qInfo().noquote() << "window after the demo:" << line.simplified();
    }

    void theRecordingIsInTheHistory() {
        HistoryModel& history = shell_->history();
        showPage("history");
        QTRY_VERIFY(history.count() >= 1);
        const QString id = history.data(history.index(0), HistoryModel::IdRole).toString();
        history.select(id);
        QVERIFY(history.selectedCaptions()->count() > 0);
        QVERIFY(history.data(history.index(0), HistoryModel::SentencesRole).toInt() > 0);

        QVERIFY(!history.rename(id, QStringLiteral("   ")));
        QVERIFY(history.rename(id, QStringLiteral("与田中先生的会议")));
        QCOMPARE(history.selectedTitle(), QStringLiteral("与田中先生的会议"));
        history.setSearch(QStringLiteral("田中"));
        QCOMPARE(history.count(), 1);
        history.setSearch(QStringLiteral("没有这样的内容"));
        QCOMPARE(history.count(), 0);
        history.setSearch(QString());
        QTest::qWait(200);
        shoot("history");

        const QString exported = home_.path() + "/exported.md";
        QVERIFY(history.exportMarkdown(id, QUrl::fromLocalFile(exported)));
        QFile file(exported);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString markdown = QString::fromUtf8(file.readAll());
        QVERIFY(markdown.contains(QStringLiteral("与田中先生的会议")));
        QVERIFY(!history.allText(id).isEmpty());

        showPage("debug");
        QVERIFY(shell_->debug().totalCount() > 0);
        shell_->debug().setLevelFilter(QStringLiteral("error"));
        const int errors = shell_->debug().count();
        shell_->debug().setLevelFilter(QString());
        QVERIFY(shell_->debug().count() >= errors);
        QVERIFY(shell_->debug().allText().contains(QStringLiteral("开始同声传译")));
        QTest::qWait(200);
        shoot("debug");

        showPage("history");
        QVERIFY(history.remove(id));
        QCOMPARE(history.count(), 0);
        QVERIFY(history.selectedId().isEmpty());
    }

    void keysAndSettings() {
        SettingsModel& settings = shell_->settings();
        shell_->leaveDemo();
        QVERIFY(!shell_->demoMode());

        QVERIFY(!settings.setKey(QStringLiteral("openai"), QStringLiteral("  ")));
        QVERIFY(settings.messageIsError());
        QVERIFY(settings.setKey(QStringLiteral("openai"), QStringLiteral("sk-test-window-key")));
        QVERIFY(shell_->hasKey());
        QVERIFY(settings.keyPresent(QStringLiteral("openai")));
        // The key is never shown back.
        QVERIFY(!settings.message().contains(QStringLiteral("sk-test")));

        QVERIFY(!settings.setValue(QStringLiteral("chunk_seconds"), QStringLiteral("abc")));
        QVERIFY(settings.message().contains(QStringLiteral("abc")));
        QVERIFY(!settings.setValue(QStringLiteral("chunk_seconds"), QStringLiteral("20")));
        QVERIFY(!settings.setValue(QStringLiteral("capture_mode"), QStringLiteral("everything")));
        QVERIFY(settings.setValue(QStringLiteral("chunk_seconds"), QStringLiteral("1.5")));
        QCOMPARE(shell_->currentSettings().chunkSeconds, 1.5);
        QVERIFY(settings.setValue(QStringLiteral("capture_mode"), QStringLiteral("microphone")));
        QCOMPARE(shell_->currentSettings().captureMode, AudioCaptureMode::microphone);
        QVERIFY(settings.setValue(QStringLiteral("separate_channels"), false));
        QCOMPARE(settings.value(QStringLiteral("separate_channels")).toBool(), false);

        showPage("live");
        QTest::qWait(200);
        QVERIFY(!isShown(item("firstRun")));
        shoot("idle");

        showPage("settings");
        QTest::qWait(300);
        shoot("settings");

        QVERIFY(settings.clearKey(QStringLiteral("openai")));
        QVERIFY(!shell_->hasKey());
        showPage("live");
        QTRY_VERIFY(isShown(item("firstRun")));
    }

    // A second launch shows the running window instead of opening another.
    void secondLaunchRaisesTheFirst() {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home_.path() + "/instance-config");
        env.insert(QStringLiteral("OSV_SUPPORT_DIR"), home_.path() + "/instance-support");
        env.insert(QStringLiteral("OSV_TEST_RUN"), QStringLiteral("1"));  // keep off the user's keyring
        QProcess first;
        first.setProcessEnvironment(env);
        first.setProcessChannelMode(QProcess::MergedChannels);
        first.start(QStringLiteral(OSV_WINDOW_PROGRAM), {});
        QVERIFY(first.waitForStarted(5000));
        QProcess second;
        second.setProcessEnvironment(env);
        second.setProcessChannelMode(QProcess::MergedChannels);
        // Once the first holds the lock, a second launch waits for it to listen and asks it
        // to show its window.
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(home_.path() + "/instance-config/Ossevra/window.lock"), 20000);
        second.start(QStringLiteral(OSV_WINDOW_PROGRAM), {});
        QVERIFY(second.waitForFinished(20000));
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(QString::fromUtf8(second.readAll()).contains(QStringLiteral("已在运行")));
        QCOMPARE(first.state(), QProcess::Running);
        first.terminate();
        QVERIFY(first.waitForFinished(5000));
    }

    void cleanupTestCase() {
        engine_.reset();
        shell_.reset();
    }
};

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QUICK_BACKEND", "software");
    QGuiApplication app(argc, argv);
    WindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "WindowTest.moc"

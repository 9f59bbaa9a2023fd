// The window program. One instance per user: a second launch asks the first to show its
// window and exits.

#include <QCryptographicHash>
#include <QGuiApplication>
#include <QLocalServer>
#include <QLockFile>
#include <QThread>
#include <QLocalSocket>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QtQml/qqmlextensionplugin.h>

#include <unistd.h>

#include <cstdio>

#include "core/Paths.h"
#include "screens/AppShell.h"
#include "screens/ScreensEngine.h"

Q_IMPORT_QML_PLUGIN(Ossevra_ScreensPlugin)

namespace {

// One instance per user and settings folder: a program started with other settings (a test,
// a second profile) is a different instance.
QString instanceName() {
    const QByteArray config = QByteArray::fromStdString(osv::configDirectory().string());
    return QStringLiteral("ossevra-window-%1-%2")
        .arg(::getuid())
        .arg(QString::fromLatin1(QCryptographicHash::hash(config, QCryptographicHash::Sha1).toHex().left(12)));
}

bool raiseRunningInstance() {
    QLocalSocket socket;
    socket.connectToServer(instanceName());
    if (!socket.waitForConnected(500)) return false;
    socket.write("raise\n");
    socket.waitForBytesWritten(500);
    socket.disconnectFromServer();
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("Ossevra"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Ossevra 同传"));
    QGuiApplication::setDesktopFileName(QStringLiteral("ossevra"));

    // The lock decides which launch is the window; the others ask it to show itself. The
    // first may still be starting up, so they try for a while before giving up.
    const auto config = osv::configDirectory();
    std::error_code ec;
    std::filesystem::create_directories(config, ec);
    QLockFile lock(QString::fromStdString((config / "window.lock").string()));
    lock.setStaleLockTime(0);  // stale only when its owner is gone
    if (!lock.tryLock(0)) {
        for (int attempt = 0; attempt < 100; ++attempt) {
            if (raiseRunningInstance()) {
                std::fputs("ossevra: 已在运行，已切换到它的窗口。\n", stderr);
                return 0;
            }
            if (lock.tryLock(0)) break;  // the other one ended meanwhile
            QThread::msleep(100);
        }
        if (!lock.isLocked()) {
            std::fputs("ossevra: 另一个 Ossevra 正在运行，但没有回应。\n", stderr);
            return 1;
        }
    }
    QLocalServer server;
    QLocalServer::removeServer(instanceName());  // a name left behind by a crash; the lock is ours
    if (!server.listen(instanceName()))
        std::fprintf(stderr, "ossevra: %s\n", qPrintable(server.errorString()));

    osv::AppShell::Options options;
    options.supportDirectory = osv::supportDirectory();
    options.configDirectory = osv::configDirectory();
    osv::AppShell shell(options);
    QObject::connect(&server, &QLocalServer::newConnection, &shell, [&] {
        while (QLocalSocket* peer = server.nextPendingConnection()) {
            QObject::connect(peer, &QLocalSocket::disconnected, peer, &QObject::deleteLater);
            emit shell.raiseRequested();
        }
    });

    QQmlApplicationEngine engine;
    if (!osv::loadMainWindow(engine, shell)) return 1;
    return QGuiApplication::exec();
}

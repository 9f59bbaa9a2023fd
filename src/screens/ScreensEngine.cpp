#include "screens/ScreensEngine.h"

#include <QFont>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQuickWindow>

#include "screens/AppShell.h"
#include "screens/ThemeModel.h"

namespace osv {

QQuickWindow* loadMainWindow(QQmlApplicationEngine& engine, AppShell& shell) {
    // The interface's own text is Chinese: Chinese glyph forms by default; caption lines
    // choose their language's family one by one.
    QFont font(ThemeModel::chineseFamily());
    font.setStyleHint(QFont::SansSerif);
    QGuiApplication::setFont(font);
    engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
    shell.expose(*engine.rootContext());
    engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Ossevra/Screens/qml/Main.qml")));
    if (engine.rootObjects().isEmpty()) return nullptr;
    return qobject_cast<QQuickWindow*>(engine.rootObjects().constFirst());
}

}  // namespace osv

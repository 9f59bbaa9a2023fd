#pragma once

// Loads the window's QML over an AppShell: the program and the tests load it the same way.
// An executable that calls it imports the static QML module once:
//   #include <QtQml/qqmlextensionplugin.h>
//   Q_IMPORT_QML_PLUGIN(Ossevra_ScreensPlugin)

class QQmlApplicationEngine;
class QQuickWindow;

namespace osv {

class AppShell;

// The fonts and the Controls style are set before the first component; returns the main
// window, or null when the QML failed to load (the engine has printed why).
QQuickWindow* loadMainWindow(QQmlApplicationEngine& engine, AppShell& shell);

}  // namespace osv

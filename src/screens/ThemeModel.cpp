#include "screens/ThemeModel.h"

#include <QGuiApplication>
#include <QPalette>

#include "transcript/CaptionGrouping.h"

namespace osv {

ThemeModel::ThemeModel(QObject* parent) : QObject(parent) {}

void ThemeModel::setSkin(std::optional<Skin> chosen) {
    if (chosen == chosen_) return;
    chosen_ = chosen;
    emit changed();
}

void ThemeModel::setDesktopDark(bool dark) {
    if (dark == desktopDark_) return;
    desktopDark_ = dark;
    emit changed();
}

void ThemeModel::setCaptionTextSize(CaptionTextSize size) {
    if (size == captionSize_) return;
    captionSize_ = size;
    emit changed();
}

bool ThemeModel::desktopPrefersDark() {
    const QColor window = QGuiApplication::palette().color(QPalette::Window);
    return window.lightness() < 128;
}

QString ThemeModel::skinName() const { return QString::fromUtf8(rawValue(skin()).data(), qsizetype(rawValue(skin()).size())); }

qreal ThemeModel::captionScale() const {
    switch (captionSize_) {
        case CaptionTextSize::small: return 0.85;
        case CaptionTextSize::medium: return 1.0;
        case CaptionTextSize::large: return 1.3;
    }
    return 1.0;
}

QString ThemeModel::familyFor(const QString& text) {
    return CaptionGrouping::looksJapanese(text.toStdString()) ? japaneseFamily() : chineseFamily();
}

bool ThemeModel::isChinese(const QString& text) { return CaptionGrouping::looksChinese(text.toStdString()); }

}  // namespace osv

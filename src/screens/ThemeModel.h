#pragma once

// The design system as QML sees it: the skin's colours (from Palette), the type scale,
// the 4-pixel spacing unit, one corner radius, and the font of each language. Changes when
// the skin, the desktop's colour preference or the caption size change.

#include <QColor>
#include <QObject>
#include <QString>

#include "screens/Palette.h"

namespace osv {

class ThemeModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QColor background READ background NOTIFY changed)
    Q_PROPERTY(QColor surface READ surface NOTIFY changed)
    Q_PROPERTY(QColor border READ border NOTIFY changed)
    Q_PROPERTY(QColor text READ text NOTIFY changed)
    Q_PROPERTY(QColor mutedText READ mutedText NOTIFY changed)
    Q_PROPERTY(QColor accent READ accent NOTIFY changed)
    Q_PROPERTY(QColor onAccent READ onAccent NOTIFY changed)
    Q_PROPERTY(QColor warning READ warning NOTIFY changed)
    Q_PROPERTY(QColor error READ error NOTIFY changed)
    Q_PROPERTY(QColor draft READ draft NOTIFY changed)
    Q_PROPERTY(QColor systemTint READ systemTint NOTIFY changed)
    Q_PROPERTY(QColor microphoneTint READ microphoneTint NOTIFY changed)
    Q_PROPERTY(bool dark READ dark NOTIFY changed)
    Q_PROPERTY(QString skinName READ skinName NOTIFY changed)
    Q_PROPERTY(qreal captionScale READ captionScale NOTIFY changed)
    Q_PROPERTY(int unit READ unit CONSTANT)
    Q_PROPERTY(int radius READ radius CONSTANT)
    Q_PROPERTY(int fontSmall READ fontSmall CONSTANT)
    Q_PROPERTY(int fontBody READ fontBody CONSTANT)
    Q_PROPERTY(int fontTitle READ fontTitle CONSTANT)
    Q_PROPERTY(int captionPrimary READ captionPrimary NOTIFY changed)
    Q_PROPERTY(int captionSecondary READ captionSecondary NOTIFY changed)
    Q_PROPERTY(QString chineseFamily READ chineseFamily CONSTANT)
    Q_PROPERTY(QString japaneseFamily READ japaneseFamily CONSTANT)
    Q_PROPERTY(QString monoDigitsFamily READ monoDigitsFamily CONSTANT)

public:
    explicit ThemeModel(QObject* parent = nullptr);

    void setSkin(std::optional<Skin> chosen);
    void setDesktopDark(bool dark);
    void setCaptionTextSize(CaptionTextSize size);
    Skin skin() const { return effectiveSkin(chosen_, desktopDark_); }

    // Reads the platform palette: a window colour darker than mid-grey is a dark desktop.
    static bool desktopPrefersDark();

    QColor background() const { return color(p().background); }
    QColor surface() const { return color(p().surface); }
    QColor border() const { return color(p().border); }
    QColor text() const { return color(p().text); }
    QColor mutedText() const { return color(p().mutedText); }
    QColor accent() const { return color(p().accent); }
    QColor onAccent() const { return color(p().onAccent); }
    QColor warning() const { return color(p().warning); }
    QColor error() const { return color(p().error); }
    QColor draft() const { return color(p().draft); }
    QColor systemTint() const { return color(p().systemTint); }
    QColor microphoneTint() const { return color(p().microphoneTint); }
    bool dark() const { return p().isDark; }
    QString skinName() const;
    qreal captionScale() const;
    int unit() const { return 4; }
    int radius() const { return 8; }
    int fontSmall() const { return 12; }
    int fontBody() const { return 14; }
    int fontTitle() const { return 18; }
    int captionPrimary() const { return int(22 * captionScale() + 0.5); }
    int captionSecondary() const { return int(16 * captionScale() + 0.5); }
    static QString chineseFamily() { return QStringLiteral("Noto Sans CJK SC"); }
    static QString japaneseFamily() { return QStringLiteral("Noto Sans CJK JP"); }
    static QString monoDigitsFamily() { return QStringLiteral("Noto Sans Mono CJK SC"); }

    // The family a line is drawn in: Japanese when it has kana, Chinese otherwise.
    Q_INVOKABLE static QString familyFor(const QString& text);
    // The line a Chinese reader reads first.
    Q_INVOKABLE static bool isChinese(const QString& text);

signals:
    void changed();

private:
    const Palette& p() const { return palette(skin()); }
    static QColor color(std::uint32_t argb) { return QColor::fromRgba(argb); }
    std::optional<Skin> chosen_;
    bool desktopDark_ = false;
    CaptionTextSize captionSize_ = CaptionTextSize::medium;
};

}  // namespace osv

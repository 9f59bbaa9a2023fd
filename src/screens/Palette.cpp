#include "screens/Palette.h"

namespace osv {

namespace {

constexpr Palette kIndigo{0xFFF5F6FA, 0xFFFFFFFF, 0xFFDCDFEA, 0xFF1A1D2B, 0xFF676C80, 0xFF3949AB, 0xFFFFFFFF,
                          0xFF9A5B00, 0xFFC62828, 0xFF8C90A3, 0xFFFFFFFF, 0xFFEEF0FB, false};
constexpr Palette kVermilion{0xFFFAF5F2, 0xFFFFFFFF, 0xFFEADBD4, 0xFF2A1A15, 0xFF7A645C, 0xFFC8400E, 0xFFFFFFFF,
                             0xFF9A5B00, 0xFFB71C1C, 0xFF968680, 0xFFFFFFFF, 0xFFFCEEE8, false};
constexpr Palette kPine{0xFFF3F7F4, 0xFFFFFFFF, 0xFFD7E3DA, 0xFF16231B, 0xFF5F7266, 0xFF2E7D4F, 0xFFFFFFFF,
                        0xFF9A5B00, 0xFFC62828, 0xFF86978C, 0xFFFFFFFF, 0xFFE8F3EC, false};
constexpr Palette kNight{0xFF14161C, 0xFF1D2028, 0xFF2E323D, 0xFFE9EBF1, 0xFF9AA0B1, 0xFF8C9EFF, 0xFF10131C,
                         0xFFFFB74D, 0xFFEF6F6C, 0xFF7D8394, 0xFF1D2028, 0xFF222838, true};

}  // namespace

const Palette& palette(Skin skin) {
    switch (skin) {
        case Skin::indigo: return kIndigo;
        case Skin::vermilion: return kVermilion;
        case Skin::pine: return kPine;
        case Skin::night: return kNight;
    }
    return kIndigo;
}

Skin effectiveSkin(std::optional<Skin> chosen, bool desktopIsDark) {
    if (chosen) return *chosen;
    return desktopIsDark ? Skin::night : Skin::indigo;
}

}  // namespace osv

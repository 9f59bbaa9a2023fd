#pragma once

// The skins: one definition of each palette, used by the window's QML (through ThemeModel)
// and by any C++ painter that draws captions, so the colours are never written twice.
// Colours are 0xAARRGGBB.

#include <cstdint>
#include <optional>

#include "settings/TranslatorSettings.h"

namespace osv {

struct Palette {
    std::uint32_t background;
    std::uint32_t surface;
    std::uint32_t border;
    std::uint32_t text;
    std::uint32_t mutedText;
    std::uint32_t accent;
    std::uint32_t onAccent;
    std::uint32_t warning;
    std::uint32_t error;
    std::uint32_t draft;
    std::uint32_t systemTint;      // the other side's cards
    std::uint32_t microphoneTint;  // the user's own cards
    bool isDark;
};

const Palette& palette(Skin skin);

// The skin shown: the user's choice; without one, `night` on a dark desktop and `indigo`
// otherwise.
Skin effectiveSkin(std::optional<Skin> chosen, bool desktopIsDark);

}  // namespace osv

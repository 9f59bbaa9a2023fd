#pragma once

#include <filesystem>

namespace osv {

// Where the program keeps its data: $OSV_SUPPORT_DIR if set, else $XDG_DATA_HOME/Ossevra,
// else ~/.local/share/Ossevra. Not created here.
std::filesystem::path supportDirectory();

// Where the user defaults live: $XDG_CONFIG_HOME/Ossevra, else ~/.config/Ossevra.
std::filesystem::path configDirectory();

}  // namespace osv

#pragma once

// The program's stores, opened as at launch. Internal to the command line.

#include <iosfwd>
#include <optional>
#include <string>

#include "platform/secrets/LibsecretBackend.h"
#include "platform/storage/FileUserDefaults.h"
#include "settings/TranslatorSettings.h"

namespace osv::cli {

struct Stores {
    FileUserDefaults defaults;
    LibsecretBackend backend;
    SecretStore secrets;
    SettingsStore settings;

    // Says on `err` why the defaults file was set aside, if it was.
    explicit Stores(std::ostream& err);
};

// OPENAI_API_KEY, the key a launch starts from until a stored one replaces it.
std::optional<std::string> environmentKey();

}  // namespace osv::cli
